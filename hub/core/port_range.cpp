#include "hub/core/port_range.h"

#include <charconv>

namespace lumora_hub {

namespace {

constexpr int LOWEST_PORT = 1024;
constexpr int HIGHEST_PORT = 65535;

PortLimits WholePairs(PortLimits limits) {
    return {limits.first + limits.first % 2, limits.last - (1 - limits.last % 2)};
}

}  // namespace

std::optional<PortLimits> ParsePorts(const std::string& text) {
    PortLimits limits;
    const char* const end = text.data() + text.size();
    const auto [middle, firstError] = std::from_chars(text.data(), end, limits.first);
    if (firstError != std::errc() || middle == end || *middle != '-') {
        return std::nullopt;
    }
    const auto [rest, lastError] = std::from_chars(middle + 1, end, limits.last);
    if (lastError != std::errc() || rest != end || limits.first < LOWEST_PORT || limits.last > HIGHEST_PORT) {
        return std::nullopt;
    }
    const PortLimits pairs = WholePairs(limits);
    return pairs.first < pairs.last ? std::optional(limits) : std::nullopt;
}

PortRange::PortRange(PortLimits limits) : mLimits(WholePairs(limits)), mNext(mLimits.first) {}

// In a circle: a connection that has just ended keeps its ports for a while.
std::optional<int> PortRange::Take() {
    for (std::size_t tries = Pairs(); tries > 0; --tries) {
        const int port = mNext;
        mNext = port + 2 < mLimits.last ? port + 2 : mLimits.first;
        if (mUsed.insert(port).second) {
            return port;
        }
    }
    return std::nullopt;
}

std::size_t PortRange::Pairs() const {
    return static_cast<std::size_t>(mLimits.last - mLimits.first + 1) / 2;
}

}  // namespace lumora_hub
