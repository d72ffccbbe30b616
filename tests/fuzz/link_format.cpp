// A node's description of itself, and the lists of addresses in settings.
#include "platform/link/wire/link_format.h"

#include "tests/fuzz/mutation.h"
#include "tests/fuzz/require.h"

using lumora_fuzz::Require;
using namespace lumora_link;

namespace {

bool IsSame(const NodeDescription& a, const NodeDescription& b) {
    return a.identity == b.identity && a.endpoint == b.endpoint && a.deviceType == b.deviceType &&
           a.secured == b.secured;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(data, data + size);
    if (const auto node = ParseLink(text)) {
        const auto again = ParseLink(FormatLink(*node));
        Require(again && IsSame(*node, *again), "a node is read as it was written");
    }
    if (const auto endpoint = ParseEndpoint(text, 5683)) {
        Require(ParseEndpoint(EndpointText(*endpoint), 1) == endpoint,
                "an endpoint is read as it was written");
    }
    return 0;
}

std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size, std::size_t most, unsigned int) {
    return LLVMFuzzerMutate(data, size, most);
}
