// From the start of a process to the first block that it receives: find, connect, subscribe, one block. One
// program for each library, so that none pays for loading the others. bench/journey starts them.
#pragma once

#include <cstdint>
#include <string>

namespace lumora_bench {

// Prints the milliseconds between the start of the process and each step, as one line of JSON.
class Steps {
public:
    // The clock of Nanoseconds() just before the process was started.
    explicit Steps(std::int64_t begin) : mBegin(begin) {}
    void Reach(const char* step);
    void Print(unsigned int found) const;

private:
    const std::int64_t mBegin;
    std::string mLine;
};

// Each library implements these. `count` devices are offered, or are to be found before the first is asked.
void Offer(const std::string& type, unsigned int count);
// Returns how many were found.
unsigned int Travel(const std::string& type, unsigned int count, Steps& steps);

}  // namespace lumora_bench
