#include "tools/lumora/session/client_session.h"

#include <atomic>
#include <cstring>

#include "tools/lumora/os/ports.h"
#include "tools/lumora/os/signals.h"
#include "tools/lumora/session/inbox.h"
#include "tools/lumora/terminal/failure.h"
#include "tools/lumora/terminal/output.h"

namespace lumora_cli {

namespace {

const char CLIENT_TYPE[] = "lumora-cli";
const char READ_MORE[] = "--log error tells why, lumora doctor looks for what is wrong";

// A device may send faster than a terminal shows.
constexpr std::size_t MOST_WAITING_BYTES = std::size_t{64} * 1024 * 1024;

struct News {
    bool deviceLeft = false;
    Block block;
};

// Filled on the library's threads, until the last client is gone.
Inbox<News>& NewsInbox() {
    static Inbox<News> inbox;
    return inbox;
}

std::atomic<std::size_t> g_waitingBytes{0};
std::atomic<unsigned> g_lost{0};

int OnData(LUM_DEVICE_EVENT_S event) try {
    if (g_waitingBytes + event.dataLen > MOST_WAITING_BYTES) {
        ++g_lost;
        return -1;
    }
    g_waitingBytes += event.dataLen;
    NewsInbox().Put(
        {false,
         {std::chrono::system_clock::now(), event.serviceName, std::string(event.data, event.dataLen)}});
    return 0;
} catch (const std::exception&) {
    return -1;
}

int OnClientEvent(int, LUM_EVENT_E event) try {
    if (event == LUM_EVENT_DEVICE_REMOVED) {
        NewsInbox().Put({true, {}});
    }
    return 0;
} catch (const std::exception&) {
    return -1;
}

void Require(int result, int code, const std::string& what, const std::string& wayOut = READ_MORE) {
    if (result != 0) {
        throw Failure(code, what, wayOut);
    }
}

std::string NameIn(const char (&field)[LUM_NAME_SIZE]) { return {field, strnlen(field, LUM_NAME_SIZE)}; }

bool Offers(const LUM_DEVICE_INFO_S& device, const std::string& service) {
    for (unsigned i = 0; i < device.serviceNum && i < LUM_MAX_SERVICES; ++i) {
        if (NameIn(device.serviceInfo[i].serviceName) == service) {
            return true;
        }
    }
    return service.empty();
}

}  // namespace

void CheckName(const std::string& what, const std::string& name) {
    if (name.empty() || name.size() >= LUM_NAME_SIZE) {
        throw Failure(EXIT_USAGE, what + " has 1 to 39 characters, and not " + std::to_string(name.size()));
    }
}

void AddSessionOptions(Command& command, SessionOptions& options) {
    command
        .Argument("TYPE", options.type, "the type of the device; of several, the first that answers is taken")
        .required = true;
    command.Seconds("--find", options.find, std::chrono::hours(24), "how long to search for the device (2)");
}

ClientSession::ClientSession() {
    Require(LUM_InitClient(&mClient, CLIENT_TYPE), EXIT_FAILED, "the network cannot be joined");
    LUM_RegisterEvent(mClient, OnClientEvent);
}

ClientSession::~ClientSession() {
    if (mConnected) {
        LUM_DestoryAiDevice(mClient, mHandle);  // the device need not notice by itself
    }
    LUM_DeInitClient(mClient);
    if (g_lost != 0) {
        Remark(Count(g_lost, "block was", "blocks were") +
               " lost: they came faster than they could be written");
    }
}

void ClientSession::Find(const SessionOptions& options, const std::string& service) {
    constexpr int PAUSE_MS = 100;
    CheckName("TYPE", options.type);
    const Deadline end = In(options.find);
    LUM_DEVICES_INFO_S devices;
    while (LUM_GetAiDeviceList(options.type.c_str(), &devices) != 0 || devices.devNum == 0) {
        ThrowWhenStopped();
        if (Clock::now() >= end) {
            throw Failure(EXIT_NO_DEVICE, "no device of type \"" + options.type + "\" was found",
                          "lumora find lists those that are there, --find searches longer");
        }
        PauseUnlessStopped(PAUSE_MS);
    }
    ThrowWhenStopped();
    const std::string name = Chosen(devices, options.type, service);
    Require(LUM_CreateAiDevice(mClient, name.c_str(), &mHandle), EXIT_FAILED, "the device cannot be used");
}

std::string ClientSession::Chosen(const LUM_DEVICES_INFO_S& devices, const std::string& type,
                                  const std::string& service) const {
    for (unsigned i = 0; i < devices.devNum; ++i) {
        if (Offers(devices.devInfo[i], service)) {
            if (devices.devNum > 1) {
                Remark(Count(devices.devNum, "device", "devices") + " of type \"" + type +
                       "\" answered; the first that fits is taken");
            }
            return NameIn(devices.devInfo[i].devServiceType);
        }
    }
    throw Failure(EXIT_NO_DEVICE, "no device of type \"" + type + "\" has the service \"" + service + '"',
                  "lumora info " + type + " lists what it has");
}

void ClientSession::Connect() {
    Require(LUM_RegisterAiDeviceEvent(mClient, mHandle, OnData), EXIT_FAILED, "the device cannot be used");
    if (LUM_ConnectAiDevice(mClient, mHandle) != 0) {
        ThrowWhenStopped();
        if (TcpPortState(CLIENT_PORT) == PortState::TAKEN) {
            throw Failure(EXIT_REFUSED, "TCP port 6667 is taken on this host",
                          "another client is connected to a device: end it first");
        }
        throw Failure(
            EXIT_REFUSED, "the device cannot be connected",
            "TCP port 6666 must be free there and open from here, 6667 open from there; --log error "
            "tells more");
    }
    mConnected = true;
}

void ClientSession::Subscribe(const std::string& service) {
    LUM_SUBSCRIBE_SERVICE_S subscription = {};
    service.copy(subscription.serviceName, LUM_NAME_SIZE - 1);
    subscription.transport = LUM_TRANSPORT_TCP;
    Require(LUM_SendCmd(mClient, mHandle, "subscribe", reinterpret_cast<const char*>(&subscription)),
            EXIT_REFUSED, "the device refuses the subscription to \"" + service + '"');
}

void ClientSession::SendCommand(const std::string& name, const std::string& parameter) {
    Require(LUM_SendCmd(mClient, mHandle, name.c_str(), parameter.c_str()), EXIT_REFUSED,
            "the device did not take the command");
}

void ClientSession::Send(std::string_view bytes) {
    unsigned sent = 0;
    const auto length = static_cast<unsigned>(bytes.size());
    const int result = LUM_SendData(mClient, mHandle, bytes.data(), length, &sent, LUM_MAX_CLIENT_TIMEOUT_MS);
    if (result != 0 || sent != length) {
        ThrowWhenStopped();  // whoever wants to end need not hear why this failed
    }
    Require(result, EXIT_REFUSED, "the device does not take the data",
            "it may have left, or another client has taken its place; --log error tells more");
    if (sent != length) {
        throw Failure(EXIT_REFUSED,
                      "the device took only " + Grouped(sent) + " of " + Grouped(length) + " bytes",
                      "it is busy, or the network hangs: try again");
    }
}

std::string ClientSession::LibraryVersion() const {
    char version[LUM_MIN_VERSION_BUFFER_LENGTH];
    Require(LUM_GetClientVersion(mClient, version, sizeof(version)), EXIT_FAILED,
            "the library has no version");
    return version;
}

std::string ClientSession::DeviceVersion() const {
    char version[LUM_MIN_VERSION_BUFFER_LENGTH];
    Require(LUM_GetServerVersion(mClient, mHandle, version, sizeof(version)), EXIT_REFUSED,
            "the device does not tell its version");
    return version;
}

std::optional<Block> ClientSession::Take(Deadline deadline) {
    constexpr std::chrono::milliseconds BETWEEN_CHECKS(2000);
    while (StopSignal() == 0) {
        const Deadline check = In(BETWEEN_CHECKS);
        std::optional<News> news = NewsInbox().Take(std::min(deadline, check));
        if (news && news->deviceLeft) {
            throw Failure(EXIT_REFUSED, "the device has left the network", "start it and try again");
        }
        if (news) {
            g_waitingBytes -= news->block.data.size();
            return std::move(news->block);
        }
        if (Clock::now() >= deadline) {
            break;
        }
        RequireDevice();
    }
    return std::nullopt;
}

// No event tells of a broken connection, but every call that needs the device fails from then on.
void ClientSession::RequireDevice() const {
    char version[LUM_MIN_VERSION_BUFFER_LENGTH];
    if (StopSignal() == 0 && LUM_GetServerVersion(mClient, mHandle, version, sizeof(version)) != 0) {
        throw Failure(EXIT_REFUSED, "the connection to the device has ended",
                      "it has left, or another client has taken its place");
    }
}

}  // namespace lumora_cli
