#include "tests/api/page_end.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>

namespace lumora_test {

namespace {

constexpr std::size_t READABLE_PAGES = 2;

std::size_t PageSize() { return static_cast<std::size_t>(sysconf(_SC_PAGESIZE)); }

}  // namespace

PageEnd::PageEnd() {
    const std::size_t readable = READABLE_PAGES * PageSize();
    void* pages =
        mmap(nullptr, readable + PageSize(), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (pages == MAP_FAILED || mprotect(static_cast<char*>(pages) + readable, PageSize(), PROT_NONE) != 0) {
        throw std::runtime_error("no pages");
    }
    mPages = static_cast<char*>(pages);
}

PageEnd::~PageEnd() { munmap(mPages, (READABLE_PAGES + 1) * PageSize()); }

char* PageEnd::Put(const std::string& bytes) {
    char* start = mPages + READABLE_PAGES * PageSize() - bytes.size();
    std::memcpy(start, bytes.data(), bytes.size());
    return start;
}

}  // namespace lumora_test
