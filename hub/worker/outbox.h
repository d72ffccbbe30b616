// Frames on their way from a worker to the hub.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>

#include "base/mutex.h"
#include "base/unique_fd.h"
#include "hub/worker/frames.h"

namespace lumora_hub {

// Blocks are written from the thread that brings them, without a copy, as long as the hub reads. If it does
// not, they wait here, and the oldest are dropped when there is no room. Other frames are never dropped;
// there are few.
//
// Any thread may call its functions.
class Outbox {
public:
    struct Limits {
        std::size_t blocks = 4096;  // small ones that come while the hub gets no processor
        std::size_t bytes = std::size_t{16} << 20;
    };

    // socket is not blocking, and outlives the object.
    Outbox(int socket, Limits limits);
    Outbox(const Outbox&) = delete;
    Outbox& operator=(const Outbox&) = delete;

    // Waits some milliseconds if the hub is slow, so that most blocks need no copy.
    void SendBlock(std::string_view service, std::uint64_t number, std::string_view bytes);
    void Send(const FrameHead& head, std::string_view name = {}, std::string_view body = {});

    // Writes what waits, until the socket is full. For the one thread that waits for the socket.
    void Flush();
    // Whether Flush has to be called again when the socket takes more.
    bool IsWaiting() const;
    // Readable once, when something was put aside for Flush. Reading it is the caller's task.
    int WakeFd() const { return mWake.Get(); }

private:
    struct Entry {
        std::string frame;
        std::size_t sent = 0;
        bool isBlock = false;
    };
    using Parts = std::array<std::string_view, 3>;

    bool MayWriteNow() REQUIRES(mMutex);
    void Enqueue(Entry entry) REQUIRES(mMutex);
    void DropOldestBlock() REQUIRES(mMutex);
    void StopWriting(Entry rest) EXCLUDES(mMutex);
    // How many bytes the hub has taken. More than the total of the parts if it is gone.
    std::size_t Write(const Parts& parts, std::size_t sent) const;
    void Wake() const;

    const int mSocket;
    const Limits mLimits;
    const lumora::UniqueFd mWake;
    mutable lumora::Mutex mMutex;
    std::deque<Entry> mEntries GUARDED_BY(mMutex);
    std::size_t mBlocks GUARDED_BY(mMutex) = 0;
    std::size_t mBytes GUARDED_BY(mMutex) = 0;
    bool mWriting GUARDED_BY(mMutex) = false;  // a thread writes, without the lock
};

}  // namespace lumora_hub
