// A client of one device, from the search to the end.
#pragma once

#include <lumora.hpp>

#include <atomic>
#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tools/lumora/manual/command.h"
#include "tools/lumora/os/waiting.h"
#include "tools/lumora/session/device_address.h"
#include "tools/lumora/session/inbox.h"
#include "tools/lumora/terminal/text.h"

namespace lumora_cli {

// What the device sent to a subscriber.
struct Block {
    WallTime time;
    Deadline arrived;  // the same time by a clock that is never set
    std::string service;
    std::string data;
    unsigned lostBefore = 0;  // blocks that were dropped between the one before and this one
};

struct SessionOptions {
    DeviceChoice device;
    std::chrono::milliseconds wait{2000};
    bool again = false;  // the session outlives the end of its connection
};

// TYPE, --address and --wait.
void AddSessionOptions(Command& command, SessionOptions& options);
void AddWait(Command& command, std::chrono::milliseconds& wait, const std::string& text);

// Whatever fails is thrown as a Failure.
class ClientSession {
public:
    // Finds a device that has all of these services, and connects to it. Looks at the data port first: if
    // another process has it, this one does not join the network.
    ClientSession(SessionOptions options, const std::vector<std::string>& services);
    ~ClientSession();
    ClientSession(const ClientSession&) = delete;
    ClientSession& operator=(const ClientSession&) = delete;

    // The connected device's services.
    const std::vector<lumora::Service>& Services() const { return mDevice.services; }

    void Subscribe(const std::string& service);
    void Unsubscribe(const std::string& service);
    void SendCommand(const std::string& name, const std::string& parameter);
    void Send(std::string_view bytes);
    std::string DeviceVersion();
    lumora::Peer Peer() const { return mClient.Peer(); }

    // The next block; nothing when none came in time or a signal did. Throws when the connection has ended.
    std::optional<Block> Take(Deadline deadline);
    // Readable while there is something to take.
    int ReadyFd() const { return mNews.ReadyFd(); }

    // Called by Take when the connection has ended or is there again, in the place of a remark.
    void OnConnection(std::function<void(bool connected, Deadline at)> handler) {
        mOnConnection = std::move(handler);
    }
    // Blocks that were dropped after the last one that came.
    unsigned LostAtEnd() const { return mLostSince; }

private:
    struct News {
        enum class Kind { BLOCK, LEFT, LOST, AGAIN };
        Kind kind;
        Block block;
    };

    void Handle();
    void Find(const std::vector<std::string>& services);
    bool Choose(const std::vector<lumora::DeviceInfo>& found, const std::vector<std::string>& services);
    void Connect();
    void Tell(News::Kind kind);
    void TellConnection(bool connected, Deadline at, const char* remark) const;

    SessionOptions mOptions;
    std::function<void(bool connected, Deadline at)> mOnConnection;
    lumora::DeviceInfo mDevice;
    Inbox<News> mNews;  // filled on the library's threads
    std::atomic<std::size_t> mWaitingBytes{0};
    std::atomic<unsigned> mLost{0};
    std::atomic<unsigned> mLostSince{0};
    bool mDropping = false;  // only the receive thread uses it
    lumora::Client mClient;  // the last one: no handler runs once it is gone
};

// Throws a Failure if a name is not valid. what: "TYPE" or "SERVICE", for the message.
void CheckName(const std::string& what, const std::string& name);

}  // namespace lumora_cli
