// What a connection sends: a reply, or a stream of messages.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "hub/core/block.h"

namespace lumora_hub::web {

struct Piece {
    std::size_t size = 0;  // 0: nothing is to be sent now
    bool isFirst = false;  // of its message
    bool isLast = false;
};

// A text with a block behind it, which is read in pieces. The block is shared, not copied.
class Message {
public:
    Message() = default;
    explicit Message(std::string text, BlockPointer block = nullptr)
        : mText(std::move(text)), mBlock(std::move(block)) {}

    std::size_t Size() const { return mText.size() + (mBlock ? mBlock->bytes.size() : 0); }
    bool IsRead() const { return mOffset == Size(); }
    // Copies the next bytes into room, at most size.
    Piece Read(char* room, std::size_t size);

private:
    std::string mText;
    BlockPointer mBlock;
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

// A server-sent event. text must not hold a carriage return. id may be empty.
std::string ServerSentEvent(const char* name, const std::string& id, std::string_view text);

}  // namespace lumora_hub::web
