// libsecurec.so.
#include <securec.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "tools/platform_check/checks.h"

namespace platform_check {

namespace {

constexpr char CANARY = '#';
// Enough to notice a function that copies in words instead of bytes.
constexpr std::size_t BEHIND = 16;

// A destination, and guard bytes behind it that the function must not write to.
class Destination {
public:
    explicit Destination(std::size_t size) : mBytes(size + BEHIND, CANARY), mSize(size) {}

    char* Bytes() { return mBytes.data(); }
    std::size_t Size() const { return mSize; }
    std::string Text() const { return mBytes.substr(0, mBytes.find('\0')); }
    bool BeginsWith(const std::string& text) const { return mBytes.compare(0, text.size(), text) == 0; }
    bool IsWhole() const { return mBytes.substr(mSize) == std::string(BEHIND, CANARY); }

private:
    std::string mBytes;
    std::size_t mSize;
};

std::string Outcome(bool succeeded, bool shouldSucceed, bool content, const Destination& destination) {
    // First, because it is the most dangerous deviation.
    if (!destination.IsWhole()) {
        return "bytes behind the destination were written";
    }
    if (succeeded != shouldSucceed) {
        return succeeded ? "success" : "a failure";
    }
    return content ? "" : "something else in the destination";
}

struct Functions {
    decltype(&memcpy_s) copy = nullptr;
    decltype(&memset_s) fill = nullptr;
    decltype(&strncpy_s) copyText = nullptr;
};

std::string Load(const std::string& file, Functions& functions) {
    std::string fault;
    functions.copy = reinterpret_cast<decltype(functions.copy)>(LoadFunction(file, "memcpy_s", fault));
    functions.fill = reinterpret_cast<decltype(functions.fill)>(LoadFunction(file, "memset_s", fault));
    functions.copyText =
        reinterpret_cast<decltype(functions.copyText)>(LoadFunction(file, "strncpy_s", fault));
    return fault;
}

const char SUCCESS[] = "0 and what was asked for, nothing behind";
const char FAILURE[] = "another result than 0, nothing behind";

void CheckCopies(const Functions& functions, Report& report) {
    const std::string source(40, 's');
    report.Check("memcpy_s copies what fits exactly", SUCCESS, [&] {
        Destination to(40);
        const int result = functions.copy(to.Bytes(), to.Size(), source.data(), source.size());
        return Outcome(result == 0, true, to.BeginsWith(source), to);
    });
    report.Check("memcpy_s refuses a byte too many", FAILURE, [&] {
        Destination to(39);
        const int result = functions.copy(to.Bytes(), to.Size(), source.data(), source.size());
        // The function must fail and must not have copied a part.
        return Outcome(result == 0, false, !to.BeginsWith(source.substr(1)), to);
    });
    report.Check("memset_s fills what fits exactly", SUCCESS, [&] {
        Destination to(40);
        const int result = functions.fill(to.Bytes(), to.Size(), 's', to.Size());
        return Outcome(result == 0, true, to.BeginsWith(source), to);
    });
    report.Check("memset_s refuses a byte too many", FAILURE, [&] {
        Destination to(39);
        const int result = functions.fill(to.Bytes(), to.Size(), 's', to.Size() + 1);
        return Outcome(result == 0, false, true, to);
    });
}

void CheckTexts(const Functions& functions, Report& report) {
    constexpr std::size_t FIELD = 40;
    const std::string fits(FIELD - 1, 't');
    const auto copy = [&](Destination& to, const std::string& text, std::size_t count) {
        return functions.copyText(to.Bytes(), to.Size(), text.c_str(), count);
    };
    report.Check("strncpy_s copies 39 characters into 40 bytes, and terminates them", SUCCESS, [&] {
        Destination to(FIELD);
        const int result = copy(to, fits, fits.size());
        return Outcome(result == 0, true, to.Text() == fits, to);
    });
    report.Check("strncpy_s refuses 40 characters for 40 bytes", FAILURE, [&] {
        Destination to(FIELD);
        const int result = copy(to, fits + "t", FIELD);
        return Outcome(result == 0, false, !to.BeginsWith(fits + "t"), to);
    });
    report.Check("strncpy_s copies as many characters as it is told, and terminates them", SUCCESS, [&] {
        Destination to(FIELD);
        // A count shorter than the source is no error.
        const int result = copy(to, fits + fits, 3);
        return Outcome(result == 0, true, to.Text() == "ttt", to);
    });
    report.Check("strncpy_s ends at the terminator", SUCCESS, [&] {
        Destination to(FIELD);
        const int result = copy(to, "t", FIELD + FIELD);
        return Outcome(result == 0, true, to.Text() == "t", to);
    });
}

}  // namespace

void CheckSecurec(const Files& files, Report& report) {
    report.Begin("securec");
    Functions functions;
    const bool loaded = report.Check("has the three functions", "a file that can be loaded, with all of them",
                                     [&] { return Load(files.securec, functions); });
    if (loaded) {
        CheckCopies(functions, report);
        CheckTexts(functions, report);
    }
}

}  // namespace platform_check
