#include "tools/lumora/session/device_start.h"

#include "nodes/platform_front.h"
#include "tools/lumora/os/ports.h"
#include "tools/lumora/terminal/failure.h"

namespace lumora_cli {

using lumora_nodes::TakeCause;
using lumora_nodes::WithCause;

void StartDevice(lumora::Device& device) {
    // The library opens port 6666 only when a client connects, and that would fail then without a visible
    // reason. The check here tells the user at once.
    if (TcpPortState(DEVICE_PORT) == PortState::TAKEN) {
        throw Failure(EXIT_REFUSED, "TCP port 6666 is taken on this host",
                      "another device has a client: end one of them first");
    }
    std::error_code error;
    // Forgets an earlier error line of this thread, so that a failure names its own cause.
    lumora_nodes::TakeCause();
    if (!device.Start(error)) {
        throw Failure(EXIT_FAILED, lumora_nodes::WithCause("the device cannot be made: " + error.message()),
                      "lumora doctor looks for what is wrong");
    }
}

}  // namespace lumora_cli
