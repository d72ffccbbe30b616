#include "tools/lumora/session/client_session.h"
#include "nodes/platform_front.h"

#include <algorithm>
#include <utility>

#include "tools/lumora/os/ports.h"
#include "tools/lumora/os/signals.h"
#include "tools/lumora/session/link_node.h"
#include "tools/lumora/terminal/failure.h"
#include "tools/lumora/terminal/output.h"

namespace lumora_cli {

namespace {

using lumora_nodes::DeviceAddress;
using lumora_nodes::FindOnly;
using lumora_nodes::TakeCause;
using lumora_nodes::WithCause;

const char CLIENT_TYPE[] = "lumora-cli";
const char ASK_DOCTOR[] = "lumora doctor looks for what is wrong";

// A device may send faster than a terminal shows or a disk writes.
constexpr std::size_t MOST_WAITING_BYTES = std::size_t{64} * 1024 * 1024;

// What a block takes in the queue. Its own memory counts too: blocks may be a few bytes long.
std::size_t MemoryOf(std::size_t bytes) { return bytes + 2 * sizeof(Block); }

void Require(bool done, int code, const std::string& what, const std::string& advice = ASK_DOCTOR) {
    if (!done) {
        ThrowWhenStopped();  // the failure has its cause in the signal, and the user knows that one
        throw Failure(code, WithCause(what), advice);
    }
}

// Before the network is joined.
lumora::Client Join(const SessionOptions& options) {
    CheckName("TYPE", options.device.type);
    // The library would only notice when it connects, and its message names no cause.
    if (TcpPortState(CLIENT_PORT) == PortState::TAKEN) {
        throw Failure(EXIT_REFUSED, "TCP port 6667 is taken on this host",
                      "another client is connected to a device: end it first");
    }
    std::error_code error;
    lumora::Client client(CLIENT_TYPE, error);
    // The client joins the network here, and leaves it with its destructor.
    Require(!error, EXIT_FAILED, "the network cannot be joined");
    return client;
}

SessionOptions Taken(SessionOptions options) {
    options.device.Take();
    return options;
}

bool HasAll(const std::vector<std::string>& offered, const std::vector<std::string>& services) {
    return std::all_of(services.begin(), services.end(), [&](const std::string& service) {
        return std::find(offered.begin(), offered.end(), service) != offered.end();
    });
}

template <typename Services>
std::vector<std::string> NamesOf(const Services& services) {
    std::vector<std::string> names;
    names.reserve(services.size());
    for (const auto& service : services) {
        names.push_back(service.name);
    }
    return names;
}

std::string Quoted(const std::vector<std::string>& services) {
    std::string text;
    for (const std::string& service : services) {
        text += (text.empty() ? "\"" : ", \"") + service + '"';
    }
    return text;
}

// The library lists four devices, and a network may have more. The first that fits, of all.
std::optional<DeviceAddress> LookFurther(const std::string& type, const std::vector<std::string>& services) {
    LinkNode node;
    for (const FoundDevice& device : FindDevices(node, type, std::chrono::milliseconds(0))) {
        if (device.answers && HasAll(NamesOf(device.services), services)) {
            return DeviceAddress{device.address, device.port};
        }
    }
    return std::nullopt;
}

}  // namespace

void CheckName(const std::string& what, const std::string& name) {
    if (name.empty() || name.size() >= LUM_NAME_SIZE) {
        throw Failure(EXIT_USAGE, what + " has 1 to 39 characters, and not " + std::to_string(name.size()));
    }
}

void AddWait(Command& command, std::chrono::milliseconds& wait, const std::string& text) {
    Option& option = command.Seconds("--wait", wait, std::chrono::hours(24), text);
    option.letter = 'w';
    option.formerName = "--find";
}

void AddSessionOptions(Command& command, SessionOptions& options) {
    Option& type = command.Argument("TYPE", options.device.type,
                                    "the type of the device; of several, the first that answers is taken, or "
                                    "with TYPE@ADDRESS the one with that address");
    type.required = true;
    type.offer = Option::Offer::TYPES;
    AddAddress(command, options.device);
    AddWait(command, options.wait, "how long to search for the device (2)");
}

ClientSession::ClientSession(SessionOptions options, const std::vector<std::string>& services)
    : mOptions(Taken(std::move(options))), mClient(Join(mOptions)) {
    Handle();
    Find(services);
    Connect();
}

ClientSession::~ClientSession() {
    if (mLost != 0) {
        Remark(Count(mLost, "block was", "blocks were") +
               " lost: they came faster than they could be written");
    }
}

void ClientSession::Handle() {
    // Runs on the receive thread, which must not wait. Blocks that exceed the limit are dropped and counted;
    // the user is told at the end.
    mClient.OnData([this](std::string_view service, lumora::Bytes data) {
        // Once it is full, blocks are dropped until half of it is worked off: a few long gaps can be used,
        // and thousands of short ones cannot.
        const std::size_t limit = mDropping ? MOST_WAITING_BYTES / 2 : MOST_WAITING_BYTES;
        mDropping = mWaitingBytes + MemoryOf(data.size()) > limit;
        if (mDropping) {
            ++mLost;
            ++mLostSince;
            return;
        }
        mWaitingBytes += MemoryOf(data.size());
        mNews.Put({News::Kind::BLOCK,
                   {std::chrono::system_clock::now(), Clock::now(), std::string(service),
                    std::string(data.Text()), mLostSince.exchange(0)}});
    });
    mClient.OnDeviceLeft([this] { Tell(News::Kind::LEFT); });
    mClient.OnConnectionLost([this] { Tell(News::Kind::LOST); });
    mClient.OnReconnected([this] { Tell(News::Kind::AGAIN); });
    mClient.StayConnected(mOptions.again);
}

void ClientSession::Tell(News::Kind kind) {
    mNews.Put({kind, {std::chrono::system_clock::now(), Clock::now(), "", ""}});
}

void ClientSession::TellConnection(bool connected, Deadline at, const char* remark) const {
    if (mOnConnection) {
        mOnConnection(connected, at);
    } else {
        Remark(remark);
    }
}

void ClientSession::Find(const std::vector<std::string>& services) {
    constexpr int PAUSE_MS = 100;
    const std::string& type = mOptions.device.type;
    // With --again the search has no end: the device may be started later.
    const Deadline end = mOptions.again ? Never() : In(mOptions.wait);
    std::error_code error;
    while (true) {
        // A patience of 0: this loop waits itself, so that a signal interrupts it.
        const std::vector<lumora::DeviceInfo> found = mClient.Find(type, std::chrono::milliseconds(0), error);
        ThrowWhenStopped();
        if (!found.empty() && Choose(found, services)) {
            return;
        }
        if (!found.empty() && !mOptions.again) {
            throw Failure(
                EXIT_NO_DEVICE,
                "no device of type " + mOptions.device.Text() + " has the service " + Quoted(services),
                "lumora info " + type + " lists what it has");
        }
        if (Clock::now() >= end) {
            throw Failure(EXIT_NO_DEVICE, "no device of type " + mOptions.device.Text() + " was found",
                          "lumora find lists those that are there, --wait searches longer");
        }
        PauseUnlessStopped(PAUSE_MS);
    }
}

bool ClientSession::Choose(const std::vector<lumora::DeviceInfo>& found,
                           const std::vector<std::string>& services) {
    for (const lumora::DeviceInfo& device : found) {
        if (HasAll(NamesOf(device.services), services)) {
            if (found.size() > 1) {
                Remark(Count(found.size(), "device", "devices") + " of type \"" + mOptions.device.type +
                       "\" answered; the first that fits is taken, " + mOptions.device.type +
                       "@ADDRESS takes another");
            }
            mDevice = device;
            return true;
        }
    }
    // Fewer devices than the library's limit: these were all.
    if (found.size() < LUM_MAX_DEVICES) {
        return false;
    }
    if (const std::optional<DeviceAddress> further = LookFurther(mOptions.device.type, services)) {
        FindOnly(*further);
        std::error_code ignored;
        const auto only = mClient.Find(mOptions.device.type, mOptions.wait, ignored);
        mDevice = only.empty() ? lumora::DeviceInfo() : only.front();
        return !only.empty();
    }
    return false;
}

void ClientSession::Connect() {
    std::error_code error;
    // Forgets an earlier error line of this thread, so that a failure names its own cause.
    TakeCause();
    Require(mClient.Connect(mDevice, error), EXIT_REFUSED, "the device cannot be connected",
            "TCP port 6666 must be free there and open from here, 6667 open from there");
}

void ClientSession::Subscribe(const std::string& service) {
    std::error_code error;
    TakeCause();
    Require(mClient.Subscribe(service, error), EXIT_REFUSED,
            "the device refuses the subscription to \"" + service + '"');
}

void ClientSession::Unsubscribe(const std::string& service) {
    std::error_code error;
    TakeCause();
    Require(mClient.Unsubscribe(service, error), EXIT_REFUSED,
            "the device does not end the subscription to \"" + service + '"', "is there one?");
}

void ClientSession::SendCommand(const std::string& name, const std::string& parameter) {
    std::error_code error;
    TakeCause();
    Require(mClient.Command(name, parameter, error), EXIT_REFUSED, "the device did not take the command");
}

void ClientSession::Send(std::string_view bytes) {
    std::error_code error;
    TakeCause();
    const bool sent = mClient.Send(bytes, error);
    // After a partial send the device cannot find the next block's begin, so the connection is broken.
    const bool partly = error == lumora::Errc::INCOMPLETE;
    Require(
        sent, EXIT_REFUSED,
        partly ? "the device stopped reading in the middle of a block" : "the device does not take the data",
        partly ? "it is busy, or the network hangs: try again"
               : "it may have left, or another client has taken its place");
}

std::string ClientSession::DeviceVersion() {
    std::error_code error;
    TakeCause();
    std::string version = mClient.DeviceVersion(error);
    Require(!error, EXIT_REFUSED, "the device does not tell its version");
    return version;
}

std::optional<Block> ClientSession::Take(Deadline deadline) {
    while (std::optional<News> news = mNews.Take(deadline)) {
        switch (news->kind) {
            case News::Kind::BLOCK:
                // The counterpart of the addition in the OnData handler.
                mWaitingBytes -= MemoryOf(news->block.data.size());
                return std::move(news->block);
            case News::Kind::AGAIN:
                TellConnection(true, news->block.arrived, "connected again");
                break;
            case News::Kind::LEFT:
                if (!mOptions.again) {
                    throw Failure(EXIT_REFUSED, "the device has left the network", "start it and try again");
                }
                break;
            case News::Kind::LOST:
                if (!mOptions.again) {
                    throw Failure(EXIT_REFUSED, "the connection to the device has ended",
                                  "it has left, or another client has taken its place");
                }
                TellConnection(false, news->block.arrived,
                               "the connection has ended; searching for the device");
                break;
        }
    }
    return std::nullopt;
}

}  // namespace lumora_cli
