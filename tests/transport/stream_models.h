// What the two receiving sides deliver of a stream that comes in given pieces, written down a second time
// and as plainly as possible: whole strings and views of them, no offsets kept.
#pragma once

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/raw_peer.h"

namespace lumora_test {

inline unsigned int ByteAt(std::string_view bytes, size_t index) {
    return static_cast<unsigned char>(bytes[index]);
}

inline unsigned int PayloadLengthIn(std::string_view head) {
    return ByteAt(head, 1) + (ByteAt(head, 2) << 8) + (ByteAt(head, 3) << 16) + (ByteAt(head, 4) << 24);
}

class StreamModel {
public:
    StreamModel(size_t capacity, size_t minimumHead) : mCapacity(capacity), mMinimumHead(minimumHead) {}
    virtual ~StreamModel() = default;

    // False when the piece does not fit.
    bool Feed(const Bytes& piece) {
        if (!mPending) {
            const Bytes rest = piece.substr(Cut(piece));
            mPending = !rest.empty();
            return Hold(rest);
        }
        if (!Hold(piece)) {
            return false;
        }
        if (mHeld.size() < std::max<size_t>(ByteAt(mHeld, 0), mMinimumHead) ||
            mHeld.size() < WorthCutting()) {
            return true;
        }
        mHeld.erase(0, Cut(mHeld));
        mPending = !mHeld.empty();
        return true;
    }

    const std::vector<std::string>& Delivered() const { return mDelivered; }
    const Bytes& Held() const { return mHeld; }

protected:
    virtual size_t Cut(const Bytes& data) = 0;
    virtual size_t WorthCutting() const = 0;
    Bytes mHeld;
    std::vector<std::string> mDelivered;

private:
    bool Hold(const Bytes& bytes) {
        if (mHeld.size() + bytes.size() > mCapacity) {
            return false;
        }
        mHeld += bytes;
        return true;
    }

    const size_t mCapacity;
    const size_t mMinimumHead;
    bool mPending = false;
};

// Server frames, as a client takes them: the head says how long it is.
class ClientStreamModel : public StreamModel {
public:
    ClientStreamModel() : StreamModel(2072676, 5) {}

protected:
    size_t Cut(const Bytes& data) override {
        size_t head = ByteAt(data, 0);
        size_t frame = 0;
        std::string_view left = data;
        if (head == 0 || head > 100) {
            return 0;
        }
        while (left.size() > head && left.size() >= 5) {
            head = ByteAt(left, 0);
            if (head <= 100) {
                const bool legal = PayloadLengthIn(left) <= 1024000;
                frame = legal ? head + PayloadLengthIn(left) : 0;
            }
            if (frame == 0 || frame > left.size()) {
                break;
            }
            mDelivered.emplace_back(left.substr(0, frame));
            left.remove_prefix(frame);
        }
        return data.size() - left.size();
    }

    size_t WorthCutting() const override {
        const bool legal = ByteAt(mHeld, 0) <= 100 && PayloadLengthIn(mHeld) <= 1024000;
        return legal ? ByteAt(mHeld, 0) + PayloadLengthIn(mHeld) : 0;
    }
};

// Client frames, as a server takes them: the head has six bytes whatever it says.
class ServerStreamModel : public StreamModel {
public:
    ServerStreamModel() : StreamModel(6291462, 6) {}

protected:
    static bool Legal(std::string_view data) {
        return ByteAt(data, 0) <= 6 && PayloadLengthIn(data) <= 5242886;
    }

    size_t Cut(const Bytes& data) override {
        std::string_view left = data;
        while (left.size() > 6) {
            const size_t payload = Legal(left) ? PayloadLengthIn(left) : 0;
            if (payload + 6 > left.size()) {
                break;
            }
            mDelivered.push_back(Bytes(1, Legal(left) ? left[5] : '\0') + Bytes(left.substr(6, payload)));
            left.remove_prefix(payload + 6);
        }
        return data.size() - left.size();
    }

    size_t WorthCutting() const override { return Legal(mHeld) ? PayloadLengthIn(mHeld) : 0; }
};

}  // namespace lumora_test
