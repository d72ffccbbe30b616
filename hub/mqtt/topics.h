// The topics of the hub, and how names that a topic cannot hold stand in one.
//
//     PREFIX/DEVICE                  description, JSON, retained
//     PREFIX/DEVICE/online           "true" or "false", retained
//     PREFIX/DEVICE/SERVICE          blocks
//     PREFIX/DEVICE/command/NAME     in: a command; its parameter is the payload
//     PREFIX/DEVICE/send             in: a block for the device
//     PREFIX/hub/NAME/online         "true" or "false", retained; the last will
//     PREFIX/reply/...               out: how a command or a block ended, if the request asks for it
//
// A name is one level of a topic. In it, "/", "+", "#", "%", control characters, and bytes that are not UTF-8
// are written as "%" and two hexadecimal digits. Services (and hubs) named "command", "send" or "online" are
// written with their first letter in this way, so that they cannot be taken for the topics of that name.
// Devices cannot be taken for "hub" and "reply", because their ids have an "@".
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace lumora_hub {

// Whether MQTT takes it as a text: UTF-8 without control characters.
bool IsMqttText(std::string_view text);

std::string EncodeLevel(std::string_view name);
std::string EncodeService(std::string_view name);
// Reverses both. Empty if a "%" is not followed by two hexadecimal digits.
std::optional<std::string> DecodeLevel(std::string_view level);

// The text itself if MQTT takes it, otherwise as EncodeLevel writes it. For JSON and the log.
std::string ReadableText(std::string_view text);

// What came in for a device.
struct RequestTopic {
    bool isCommand = false;  // otherwise it is a block
    std::string device;
    std::string command;
};

class Topics {
public:
    Topics(const std::string& prefix, const std::string& hub);

    const std::string& HubOnline() const { return mHubOnline; }
    std::string Device(const std::string& id) const { return mPrefix + EncodeLevel(id); }
    std::string Online(const std::string& id) const { return Device(id) + "/online"; }
    std::string Service(const std::string& id, const std::string& service) const {
        return Device(id) + '/' + EncodeService(service);
    }

    // Filters to subscribe to.
    std::string Commands() const { return mPrefix + "+/command/+"; }
    std::string Sends() const { return mPrefix + "+/send"; }
    std::string Descriptions() const { return mPrefix + '+'; }

    // Empty if the topic is no request.
    std::optional<RequestTopic> Request(std::string_view topic) const;
    // The id of the device whose description stands at the topic; empty if there is none.
    std::optional<std::string> Described(std::string_view topic) const;
    // Answers go nowhere else. Otherwise a client that may publish a request could have the hub publish in
    // its place.
    bool IsReply(const std::string& topic) const;

private:
    // What follows the prefix; empty if the topic has another.
    std::optional<std::string_view> Rest(std::string_view topic) const;

    const std::string mPrefix;  // with a '/' at its end
    const std::string mHubOnline;
};

}  // namespace lumora_hub
