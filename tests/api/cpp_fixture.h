// What the tests of lumora.hpp have in common with those of the functions below it, and what they add.
#pragma once

#include "lumora.hpp"
#include "tests/api/api_fixture.h"

namespace lumora_test {

// Texts that arrive on another thread.
class Arrivals {
public:
    void Add(std::string text) {
        const std::lock_guard<std::mutex> lock(mMutex);
        mTexts.push_back(std::move(text));
    }

    Texts All() const {
        const std::lock_guard<std::mutex> lock(mMutex);
        return mTexts;
    }

private:
    mutable std::mutex mMutex;
    Texts mTexts;
};

constexpr std::chrono::milliseconds ONCE{0};

inline std::string TextOf(const std::exception_ptr& exception) {
    try {
        std::rethrow_exception(exception);
    } catch (const std::exception& caught) {
        return caught.what();
    } catch (...) {
        return "something else";
    }
}

}  // namespace lumora_test
