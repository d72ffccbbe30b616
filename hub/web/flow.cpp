#include "hub/web/flow.h"

#include <algorithm>
#include <cstring>

namespace lumora_hub::web {

Piece Message::Read(char* room, std::size_t size) {
    Piece piece;
    piece.isFirst = mOffset == 0;
    const auto copy = [&](std::string_view part, std::size_t start) {
        if (mOffset < start || mOffset >= start + part.size() || piece.size == size) {
            return;
        }
        const std::string_view rest = part.substr(mOffset - start, size - piece.size);
        std::memcpy(room + piece.size, rest.data(), rest.size());
        piece.size += rest.size();
        mOffset += rest.size();
    };
    copy(mText, 0);
    if (mBody) {
        copy(*mBody, mText.size());
    }
    piece.isLast = IsRead();
    return piece;
}

Message Greeting(Framing framing) {
    return framing == Framing::SERVER_SENT_EVENTS ? Message("retry: 500\n\n") : Message();
}

std::string ServerSentEvent(const char* name, const std::string& id, std::string_view text) {
    std::string event = std::string("event: ") + name + "\n";
    if (!id.empty()) {
        event += "id: " + id + "\n";
    }
    while (true) {
        const std::size_t end = text.find('\n');
        event.append("data: ").append(text.substr(0, end)).append("\n");
        if (end == std::string_view::npos) {
            return event + "\n";
        }
        text.remove_prefix(end + 1);
    }
}

}  // namespace lumora_hub::web
