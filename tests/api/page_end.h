// Memory that ends at a page: a read beyond its end faults.
#pragma once

#include <string>

namespace lumora_test {

// Pages in front of one that must not be touched. Whatever is put here ends at the very end of them.
class PageEnd {
public:
    PageEnd();
    ~PageEnd();
    PageEnd(const PageEnd&) = delete;
    PageEnd& operator=(const PageEnd&) = delete;

    // The bytes as they are, without a terminator behind them; valid until the next call.
    char* Put(const std::string& bytes);
    const char* PutText(const std::string& text) { return Put(text + '\0'); }
    template <typename Record>
    Record* PutRecord(const Record& record) {
        return reinterpret_cast<Record*>(
            static_cast<void*>(Put(std::string(reinterpret_cast<const char*>(&record), sizeof(record)))));
    }

private:
    char* mPages;
};

}  // namespace lumora_test
