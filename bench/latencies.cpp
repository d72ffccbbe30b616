#include "bench/latencies.h"

#include <algorithm>
#include <cstdio>

namespace lumora_bench {

double Latencies::Microseconds(double share) const {
    const auto index = static_cast<std::size_t>(share * static_cast<double>(mNanoseconds.size() - 1));
    return static_cast<double>(mNanoseconds[index]) / 1000.0;
}

void Latencies::Print() {
    if (mNanoseconds.empty()) {
        return;
    }
    std::sort(mNanoseconds.begin(), mNanoseconds.end());
    std::printf("{\"samples\":%zu,\"p50_us\":%.2f,\"p99_us\":%.2f,\"p999_us\":%.2f}\n", mNanoseconds.size(),
                Microseconds(0.5), Microseconds(0.99), Microseconds(0.999));
    std::fflush(stdout);
}

}  // namespace lumora_bench
