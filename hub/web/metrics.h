// What the web face counts, and the text that Prometheus reads.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "hub/core/device_hub.h"
#include "hub/core/figures.h"

namespace lumora_hub::web {

// Times in buckets. Not thread-safe.
class Histogram {
public:
    static constexpr std::array<double, 12> BOUNDS = {0.0001, 0.00025, 0.0005, 0.001, 0.0025, 0.005,
                                                      0.01,   0.025,   0.05,   0.1,   0.5,    2.5};

    void Add(std::chrono::steady_clock::duration time);
    // Appends the lines of a histogram of this name.
    void Print(const std::string& name, const std::string& help, std::string& out) const;

private:
    std::array<std::uint64_t, BOUNDS.size() + 1> mCounts{};
    double mSum = 0;
};

// Not thread-safe: belongs to the service thread.
struct WebCounts {
    std::map<int, std::uint64_t> replies;  // by status
    std::uint64_t accepted = 0;            // connections
    std::uint64_t refused = 0;             // connections beyond the limits
    std::uint64_t expired = 0;             // connections that were too slow
    std::uint64_t rejected = 0;            // requests without the token, of foreign pages or names
    std::size_t connections = 0;
    std::size_t streams = 0;
    std::uint64_t blocks = 0;  // sent to streams that have ended or go on
    std::uint64_t blockBytes = 0;
    std::uint64_t lostOfEnded = 0;  // blocks that streams lost which have ended
    Histogram latency;              // from the arrival of a block to its last byte's way into a socket
};

// A text in the quotation marks of a label.
std::string LabelText(const std::string& text);

// others: the figures of other faces.
std::string MetricsText(const DeviceHub& hub, const WebCounts& counts, std::uint64_t lostOfStreams,
                        const std::vector<Figure>& others);

}  // namespace lumora_hub::web
