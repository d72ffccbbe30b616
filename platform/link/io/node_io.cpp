#include "platform/link/io/node_io.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <future>

#include "base/thread.h"
#include "platform/link/io/close_on_exec.h"
#include "platform/link/io/run_guarded.h"
#include "platform/link/log.h"

namespace lumora_link {

namespace {

// Without free descriptors an interface cannot be opened. No event tells when descriptors are closed, so the
// thread tries again after this.
constexpr Milliseconds TRY_AGAIN_AFTER{1000};
// The thread looks at the keys when it is awake for something else, such as a hello, and the last look is
// this old. It wakes up for the keys only if nothing else wakes it meanwhile.
constexpr Milliseconds LOOK_AT_KEYS_EVERY{1000};
constexpr Milliseconds WAKE_FOR_KEYS_AFTER{500};

// When the thread has to wake up for keys that it may look at from `due` on.
TimePoint LatestLook(TimePoint due) { return due == TimePoint::max() ? due : due + WAKE_FOR_KEYS_AFTER; }

}  // namespace

NodeIo::NodeIo(Config config, NodeIdentity identity, std::optional<std::string> deviceType,
               Application& application)
    : mConfig(std::move(config)),
      mCore(identity, mConfig.pskFile.has_value(), mConfig.peers, mRandom, *this, application) {
    // The thread does not run yet, so the core may be used here.
    mCore.SetDeviceType(std::move(deviceType), Clock::now());
}

NodeIo::~NodeIo() { Stop(); }

bool NodeIo::Start() {
    std::promise<bool> opened;
    // The thread opens the sockets itself, because only that thread may use them. Start waits for the
    // outcome.
    std::future<bool> ready = opened.get_future();
    mThread = lumora::StartThread("lumora-link-io", [this, &opened] {
        bool open = false;
        try {
            open = Open();
        } catch (...) {
            LINK_LOG(LEVEL_ERROR, "no memory to start a node\n");
        }
        opened.set_value(open);
        if (open) {
            Run();
        }
        // Closed now, not by the destructor: proxies may keep this object alive, and the kernel must answer
        // requests to the port with "port unreachable".
        PeerRegistry::OfProcess().End(mNumber);
        mCoap.reset();
        mGroup.reset();
        mPort = PortGuard();
        mSecuredPort = PortGuard();
        mRoutes = lumora::UniqueFd();
    });
    const bool open = ready.get();
    if (!open) {
        mThread.join();
    }
    return open;
}

void NodeIo::Stop() {
    if (!mThread.joinable()) {
        return;
    }
    try {
        Post([this](NodeCore&, TimePoint) { mRunning = false; });
    } catch (...) {
        mRunning = false;  // no memory to post: the thread may end before earlier posted work
        mLoop.Wake();
    }
    // Takes at most one turn of the loop and the goodbye. No lock is held.
    mThread.join();
    mLoop.Shut();
}

bool NodeIo::Post(Work work) {
    return mLoop.Post([this, work = std::move(work)] { work(mCore, Clock::now()); });
}

bool NodeIo::OpenPorts() {
    constexpr int ATTEMPTS = 100;
    const bool secured = mConfig.pskFile.has_value();
    // The secured port is the next one. If the system chose the first, the next may be taken: try another
    // pair.
    for (int attempt = 0; attempt < (mConfig.port == 0 ? ATTEMPTS : 1); ++attempt) {
        mPort = ReservePort(mConfig.port);
        if (!mPort.socket || !secured) {
            break;
        }
        const std::uint16_t next = SecuredPortOf({0, mPort.port}).port;
        mSecuredPort = next == 0 ? PortGuard() : ReservePort(next);
        if (mSecuredPort.socket) {
            return true;
        }
    }
    if (!mPort.socket || secured) {
        LINK_LOG(LEVEL_ERROR, "UDP port %u%s is taken\n", static_cast<unsigned>(mConfig.port),
                 secured ? " or the next one" : "");
        return false;
    }
    return true;
}

// libcoap's socket for requests, with a key a second one, and the socket for what goes to the group.
std::size_t NodeIo::DescriptorsOfAnInterface() const { return mConfig.pskFile ? 3 : 2; }

// Besides those of the interfaces: one or two reserved ports, the loop's three, libcoap's two, the group's
// two, the routing socket, and one to ask another node.
std::size_t NodeIo::DescriptorsOfANode() const {
    const auto used = SelectInterfaces(ListSystemInterfaces(), mConfig.interfaces);
    return (mConfig.pskFile ? 11U : 10U) + used.size() * DescriptorsOfAnInterface();
}

// Of a node without a key `keys` stays empty. False, with a log line, if the keys are not as they should be.
bool NodeIo::ReadKeys(std::optional<KeyRing>& keys) {
    if (!mConfig.pskFile) {
        if (mConfig.requireKey) {
            LINK_LOG(LEVEL_ERROR, "a key is required, and LUMORA_LINK_PSK_FILE is not set\n");
            return false;
        }
        if (mConfig.channelMode == LINK_CHANNEL_REQUIRE) {
            LINK_LOG(LEVEL_ERROR, "private channels are required, and LUMORA_LINK_PSK_FILE is not set\n");
            return false;
        }
        return true;
    }
    if (!CoapPort::CanSecure()) {
        LINK_LOG(LEVEL_ERROR, "LUMORA_LINK_PSK_FILE is set, but this library was built without DTLS\n");
        return false;
    }
    if (LUMORA_LINK_HAS_CHANNELS == 0 && mConfig.channelMode == LINK_CHANNEL_REQUIRE) {
        LINK_LOG(LEVEL_ERROR, "private channels are required, but this library was built without them\n");
        return false;
    }
    mKeyFile.emplace(*mConfig.pskFile);
    keys = mKeyFile->Read(std::time(nullptr));
    if (keys && keys->Own() == nullptr) {
        LINK_LOG(LEVEL_ERROR, "LUMORA_LINK_PSK_FILE: every key has expired\n");
    }
    mLookAtKeys = Clock::now() + LOOK_AT_KEYS_EVERY;
    return keys && keys->Own() != nullptr;
}

bool NodeIo::Open() {
    std::optional<KeyRing> keys;
    if (!ReadKeys(keys)) {
        return false;
    }
    // Checked before anything is opened: libcoap leaks descriptors if it cannot open all that it needs, and a
    // later failure would name another cause.
    if (!DescriptorsAreLeft(DescriptorsOfANode())) {
        LINK_LOG(LEVEL_ERROR, "a node needs %zu descriptors: %s\n", DescriptorsOfANode(),
                 std::strerror(errno));
        return false;
    }
    if (!OpenPorts()) {
        return false;
    }
    if (!mLoop.Open()) {
        LINK_LOG(LEVEL_ERROR, "no descriptors left for a node\n");
        return false;
    }
    mCoap = std::make_unique<CoapPort>(CoapPort::Listener{
        [this](const CoapMessage& message, const Endpoint& source, in_addr_t local, ReplyPath path,
               const std::string& identity) {
            // Requests of hosts outside the local networks are dropped before the core stores anything for
            // them.
            if (IsHeeded(source)) {
                mCore.OnRequest(message, source, local, path, Clock::now(), identity);
            } else {
                mCoap->Forget(path);
            }
        },
        [this](ConversationId conversation, const CoapMessage& answer) {
            mCore.OnAnswer(conversation, answer, Clock::now());
        },
        [this](ConversationId conversation) { mCore.OnRefused(conversation, Clock::now()); },
        [this](ConversationId conversation, std::uint16_t messageId) {
            mCore.OnUnacknowledged(conversation, messageId, Clock::now());
        },
        [this](ConversationId conversation) { mCore.OnReached(conversation, Clock::now()); },
        [this](const Endpoint& peer, const std::string& identity) {
            PeerRegistry::OfProcess().OnAnswer(mNumber, peer, identity);
        }});
    mGroup = std::make_unique<GroupSockets>(
        mLoop, GroupSockets::Listener{
                   [this](const CoapMessage& message, const Endpoint& source, unsigned interface) {
                       if (IsHeeded(source)) {
                           mCore.OnGroupMessage(message, source, interface, Clock::now());
                       }
                   },
                   [this](const CoapMessage& message, const Endpoint& source) {
                       if (IsHeeded(source)) {
                           mCore.OnSearchAnswer(message, source, Clock::now());
                       }
                   }});
    if (!mCoap->Open(keys) || !mGroup->Open()) {
        LINK_LOG(LEVEL_ERROR, "the sockets of a node cannot be opened\n");
        return false;
    }
    if (keys) {
        PeerRegistry::OfProcess().Begin(mNumber, mConfig.channelMode, *keys);
    }
    mLoop.Watch(mCoap->Descriptor(), [this] { mCoap->Process(); });
    OpenRouteSocket();
    FollowInterfaces();
    return true;
}

void NodeIo::Run() {
    while (mRunning) {
        RunGuarded([this] { Turn(); });
    }
    // Sends the goodbye while the sockets are open.
    RunGuarded([this] { mCore.Close(Clock::now()); });
}

void NodeIo::Turn() {
    // libcoap queues work for itself. It must be done before the next deadline is computed.
    mCoap->Settle();
    const TimePoint now = Clock::now();
    if (now >= mGroup->NextHellos()) {
        // Before Tick, which would doubt nodes whose hellos have not been read.
        mGroup->ReadHellos();
    }
    if (mCore.NextDeadline(now) <= now) {
        mCore.Tick(now);
        mCoap->Settle();
    }
    mGroup->ReadHellosTogether(mCore.IsInCrowd());
    if (now >= mTryAgain) {
        FollowInterfaces();
    }
    if (now >= mLookAtKeys) {
        FollowKeys(now);
    }
    mLoop.WakeAt(std::min({LatestLook(mLookAtKeys), mCore.NextDeadline(now), mCoap->NextDeadline(), mTryAgain,
                           mGroup->NextHellos()}));
    mLoop.RunOnce();
}

// A file that cannot be used leaves the keys as they are: a mistake in it must not stop a fleet.
void NodeIo::FollowKeys(TimePoint now) {
    mLookAtKeys = now + LOOK_AT_KEYS_EVERY;
    const std::time_t today = std::time(nullptr);
    if (!mKeyFile->HasChanged(today)) {
        return;
    }
    auto keys = mKeyFile->Read(today);
    if (!keys) {
        LINK_LOG(LEVEL_ERROR, "LUMORA_LINK_PSK_FILE: the keys stay as they are\n");
        return;
    }
    if (keys->Own() == nullptr) {
        LINK_LOG(LEVEL_ERROR, "LUMORA_LINK_PSK_FILE: every key has expired\n");
    }
    LINK_LOG(2, "LUMORA_LINK_PSK_FILE: %zu keys were read again\n", keys->Size());
    PeerRegistry::OfProcess().UseKeys(mNumber, mCoap->Keys(), *keys);
    mCoap->UseKeys(std::move(*keys));
}

// Over a netlink socket the kernel reports changes of links and addresses. Without it the node keeps the
// interfaces that it started with.
void NodeIo::OpenRouteSocket() {
    mRoutes = lumora::UniqueFd(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE));
    sockaddr_nl address = {};
    address.nl_family = AF_NETLINK;
    address.nl_groups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR;
    if (!mRoutes || bind(mRoutes.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        LINK_LOG_LIMITED(LEVEL_WARNING, "changes of the interfaces cannot be followed\n");
        return;
    }
    mLoop.Watch(mRoutes.Get(), [this] {
        // The messages only trigger a new look at all interfaces, so their contents do not matter, nor
        // whether the kernel had to drop some.
        std::array<char, 8192> ignored;
        while (recv(mRoutes.Get(), ignored.data(), ignored.size(), 0) > 0) {
        }
        FollowInterfaces();
    });
}

// Opens sockets on new interfaces and closes those on lost ones. False if one cannot be used. If descriptors
// are short, schedules another attempt.
bool NodeIo::FollowInterfaces() {
    const std::vector<SystemInterface> all = ListSystemInterfaces();
    std::vector<LocalInterface> used = SelectInterfaces(all, mConfig.interfaces);
    mScope = LinkScope(all, used, mConfig.peers);
    WarnOfMissing(used);
    WarnIfUnreachable(used);
    const std::size_t wanted = used.size();
    const auto refused = [this](const LocalInterface& local) {
        return !mCoap->Listen({local.host, mPort.port});
    };
    // Interfaces on which libcoap cannot listen are left out for now; see mTryAgain.
    used.erase(std::remove_if(used.begin(), used.end(), refused), used.end());
    const bool complete = mGroup->Use(used) && used.size() == wanted;
    mTryAgain = complete || DescriptorsAreLeft(DescriptorsOfAnInterface()) ? TimePoint::max()
                                                                           : Clock::now() + TRY_AGAIN_AFTER;
    mCore.SetInterfaces(std::move(used), mPort.port, Clock::now());
    return complete;
}

// Warns once, until the situation changes: this line explains why a device that runs is never found.
void NodeIo::WarnIfUnreachable(const std::vector<LocalInterface>& used) {
    const bool unreachable = mConfig.interfaces.empty() && !ReachesOthers(used);
    if (unreachable && !mWarnedOfAddress) {
        LINK_LOG(LEVEL_WARNING, "no interface has an IPv4 address, so other hosts cannot find this node\n");
    }
    mWarnedOfAddress = unreachable;
}

bool NodeIo::IsHeeded(const Endpoint& source) const {
    const bool heeded = mScope.Contains(source.host);
    if (!heeded) {
        LINK_LOG_LIMITED(LEVEL_WARNING, "%s is on no local network and not in LUMORA_LINK_PEERS, ignored\n",
                         HostText(source.host).c_str());
    }
    return heeded;
}

void NodeIo::WarnOfMissing(const std::vector<LocalInterface>& used) const {
    for (const std::string& name : mConfig.interfaces) {
        const bool found = std::any_of(used.begin(), used.end(),
                                       [&](const LocalInterface& local) { return local.name == name; });
        if (!found) {
            LINK_LOG_LIMITED(LEVEL_WARNING, "LUMORA_LINK_INTERFACE: \"%s\" is not up with an IPv4 address\n",
                             name.c_str());
        }
    }
}

void NodeIo::Send(const LocalInterface& via, const Endpoint& to, const CoapMessage& message) {
    mGroup->Send(via, to, message);
}

void NodeIo::Transmit(ConversationId conversation, const Endpoint& to, const CoapMessage& message) {
    mCoap->Transmit(conversation, to, message);
}

void NodeIo::CloseConversation(ConversationId conversation) { mCoap->CloseConversation(conversation); }

void NodeIo::OnPeerGone(const Endpoint& endpoint) { mCoap->OnPeerGone(endpoint); }

void NodeIo::Reply(ReplyPath path, const CoapMessage& message) { mCoap->Reply(path, message); }

void NodeIo::Forget(ReplyPath path) { mCoap->Forget(path); }

bool NodeIo::IsClogged() const { return mCoap->IsClogged() || mGroup->IsClogged(); }

}  // namespace lumora_link
