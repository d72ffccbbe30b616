// Collects times and gives their percentiles.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace lumora_bench {

class Latencies {
public:
    Latencies() { mNanoseconds.reserve(1000000); }
    void Add(std::int64_t nanoseconds) { mNanoseconds.push_back(nanoseconds); }
    void Print();

private:
    double Microseconds(double share) const;

    std::vector<std::int64_t> mNanoseconds;
};

}  // namespace lumora_bench
