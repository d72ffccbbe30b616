// The server module's data channel: which request may change it, one change after the other, and the setup of
// a new one.
#include <chrono>
#include <utility>

#include "library/callback_scope.h"
#include "library/log.h"
#include "link/channel_security.h"
#include "link/smart_home_link.h"
#include "protocol/control_documents.h"
#include "protocol/setup_string.h"
#include "server/server_module.h"

namespace lumoraAiModule {

using lumora::MutexLock;
using lumora::MutexUnlock;

namespace {

// The next client's request ends after 8 s, and connecting back to it may take 5 s of them.
constexpr std::chrono::milliseconds TAKE_OVER_LIMIT{2000};

// While one lives, the channel is being changed. It is made and ends with mMutex held, also if the change
// ends by an exception.
class ChangeInProgress {
public:
    ChangeInProgress(bool& mark, lumora::Condition& ended) : mMark(mark), mEnded(ended) { mMark = true; }
    ~ChangeInProgress() {
        mMark = false;
        mEnded.NotifyAll();
    }
    ChangeInProgress(const ChangeInProgress&) = delete;
    ChangeInProgress& operator=(const ChangeInProgress&) = delete;

private:
    bool& mMark;
    lumora::Condition& mEnded;
};

// How a new channel is protected. Without keys it is plain.
struct Agreement {
    std::shared_ptr<lumora::ChannelKeys> keys;
    std::string answer;
};

void LogPlainClient(bool isRequired, bool hasOffered) {
    constexpr char OPERATION[] = "OnSetupMediaService";
    if (isRequired && hasOffered) {
        LUMORA_LOG_AS(lumora::LOG_ERROR, OPERATION,
                      "A private channel is required, and the client's offer of one cannot be answered.\n");
    } else if (isRequired) {
        LUMORA_LOG_AS(lumora::LOG_ERROR, OPERATION,
                      "A private channel is required, and the client offers none.\n");
    } else if (hasOffered) {
        LUMORA_LOG_AS(lumora::LOG_WARNING, OPERATION,
                      "The client's offer of a private channel cannot be answered; it gets a plain one.\n");
    } else {
        LUMORA_LOG_AS(lumora::LOG_WARNING, OPERATION,
                      "The client offers no private channel; it gets a plain one.\n");
    }
}

// False if the channel must be private and cannot be. It also counts as one that must be if both ends can
// make it private and only memory is missing: a host that is driven short of memory must not become readable.
bool AgreeOnProtection(const std::string& offer, Agreement& agreement) {
    const lumora::ChannelMode mode = lumora::CurrentChannelMode();
    if (mode == lumora::ChannelMode::PLAIN) {
        return true;
    }
    bool lacksMemory = false;
    if (!offer.empty()) {
        agreement.keys = lumora::ChannelKeys::Answer(offer, agreement.answer, &lacksMemory);
    }
    if (agreement.keys != nullptr) {
        return true;
    }
    if (lacksMemory) {
        LUMORA_LOG_AS(lumora::LOG_ERROR, "OnSetupMediaService",
                      "There is no memory for a private channel; the client gets none.\n");
        return false;
    }
    agreement.answer.clear();
    const bool isRequired = mode == lumora::ChannelMode::REQUIRE;
    LogPlainClient(isRequired, !offer.empty());
    return !isRequired;
}

}  // namespace

// A stop takes as long as the application's callback, and connecting back as long as the client's host.
// Requests that do not touch the channel go on meanwhile.
template <typename Change>
int LumoraServerModule::ChangeChannel(Change change) {
    const ChangeInProgress inProgress(mChannelChanges, mChannelChanged);
    const MutexUnlock unlock(mMutex);
    return change();
}

// A request that a platform delivers inside OnData does not wait: the stop in progress joins this thread.
bool LumoraServerModule::AwaitChannel(const char* operation) {
    const bool mayWait = lumora::DataCallbackScope::TransportRunning() == nullptr;
    const auto deadline = std::chrono::steady_clock::now() + mSources.channelWait;
    while (mayWait && mChannelChanges && std::chrono::steady_clock::now() < deadline) {
        mChannelChanged.WaitUntil(mMutex, deadline);
    }
    if (mChannelChanges) {
        LUMORA_LOG_AS(lumora::LOG_ERROR, operation,
                      "The data channel is still being stopped or opened for another request.\n");
        return false;
    }
    return true;
}

// Client IDs are only unique within a node. All clients of a channel are those of the node that set it up, so
// what another node says of a client ID cannot be meant for one of them.
bool LumoraServerModule::MayChangeChannel(const char* operation) {
    if (mOwner && !AwaitChannel(operation)) {
        return false;
    }
    const std::shared_ptr<LumoraTransManager> transport = mPublication.Current().mTransManager;
    if (!mOwner || transport == nullptr || !transport->IsRunning()) {
        return true;
    }
    const auto requester = lumora::CurrentRequester();
    if (requester && requester->node == mOwner->node) {
        return true;
    }
    LUMORA_LOG_AS(
        lumora::LOG_ERROR, operation,
        "The data channel belongs to a node with the key \"%s\"; another one's request is refused.\n",
        mOwner->identity.c_str());
    return false;
}

// If stopping fails, the transport stays published, so that the next request tries again. It also stays while
// it is being stopped: sends then fail by what they find in it, and DeInitLumoraModule can cut the stop
// short.
int LumoraServerModule::StopTransport(const char* operation, Rest rest, std::chrono::milliseconds limit) {
    const std::shared_ptr<LumoraTransManager> transport = mPublication.Current().mTransManager;
    if (transport == nullptr) {
        return 0;
    }
    const std::string address = mPublication.RemoteAddress();
    const auto begin = HandOverBudget::Clock::now();
    const HandOverBudget::Milliseconds granted = mHandOverBudget.Limit(address, limit, begin);
    const int result = ChangeChannel([&] { return transport->StopAfterReceiving(rest, granted); });
    const auto end = HandOverBudget::Clock::now();
    mHandOverBudget.OnTaken(address, std::chrono::duration_cast<HandOverBudget::Milliseconds>(end - begin),
                            end);
    if (result == -1) {
        LUMORA_LOG_AS(lumora::LOG_ERROR, operation, "StopTransports failed!\n");
        return -1;
    }
    mPublication.SetTransport(nullptr);
    return 0;
}

int LumoraServerModule::StopOwnTransport() {
    if (!AwaitChannel("DeInitLumoraModule")) {
        return -1;
    }
    const std::shared_ptr<LumoraTransManager> transport = mPublication.Current().mTransManager;
    if (transport == nullptr) {
        return 0;
    }
    const int stopped = ChangeChannel([&] { return transport->StopTransports(); });
    if (stopped == 0) {
        mPublication.SetTransport(nullptr);
    }
    return stopped;
}

// Any client may ask, and the last one gets the channel: a client that comes back after a crash is not kept
// out by its old channel. That one is stopped before the new one is tried, because both listen on the same
// port, and is lost even if the new one fails. The address is the one that the request came from. The one in
// the setup string is not used, or a request could make this device connect to any host. A client that this
// device has no private channel with, though it must, does not cost another client its channel.
int LumoraServerModule::OnSetupMediaService(const lumora::LinkDeviceDescriptor::Port& port,
                                            std::string& setup) {
    const MutexLock lock(mMutex);
    LUMORA_TRACE("Enter\n");
    std::string request = setup;
    const std::string offer = lumora::TakeOffer(request);
    LUMORA_STATE("Reveived remote transport info: %s.\n", request.c_str());
    if (!AwaitChannel(__func__) || !MayChangeChannel(__func__)) {
        return -1;
    }
    LUM_TRANSPORT_E protocol = LUM_TRANSPORT_NONE;
    // There is none when a start failed but the platform goes on delivering requests. A start that fails
    // while the old channel is stopped takes the module's away.
    const std::shared_ptr<LumoraTransManagerFactory> factory = mTransFactory;
    const int parsed = factory != nullptr ? factory->ParseTransportsProtocol(request, protocol) : -1;
    if (parsed != 0) {
        LUMORA_ERROR("ParseTransportsProtocol failed!\n");
        return parsed;
    }
    Agreement agreement;
    if (!AgreeOnProtection(offer, agreement)) {
        return -1;
    }
    if (StopTransport(__func__, Rest::ARRIVED, TAKE_OVER_LIMIT) != 0) {
        return -1;
    }
    const std::shared_ptr<LumoraTransManager> transport = mSources.newTransport(*factory, protocol);
    mPublication.SetTransport(transport);
    if (transport == nullptr) {
        LUMORA_ERROR("CreateTransportsManager failed!\n");
        return -1;
    }
    lumora::LumoraTransportConfig config;
    if (config.ParseSetupString(request) == 0) {
        LUMORA_ERROR("Setup String EROR: %s\n", request.c_str());
        return 0;  // the client detects the failure because the reply is not "Succ"
    }
    transport->UseKeys(std::move(agreement.keys));
    std::string address = port.GetAddress();
    const LUM_OBSERVER_S observer = {mDevInfo.OnCommand, mDevInfo.OnEventNotify, mDevInfo.OnData};
    const int opened =
        ChangeChannel([&] { return OpenDataChannel(*transport, address, config.GetPort(), observer); });
    if (opened != 0) {
        return opened;
    }
    if (!agreement.answer.empty()) {
        LUMORA_STATE("The data channel is private.\n");
    }
    setup = SetupReply(agreement.answer);
    SetOwner(address, port.port, config.GetPort());
    LUMORA_TRACE("Out\n");
    return 0;
}

void LumoraServerModule::SetOwner(std::string& address, int port, int dataPort) {
    mOwner = lumora::CurrentRequester();
    mOwnerPort = port;
    mPublication.SetRemoteAddress(address);
    if (mSmartHomeLink != nullptr) {  // null after a failed start, when requests may still arrive
        mSmartHomeLink->SetConnectDevice(address, dataPort);
    }
}

// Our receiving half comes first: the client connects to it as soon as we have answered. Connecting back is a
// part of the request, so that "Succ" tells the client that the device has reached it.
int LumoraServerModule::OpenDataChannel(LumoraTransManager& transport, const std::string& address, int port,
                                        LUM_OBSERVER_S observer) {
    const int receiving = transport.CreateTransports(TransType::SERVER_RECEIVE, address, port, observer);
    if (receiving != 0) {
        LUMORA_LOG_AS(lumora::LOG_ERROR, "OnSetupMediaService", "CreateTransports failed!\n");
        return receiving;
    }
    LUM_OBSERVER_S none;
    // Any number may come in a setup string, also the highest.
    const int clientPort = static_cast<int>(static_cast<unsigned int>(port) + 1);
    const int sending = transport.CreateTransports(TransType::SERVER_SEND, address, clientPort, none);
    if (sending != 0) {
        LUMORA_LOG_AS(lumora::LOG_ERROR, "OnSetupMediaService",
                      "CreateTransports failed,will stop transport!\n");
        transport.StopTransports();
    }
    return sending;
}

}  // namespace lumoraAiModule
