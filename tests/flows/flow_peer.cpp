// One process of a flow.
//
// usage: flow_peer device TYPE
//        flow_peer client SECONDS [OPTION...]    see flow_client.h
//        flow_peer bystander

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "flow_client.h"
#include "flow_device.h"

namespace {

int Run(const std::vector<std::string>& arguments) {
    if (arguments.size() == 2 && arguments[0] == "device") {
        return lumora_test::RunFlowDevice(arguments[1].c_str());
    }
    if (arguments.size() >= 2 && arguments[0] == "client") {
        return lumora_test::RunFlowClient(std::atoi(arguments[1].c_str()),
                                          {arguments.begin() + 2, arguments.end()});
    }
    if (arguments.size() == 1 && arguments[0] == "bystander") {
        return lumora_test::RunBystander();
    }
    std::fputs("usage: flow_peer device TYPE | flow_peer client SECONDS [OPTION...] | flow_peer bystander\n",
               stderr);
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
    return Run({argv + 1, argv + argc});
}
