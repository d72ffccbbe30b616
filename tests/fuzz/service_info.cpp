// The service-information document of a device, as a client reads it.
#include <algorithm>
#include <climits>
#include <cstring>

#include "library/transport_kind.h"
#include "protocol/control_documents.h"
#include "tests/fuzz/mutation.h"
#include "tests/fuzz/require.h"

using lumora_fuzz::Require;
using namespace lumoraAiModule;

namespace {

bool IsSame(const LUM_SERVICE_INFO_S& a, const LUM_SERVICE_INFO_S& b) {
    // JSON's integers end earlier.
    return std::min<unsigned int>(a.outputLenBytes, INT_MAX) == b.outputLenBytes &&
           std::strcmp(a.serviceName, b.serviceName) == 0 &&
           lumora::TransportKind(a) == lumora::TransportKind(b);
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    LUM_DEVICE_INFO_S device = {};
    if (ParseServiceInfoString(std::string(data, data + size), &device) != 0) {
        return 0;
    }
    Require(device.serviceNum <= LUM_MAX_SERVICES, "there are no more services than fit");
    Require(std::memchr(device.devServiceType, '\0', LUM_NAME_SIZE) != nullptr, "the type is terminated");

    LUM_SERVICE_INFO_S* const end = device.serviceInfo + device.serviceNum;
    const std::vector<LUM_SERVICE_INFO_S> services(device.serviceInfo, end);
    std::string document;
    Require(GetServiceInfoString(device.devServiceType, services, document) == 0,
            "what was read can be written");
    LUM_DEVICE_INFO_S again = {};
    Require(ParseServiceInfoString(document, &again) == 0, "what was written can be read");
    Require(std::strcmp(device.devServiceType, again.devServiceType) == 0, "with the same type");
    Require(
        std::equal(device.serviceInfo, end, again.serviceInfo, again.serviceInfo + again.serviceNum, IsSame),
        "and the same services");
    return 0;
}

std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size, std::size_t most,
                                    unsigned int seed) {
    return lumora_fuzz::MutateDocument(data, size, most, seed, lumora_fuzz::MutateJson);
}
