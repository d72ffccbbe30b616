#include "hub/worker/outbox.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <utility>

namespace lumora_hub {

namespace {

using SteadyClock = std::chrono::steady_clock;

// Long enough for the hub to be given the processor and read a large block. The device's sender waits
// meanwhile, which it does for half a second before it closes the channel.
constexpr std::chrono::milliseconds LONGEST_WAIT{50};

std::string_view From(std::string_view part, std::size_t& skipped) {
    const std::size_t length = std::min(part.size(), skipped);
    skipped -= length;
    return part.substr(length);
}

bool WaitForRoom(int socket, SteadyClock::time_point deadline) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - SteadyClock::now());
    pollfd waiting = {socket, POLLOUT, 0};
    return left.count() > 0 && poll(&waiting, 1, static_cast<int>(left.count())) > 0;
}

}  // namespace

Outbox::Outbox(int socket, Limits limits)
    : mSocket(socket), mLimits(limits), mWake(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

// Only one thread writes at a time, and it does so without the lock. Others put their frames behind.
void Outbox::SendBlock(std::string_view service, std::uint64_t number, std::string_view bytes) {
    FrameHead head;
    head.kind = FrameKind::BLOCK;
    head.number = number;
    head.nameLength = static_cast<std::uint16_t>(service.size());
    head.bodyLength = static_cast<std::uint32_t>(bytes.size());
    {
        const lumora::MutexLock lock(mMutex);
        if (!MayWriteNow()) {
            Enqueue({EncodeFrame(head, service, bytes), 0, true});
            return;
        }
    }
    const FrameHeadBytes first = EncodeHead(head);
    const Parts parts = {std::string_view(first.data(), first.size()), service, bytes};
    const std::size_t total = first.size() + service.size() + bytes.size();
    const SteadyClock::time_point deadline = SteadyClock::now() + LONGEST_WAIT;
    std::size_t sent = Write(parts, 0);
    while (sent < total && WaitForRoom(mSocket, deadline)) {
        sent += Write(parts, sent);
    }
    // A frame that was begun must be finished, so it is not one of those that may be dropped.
    StopWriting(sent < total ? Entry{EncodeFrame(head, service, bytes), sent, sent == 0} : Entry{});
}

void Outbox::Send(const FrameHead& head, std::string_view name, std::string_view body) {
    const lumora::MutexLock lock(mMutex);
    Enqueue({EncodeFrame(head, name, body), 0, false});
    Wake();
}

void Outbox::Flush() {
    Entry entry;
    while (true) {
        {
            const lumora::MutexLock lock(mMutex);
            if (mWriting || mEntries.empty()) {
                return;
            }
            entry = std::move(mEntries.front());
            mEntries.pop_front();
            mBlocks -= entry.isBlock ? 1 : 0;
            mBytes -= entry.isBlock ? entry.frame.size() : 0;
            mWriting = true;
        }
        entry.sent += Write({entry.frame, {}, {}}, entry.sent);
        const bool whole = entry.sent >= entry.frame.size();
        entry.isBlock = entry.isBlock && entry.sent == 0;
        StopWriting(whole ? Entry{} : std::move(entry));
        if (!whole) {
            return;
        }
    }
}

bool Outbox::IsWaiting() const {
    const lumora::MutexLock lock(mMutex);
    return !mWriting && !mEntries.empty();
}

bool Outbox::MayWriteNow() {
    const bool may = !mWriting && mEntries.empty();
    mWriting = mWriting || may;
    return may;
}

void Outbox::Enqueue(Entry entry) {
    if (entry.isBlock) {
        while (mBlocks > 0 && (mBlocks >= mLimits.blocks || mBytes + entry.frame.size() > mLimits.bytes)) {
            DropOldestBlock();
        }
        ++mBlocks;
        mBytes += entry.frame.size();
    }
    mEntries.push_back(std::move(entry));
}

// The hub sees the gap in the numbers of the blocks.
void Outbox::DropOldestBlock() {
    const auto oldest =
        std::find_if(mEntries.begin(), mEntries.end(), [](const Entry& entry) { return entry.isBlock; });
    mBytes -= oldest->frame.size();
    --mBlocks;
    mEntries.erase(oldest);
}

void Outbox::StopWriting(Entry rest) {
    const lumora::MutexLock lock(mMutex);
    mWriting = false;
    if (!rest.frame.empty()) {
        mBlocks += rest.isBlock ? 1 : 0;
        mBytes += rest.isBlock ? rest.frame.size() : 0;
        mEntries.push_front(std::move(rest));
    }
    if (!mEntries.empty()) {
        Wake();
    }
}

std::size_t Outbox::Write(const Parts& parts, std::size_t sent) const {
    std::array<iovec, 3> pieces = {};
    std::size_t total = 0;
    std::size_t skipped = sent;
    for (std::size_t i = 0; i < parts.size(); ++i) {
        const std::string_view rest = From(parts[i], skipped);
        pieces[i] = {const_cast<char*>(rest.data()), rest.size()};
        total += rest.size();
    }
    msghdr message = {};
    message.msg_iov = pieces.data();
    message.msg_iovlen = pieces.size();
    const ssize_t written = sendmsg(mSocket, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (written >= 0) {
        return static_cast<std::size_t>(written);
    }
    // If the hub is gone, frames count as sent: the main thread sees the end of the socket.
    return errno == EAGAIN || errno == EINTR ? 0 : total;
}

void Outbox::Wake() const {
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = write(mWake.Get(), &one, sizeof(one));  // cannot overflow
}

}  // namespace lumora_hub
