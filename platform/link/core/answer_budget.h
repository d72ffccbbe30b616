// How many bytes this node sends to addresses that have not shown that they receive.
//
// The sender of a datagram can be forged. The answer, which may be many times as long, then reaches a host
// that never asked. Each address has a token bucket: a client that asks now and then notices nothing, and a
// flood in the name of another host gets hardly anything through.
#pragma once

#include <cstddef>
#include <map>

#include "platform/link/wire/types.h"

namespace lumora_link {

class AnswerBudget {
public:
    static constexpr std::int64_t BURST = 16384;  // bytes
    static constexpr std::int64_t BYTES_PER_SECOND = 2048;
    static constexpr std::size_t MAX_HOSTS = 1024;

    // False until the address has bytes left again.
    bool Permits(in_addr_t host, TimePoint now) { return BucketOf(host, now).left > 0; }
    bool RunsShort(in_addr_t host, TimePoint now) { return BucketOf(host, now).left < BURST / 2; }
    // What was permitted may take more than is left. The address then waits that much longer.
    void Charge(in_addr_t host, std::size_t bytes);

private:
    struct Bucket {
        std::int64_t left = BURST;
        TimePoint filled;
    };

    Bucket& BucketOf(in_addr_t host, TimePoint now);
    void MakeRoom();

    std::map<in_addr_t, Bucket> mBuckets;
};

}  // namespace lumora_link
