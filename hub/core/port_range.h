// The pairs of data ports of the workers.
#pragma once

#include <optional>
#include <set>
#include <string>

namespace lumora_hub {

struct PortLimits {
    int first = 6700;
    int last = 6899;
};

// "6700-6899"; nothing if it is no range with a pair in it. A pair begins with an even port.
std::optional<PortLimits> ParsePorts(const std::string& text);

class PortRange {
public:
    explicit PortRange(PortLimits limits);

    // The first port of a pair that has not been used for longest; nothing if all are in use.
    std::optional<int> Take();
    void Release(int port) { mUsed.erase(port); }

    std::size_t Pairs() const;

private:
    const PortLimits mLimits;  // both ends belong to pairs
    int mNext;
    std::set<int> mUsed;
};

}  // namespace lumora_hub
