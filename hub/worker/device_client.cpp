#include "hub/worker/device_client.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <utility>

#include "base/thread.h"
#include "base/unique_fd.h"
#include "hub/worker/subscriptions.h"
#include "nodes/platform_front.h"

// The library's: the client's end of the channel is on the port behind it. No exported function sets it.
namespace lumoraAiModule {
extern int g_mDataPort;
}

namespace lumora_hub {

namespace {

const char CLIENT_TYPE[] = "lumora-hub-worker";

// The hub has seen the device a moment ago.
constexpr std::chrono::milliseconds PATIENCE{3000};

// The library only says that connecting failed, and another pair of ports may work.
bool IsPortFree(int port) {
    const lumora::UniqueFd probe(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const int on = 1;
    sockaddr_in local = {};
    local.sin_family = AF_INET;
    local.sin_port = htons(static_cast<std::uint16_t>(port));
    setsockopt(probe.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    return bind(probe.Get(), reinterpret_cast<const sockaddr*>(&local), sizeof(local)) == 0;
}

FrameHead HeadOf(FrameKind kind, std::uint64_t number, std::uint8_t code) {
    FrameHead head;
    head.kind = kind;
    head.number = number;
    head.code = code;
    return head;
}

}  // namespace

DeviceClient::DeviceClient(DevicePlace place, Outbox& outbox) : mPlace(std::move(place)), mOutbox(outbox) {
    mThread = lumora::StartThread("device", [this] { Run(); });
}

DeviceClient::~DeviceClient() {
    {
        const lumora::MutexLock lock(mMutex);
        mStop = true;
        mChanged.NotifyAll();
    }
    mThread.join();
}

void DeviceClient::Handle(Frame frame) {
    const lumora::MutexLock lock(mMutex);
    if (!DropOpposite(mRequests, frame)) {
        mRequests.push_back(std::move(frame));
        mChanged.NotifyAll();
    }
}

void DeviceClient::Run() {
    if (!Connect()) {
        return;
    }
    while (true) {
        Frame frame;
        {
            const lumora::MutexLock lock(mMutex);
            while (!mStop && mRequests.empty()) {
                mChanged.Wait(mMutex);
            }
            if (mStop) {
                break;
            }
            frame = std::move(mRequests.front());
            mRequests.pop_front();
        }
        Carry(frame);
    }
    mClient.reset();
}

bool DeviceClient::Connect() {
    if (!IsPortFree(mPlace.dataPort + 1)) {
        End(EndReason::PORT_TAKEN, "port " + std::to_string(mPlace.dataPort + 1) + " is in use on this host");
        return false;
    }
    if (!Join()) {
        return false;
    }
    std::error_code error;
    lumora_nodes::TakeCause();
    if (!mClient->Connect(mPlace.type, PATIENCE, error)) {
        End(EndReason::CONNECT_FAILED, lumora_nodes::WithCause(error.message()));
        return false;
    }
    const std::string version = mClient->DeviceVersion(error);
    const lumora::Peer peer = mClient->Peer();
    mOutbox.Send(HeadOf(FrameKind::CONNECTED, 0, peer.isPrivate ? 1 : 0), version.substr(0, MAX_FRAME_NAME),
                 peer.identity.substr(0, MAX_FRAME_TEXT));
    return true;
}

bool DeviceClient::Join() {
    lumoraAiModule::g_mDataPort = mPlace.dataPort;
    lumora_nodes::FindOnly({mPlace.address, mPlace.port});
    // A device takes the clients of a host for gone when any node that it has seen there leaves. So the
    // workers of the other devices must not be seen.
    lumora_nodes::StayUnseen();
    std::error_code error;
    mClient = std::make_unique<lumora::Client>(CLIENT_TYPE, error);
    if (error) {
        End(EndReason::CONNECT_FAILED, lumora_nodes::WithCause("the network cannot be joined"));
        return false;
    }
    SetHandlers();
    return true;
}

void DeviceClient::SetHandlers() {
    mClient->OnData([this](std::string_view service, lumora::Bytes data) { OnBlock(service, data); });
    mClient->OnDeviceLeft([this] { End(EndReason::DEVICE_LEFT, "the device has left the network"); });
    mClient->OnConnectionLost([this] {
        End(EndReason::CHANNEL_ENDED,
            "the device has closed the channel; another client has probably taken its place");
    });
}

// On the library's receive thread. Numbers count from the first block of this connection.
void DeviceClient::OnBlock(std::string_view service, lumora::Bytes data) {
    auto number = mNumbers.find(service);
    if (number == mNumbers.end()) {
        number = mNumbers.emplace(service, 0).first;
    }
    mOutbox.SendBlock(service, ++number->second, data.Text());
}

void DeviceClient::Carry(const Frame& frame) {
    std::error_code error;
    switch (frame.head.kind) {
        case FrameKind::SUBSCRIBE:
            Subscribe(frame.name);
            break;
        case FrameKind::UNSUBSCRIBE:
            mClient->Unsubscribe(frame.name, error);
            break;
        case FrameKind::COMMAND:
            Answer(frame.head.number, mClient->Command(frame.name, frame.body, error));
            break;
        case FrameKind::SEND:
            Answer(frame.head.number, mClient->Send(frame.body, error));
            break;
        default:
            break;
    }
}

void DeviceClient::Subscribe(const std::string& service) {
    std::error_code error;
    const bool done = mClient->Subscribe(service, error);
    mOutbox.Send(HeadOf(FrameKind::SUBSCRIBED, 0, done ? 0 : 1), service);
}

void DeviceClient::Answer(std::uint64_t request, bool done) {
    mOutbox.Send(HeadOf(FrameKind::ANSWER, request, done ? 0 : 1));
}

void DeviceClient::End(EndReason reason, const std::string& text) {
    mOutbox.Send(HeadOf(FrameKind::ENDED, 0, static_cast<std::uint8_t>(reason)), {},
                 text.substr(0, MAX_FRAME_TEXT));
}

}  // namespace lumora_hub
