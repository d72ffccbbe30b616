#include "tests/fuzz/mutation.h"
#include "tests/fuzz/request.h"

namespace lumora_fuzz {

namespace {

const char* const KEYS[] = {
    "Command", "ServiceInfo", "TransStatus", "StopTransport", "Connect",
    "Destroy", "GetVersion",  "face",        "text",          ".sys.mediaservice.setup"};
const char* const VALUES[] = {"1", "2", "-1", "2147483648", " 7x", "", "127.0.0.1", "Lum_RA"};
const unsigned int SIZES[] = {0, 1, 2, 4, 5, 1023, 1024, 65535};

}  // namespace

std::string MutateRequest(const std::string& bytes, Dice& dice) {
    Request request = ReadRequest(bytes);
    switch (dice.Below(6)) {
        case 0:
            request.key = dice.Pick(KEYS);
            break;
        case 1:
            request.value = dice.Pick(VALUES);
            break;
        case 2:
            request.size = dice.Pick(SIZES);
            break;
        case 3:
            return MutateBytes(bytes, dice);
        default:
            request.value = MutateJson(request.value, dice);
    }
    return WriteRequest(request);
}

}  // namespace lumora_fuzz
