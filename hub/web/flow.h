// What a connection sends: a reply, or a stream of messages.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include "hub/core/block.h"

namespace lumora_hub::web {

struct Piece {
    std::size_t size = 0;  // 0: nothing is to be sent now
    bool isFirst = false;  // of its message
    bool isLast = false;
};

using SharedText = std::shared_ptr<const std::string>;

// A text with another one behind it, which is read in pieces. The second one is shared, not copied.
class Message {
public:
    Message() = default;
    explicit Message(std::string text, SharedText body = nullptr)
        : mText(std::move(text)), mBody(std::move(body)) {}
    Message(std::string text, const BlockPointer& block)
        : Message(std::move(text), block ? SharedText(block, &block->bytes) : nullptr) {}

    std::size_t Size() const { return mText.size() + (mBody ? mBody->size() : 0); }
    bool IsRead() const { return mOffset == Size(); }
    // Copies the next bytes into room, at most size.
    Piece Read(char* room, std::size_t size);

private:
    std::string mText;
    SharedText mBody;
    std::size_t mOffset = 0;
};

// Belongs to the service thread.
class Flow {
public:
    virtual ~Flow() = default;
    // Copies the next bytes into room, at most size of one message.
    virtual Piece Fill(char* room, std::size_t size) = 0;
    virtual bool IsBinary() const { return false; }
};

// The messages of a stream: bare ones over a WebSocket, lines of text as server-sent events.
enum class Framing { WEB_SOCKET, SERVER_SENT_EVENTS };

// What a stream begins with. Browsers otherwise wait for some seconds before they connect again.
Message Greeting(Framing framing);

// A server-sent event. text must not hold a carriage return. id may be empty.
std::string ServerSentEvent(const char* name, const std::string& id, std::string_view text);

}  // namespace lumora_hub::web
