// A way into the hub: web page, MQTT and so on. main.cpp starts and ends all of them in the same manner.
#pragma once

#include <memory>
#include <stdexcept>
#include <vector>

#include "hub/core/device_hub.h"
#include "hub/core/figures.h"

namespace CLI {
class App;
}

namespace lumora_hub {

// Options that cannot be used, in a sentence for people. A service manager need not try them again.
class OptionError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

class Face {
public:
    // Ends the face, and waits for its threads. It must have dropped all Registrations of the hub by then.
    virtual ~Face() = default;

    // Adds its options, which may stand in the configuration file as well. Called once, before Start.
    virtual void AddOptions(CLI::App& app) = 0;
    // Called once, after the options were read. The hub and the figures outlive the face. A face that the
    // options do not ask for does nothing. Throws OptionError, or std::runtime_error with a sentence for
    // people if the next try may succeed.
    virtual void Start(DeviceHub& hub, FigureBoard& figures) = 0;
};

// All faces that this program was built with (faces.cpp).
std::vector<std::unique_ptr<Face>> MakeFaces();

}  // namespace lumora_hub
