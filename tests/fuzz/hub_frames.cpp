// The frames between the hub and a worker: their reader, and the hub's channel with a worker that says
// anything at any time. No process is started: the calls that would do so are the target's own.
#include <fcntl.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <unistd.h>

#include <cstring>
#include <map>
#include <memory>
#include <vector>

#include "hub/core/device_link.h"
#include "tests/fuzz/mutation.h"
#include "tests/fuzz/require.h"

using lumora_fuzz::Require;
using namespace lumora_hub;

namespace {

// What a record of a script is. See README.md.
enum Kind : std::uint8_t { FRAMES, WANT, COMMAND, SEND, PLACE, END, ROUND, KINDS };

constexpr pid_t NO_PROCESS = 1 << 30;

// The worker's end of the latest pair of sockets.
lumora::UniqueFd workerEnd;

}  // namespace

extern "C" {
int __real_socketpair(int domain, int type, int protocol, int ends[2]);

int __wrap_socketpair(int domain, int type, int protocol, int ends[2]) {
    const int result = __real_socketpair(domain, type, protocol, ends);
    if (result == 0) {
        workerEnd = lumora::UniqueFd(fcntl(ends[1], F_DUPFD_CLOEXEC, 0));
    }
    return result;
}
int __wrap_posix_spawn(pid_t* process, const char*, const posix_spawn_file_actions_t*,
                       const posix_spawnattr_t*, char* const*, char* const*) {
    *process = NO_PROCESS;
    return 0;
}
pid_t __wrap_waitpid(pid_t process, int*, int) { return process; }
int __wrap_kill(pid_t, int) { return 0; }
}

namespace {

// What a stream of bytes means, one byte after another.
class Model {
public:
    // False from the first byte on that cannot be.
    bool Feed(const std::string& bytes) {
        mHeld += bytes;
        while (!mIsBroken && mHeld.size() >= 16) {
            std::uint32_t body = 0;
            std::uint16_t name = 0;
            std::memcpy(&body, mHeld.data(), 4);
            std::memcpy(&name, mHeld.data() + 6, 2);
            mIsBroken = !IsPossible(static_cast<unsigned char>(mHeld[4]), name, body);
            if (mIsBroken || mHeld.size() < 16 + std::size_t{name} + body) {
                break;
            }
            mFrames.push_back(mHeld.substr(0, 16 + name + body));
            mHeld.erase(0, 16 + name + body);
        }
        return !mIsBroken;
    }
    std::vector<std::string> mFrames;

private:
    static bool IsPossible(unsigned kind, std::size_t name, std::size_t body) {
        const std::size_t longest[] = {0, 0, 0, 1024, 5242880, 1024, 0, 0, 5242880, 1024};
        return kind >= 1 && kind <= 9 && name <= 400 && body <= longest[kind];
    }

    std::string mHeld;
    bool mIsBroken = false;
};

// What the bytes are, in whatever pieces they come.
void ReplayReads(const lumora_fuzz::Script& script) {
    int ends[2];
    Require(__real_socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends) == 0, "there is a socket");
    const lumora::UniqueFd ours(ends[0]);
    const lumora::UniqueFd theirs(ends[1]);
    Model model;
    std::vector<std::string> frames;
    FrameReader reader(
        [&](const Frame& frame) { frames.push_back(EncodeFrame(frame.head, frame.name, frame.body)); });
    for (const lumora_fuzz::Record& record : script) {
        if (record.kind % KINDS != FRAMES || record.bytes.empty()) {
            continue;
        }
        const bool isSent = write(theirs.Get(), record.bytes.data(), record.bytes.size()) ==
                            static_cast<ssize_t>(record.bytes.size());
        Require(isSent, "the socket has room");
        const FrameReader::Result result = reader.Read(ours.Get());
        const bool isGood = model.Feed(record.bytes);
        Require(result == (isGood ? FrameReader::Result::WAITING : FrameReader::Result::BROKEN),
                "what is no frame is noticed at once");
        if (!isGood) {
            break;
        }
    }
    Require(frames == model.mFrames, "frames are read as they were written");
}

// A device that is wanted, and its channel.
class Channel {
public:
    Channel() : mSurroundings{mLoop, mReaper, mPorts, mSettings, {}} {
        mSettings.idle = std::chrono::milliseconds(0);
        DeviceLink::Events events;
        events.onChanged = [] {};
        events.onBlock = [this](const std::string& service, std::uint64_t number, const std::string& bytes) {
            Require(mWanted.count(service) != 0, "blocks come of services that are wanted");
            Require(bytes.size() <= MAX_FRAME_BODY, "a block is within its limit");
            std::uint64_t& last = mNumbers[service];
            Require(number > last, "each block has a number of its own, above those before");
            last = number;
        };
        events.onUnreachable = [] {};
        mLink = std::make_unique<DeviceLink>(mSurroundings, std::move(events));
        mLink->SetPlace(Place{"camera", "192.0.2.1", 5683});
    }

    void Play(const lumora_fuzz::Record& record) {
        const std::string& bytes = record.bytes;
        switch (record.kind % KINDS) {
            case FRAMES:
                [[maybe_unused]] ssize_t written;
                written = ::send(workerEnd.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
                break;
            case WANT:
                Want(bytes);
                break;
            case COMMAND:
                Ask(FrameKind::COMMAND, bytes.substr(0, 39), bytes.substr(0, 300));
                break;
            case SEND:
                Ask(FrameKind::SEND, "", bytes);
                break;
            case PLACE:
                mLink->SetPlace(std::nullopt);
                if (!bytes.empty()) {
                    mLink->SetPlace(Place{"camera", "192.0.2.1", 5683});
                }
                break;
            case END:
                workerEnd.Close();
                break;
            default:
                break;
        }
        Turn();
    }

    void End() {
        mLink.reset();
        Require(mSurroundings.opening.Taken() == 0, "a channel that is gone is not being opened");
        for (const int count : mDone) {
            Require(count == 1, "each request has one end");
        }
    }

private:
    void Turn() {
        mLoop.RunOnce(std::chrono::milliseconds(0));
        Require(mSurroundings.opening.Taken() <= 1, "one channel is opened once");
        Require((mLink->Process() >= 0) || mLink->State() != ChannelState::CONNECTED,
                "a channel has a worker");
    }

    // A byte stands for a service.
    void Want(const std::string& bytes) {
        mWanted.clear();
        for (const char byte : bytes.substr(0, 8)) {
            mWanted.insert(std::string(1, byte));
        }
        mLink->SetWanted(mWanted);
    }

    void Ask(FrameKind kind, const std::string& name, const std::string& body) {
        const std::size_t number = mDone.size();
        mDone.push_back(0);
        mLink->Request(kind, name, body, [this, number](Outcome) { ++mDone[number]; });
    }

    EventLoop mLoop;
    Reaper mReaper{mLoop};
    Settings mSettings;
    PortRange mPorts{PortLimits{}};
    LinkSurroundings mSurroundings;
    std::set<std::string> mWanted;
    std::map<std::string, std::uint64_t> mNumbers;
    std::vector<int> mDone;
    std::unique_ptr<DeviceLink> mLink;
};

std::string MutateFrame(const std::string& bytes, lumora_fuzz::Dice& dice) {
    if (bytes.size() < FRAME_HEAD_LENGTH || dice.OneIn(3)) {
        return lumora_fuzz::MutateBytes(bytes, dice);
    }
    FrameHead head;
    std::memcpy(&head, bytes.data(), FRAME_HEAD_LENGTH);
    std::string rest = bytes.substr(FRAME_HEAD_LENGTH);
    switch (dice.Below(4)) {
        case 0:
            head.kind = static_cast<FrameKind>(dice.Below(11));
            break;
        case 1:
            head.code = static_cast<std::uint8_t>(dice.Below(6));
            break;
        case 2:
            head.number = dice.OneIn(2) ? dice.Below(8) : ~std::uint64_t{0} - dice.Below(4);
            break;
        default:
            rest = lumora_fuzz::MutateBytes(rest, dice);
            head.nameLength = static_cast<std::uint16_t>(dice.Below(rest.size() + 1));
            head.bodyLength =
                static_cast<std::uint32_t>(rest.size() - head.nameLength + (dice.OneIn(5) ? 1 : 0));
    }
    const FrameHeadBytes first = EncodeHead(head);
    return std::string(first.data(), first.size()) + rest;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const lumora_fuzz::Script script = lumora_fuzz::ReadScript(data, size);
    ReplayReads(script);
    Channel channel;
    for (const lumora_fuzz::Record& record : script) {
        channel.Play(record);
    }
    channel.End();
    return 0;
}

std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size, std::size_t most,
                                    unsigned int seed) {
    return lumora_fuzz::MutateScriptInput(data, size, most, seed, KINDS, MutateFrame);
}
