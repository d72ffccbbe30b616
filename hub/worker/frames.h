// What lumora-hub and a worker say to each other over a stream socket: frames of a head, a name and a body.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace lumora_hub {

enum class FrameKind : std::uint8_t {
    // To the worker.
    SUBSCRIBE = 1,  // name: the service
    UNSUBSCRIBE,    // name: the service
    COMMAND,        // name: the command; body: its parameter; number: of the request
    SEND,           // body: a block for the device; number: of the request
    // To the hub.
    CONNECTED,   // name: the version of the device's library; code: 1 if the channel is private; body: its
                 // key's name
    SUBSCRIBED,  // name: the service; code: 0, or 1 if the device refused
    ANSWER,      // number: of the request; code: an Outcome
    BLOCK,       // name: the service; body: the block; number: which of this service, lost ones counted
    ENDED        // the last one; code: an EndReason; body: why, in a sentence
};

// Why a worker ends.
enum class EndReason : std::uint8_t {
    CONNECT_FAILED = 0,  // the device was not found, or there is no channel to it
    PORT_TAKEN,          // a port of the pair is in use on this host
    DEVICE_LEFT,
    CHANNEL_ENDED  // though the device is still there
};

// The head of a frame. Both ends are programs of one host, so its fields are in the host's byte order.
struct FrameHead {
    std::uint32_t bodyLength = 0;
    FrameKind kind{};
    std::uint8_t code = 0;
    std::uint16_t nameLength = 0;
    std::uint64_t number = 0;
};

constexpr std::size_t FRAME_HEAD_LENGTH = 16;
constexpr std::size_t MAX_FRAME_NAME = 400;      // a command
constexpr std::size_t MAX_FRAME_BODY = 5242880;  // a block to a device
constexpr std::size_t MAX_FRAME_TEXT = 1024;     // a body that is no block
using FrameHeadBytes = std::array<char, FRAME_HEAD_LENGTH>;

FrameHeadBytes EncodeHead(const FrameHead& head);

// Nothing if the head cannot be: an unknown kind, or a length that this kind does not have. bytes has
// FRAME_HEAD_LENGTH bytes.
std::optional<FrameHead> DecodeHead(const char* bytes);

// A whole frame. The name and the body must fit their limits.
std::string EncodeFrame(FrameHead head, std::string_view name, std::string_view body);

}  // namespace lumora_hub
