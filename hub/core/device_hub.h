// The hub as its faces (web page, MQTT, metrics) see it.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "hub/core/consumer.h"
#include "hub/core/device.h"

namespace lumora_hub {

// Ends what it stands for when it is destroyed: a consumer gets no further blocks, a listener no further
// calls. Its destructor waits for a call in progress, so a listener must not destroy its own.
class Registration {
public:
    virtual ~Registration() = default;
};

// How a command or a block for a device ended.
enum class Outcome {
    DONE,
    NO_DEVICE,    // there is none of that name
    UNREACHABLE,  // no channel could be opened in time
    REFUSED,      // the device refused, or did not answer
    BAD_REQUEST,  // a name or a size that cannot be
    BUSY          // too many of this kind wait
};

struct ConsumerState {
    std::string name;
    std::string device;
    std::string service;
    ConsumerCounts counts;
};

// How often devices were refused because others at their address have what one address may have.
struct RefusalCounts {
    std::uint64_t nodes = 0;  // not asked what they offer
    std::uint64_t devices = 0;
    std::uint64_t channels = 0;
};

// Any thread may call its functions. None of them waits for a device.
//
// A device is named by its id (TYPE@ADDRESS), or by its type alone: that is one device of the type, and
// another one of it if the first has left. A name of a device that is not there is allowed for Subscribe: the
// consumer gets blocks as soon as the device comes.
class DeviceHub {
public:
    using Listener = std::function<void(const DeviceEvent& event)>;
    using Done = std::function<void(Outcome outcome)>;

    virtual ~DeviceHub() = default;

    virtual std::vector<DeviceState> Devices() const = 0;
    virtual std::optional<DeviceState> FindDevice(const std::string& name) const = 0;
    virtual std::vector<ConsumerState> Consumers() const = 0;
    virtual RefusalCounts Refusals() const = 0;

    // Blocks of the service go to the consumer until the result is destroyed. The channel is opened for the
    // first consumer and closed a while after the last. Null if the hub has as many consumers as it may have.
    virtual std::unique_ptr<Registration> Subscribe(const std::string& device, const std::string& service,
                                                    std::shared_ptr<Consumer> consumer) = 0;

    // Opens a channel if there is none. done is called once, on a thread of the hub, or before the call
    // returns. It must return at once.
    virtual void SendCommand(const std::string& device, const std::string& command,
                             const std::string& parameter, Done done) = 0;
    virtual void SendBlock(const std::string& device, std::string bytes, Done done) = 0;

    // The listener is called with APPEARED for each device that is there already, before Watch returns; then
    // with each change, on a thread of the hub. Changes of counts alone are no changes.
    virtual std::unique_ptr<Registration> Watch(Listener listener) = 0;
};

}  // namespace lumora_hub
