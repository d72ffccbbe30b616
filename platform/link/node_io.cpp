#include "node_io.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <future>

#include "contain.h"
#include "interface_list.h"
#include "log.h"
#include "worker.h"

namespace lumora_link {

std::uint64_t RandomNumber() {
    std::random_device device;
    return static_cast<std::uint64_t>(device()) << 32 | device();
}

std::uint64_t NodeIo::SystemRandom::Seed() { return RandomNumber(); }

NodeIo::NodeIo(Config config, NodeIdentity identity, std::optional<std::string> deviceType,
               Application& application)
    : config_(std::move(config)),
      core_(identity, config_.pskFile.has_value(), config_.peers, random_, *this, application) {
    core_.SetDeviceType(std::move(deviceType), Clock::now());
}

NodeIo::~NodeIo() { Stop(); }

bool NodeIo::Start() {
    std::promise<bool> opened;
    std::future<bool> ready = opened.get_future();
    thread_ = StartQuietThread("lumora-link-io", [this, &opened] {
        bool open = false;
        try {
            open = Open();
        } catch (...) {
            LINK_LOG(kLogError, "no memory to start a node\n");
        }
        opened.set_value(open);
        if (open) {
            Run();
        }
        // All of them now: proxies may keep this object, and the port must refuse.
        coap_.reset();
        group_.reset();
        port_ = PortGuard();
        securedPort_ = PortGuard();
        routes_ = UniqueFd();
    });
    const bool open = ready.get();
    if (!open) {
        thread_.join();
    }
    return open;
}

void NodeIo::Stop() {
    if (!thread_.joinable()) {
        return;
    }
    try {
        Post([this](NodeCore&, TimePoint) { running_ = false; });
    } catch (...) {
        running_ = false;  // without what was posted before: memory is short
        loop_.Wake();
    }
    thread_.join();
    loop_.Shut();
}

bool NodeIo::Post(Work work) {
    return loop_.Post([this, work = std::move(work)] { work(core_, Clock::now()); });
}

bool NodeIo::OpenPorts() {
    constexpr int kAttempts = 100;
    const bool secured = config_.pskFile.has_value();
    // A port of the system's choice may have a neighbour that is taken.
    for (int attempt = 0; attempt < (config_.port == 0 ? kAttempts : 1); ++attempt) {
        port_ = ReservePort(config_.port);
        if (!port_.socket || !secured) {
            break;
        }
        const std::uint16_t next = SecuredPortOf({0, port_.port}).port;
        securedPort_ = next == 0 ? PortGuard() : ReservePort(next);
        if (securedPort_.socket) {
            return true;
        }
    }
    if (!port_.socket || secured) {
        LINK_LOG(kLogError, "UDP port %u%s is taken\n", static_cast<unsigned>(config_.port),
                 secured ? " or the next one" : "");
        return false;
    }
    return true;
}

bool NodeIo::Open() {
    if (config_.pskFile) {
        if (!CoapPort::CanSecure()) {
            LINK_LOG(kLogError, "LUMORA_LINK_PSK_FILE is set, but this library was built without DTLS\n");
            return false;
        }
        psk_ = ReadPskFile(*config_.pskFile);
        if (!psk_) {
            return false;
        }
    }
    if (!OpenPorts()) {
        return false;
    }
    if (!loop_.Open()) {
        LINK_LOG(kLogError, "no descriptors left for a node\n");
        return false;
    }
    coap_ = std::make_unique<CoapPort>(CoapPort::Listener{
        [this](const CoapMessage& message, const Endpoint& source, in_addr_t local, ReplyPath path) {
            core_.OnRequest(message, source, local, path, Clock::now());
        },
        [this](ConversationId conversation, const CoapMessage& answer) {
            core_.OnAnswer(conversation, answer, Clock::now());
        },
        [this](ConversationId conversation) { core_.OnRefused(conversation, Clock::now()); },
        [this](ConversationId conversation) { core_.OnReached(conversation, Clock::now()); }});
    group_ = std::make_unique<GroupSockets>(
        loop_, GroupSockets::Listener{
                   [this](const CoapMessage& message, const Endpoint& source, unsigned interface) {
                       core_.OnGroupMessage(message, source, interface, Clock::now());
                   },
                   [this](const CoapMessage& message, const Endpoint& source) {
                       core_.OnSearchAnswer(message, source, Clock::now());
                   }});
    if (!coap_->Open(psk_) || !group_->Open()) {
        LINK_LOG(kLogError, "the sockets of a node cannot be opened\n");
        return false;
    }
    loop_.Watch(coap_->Descriptor(), [this] { coap_->Process(); });
    OpenRouteSocket();
    FollowInterfaces();
    return true;
}

void NodeIo::Run() {
    while (running_) {
        Contain([this] { Turn(); });
    }
    Contain([this] { core_.Close(Clock::now()); });
}

void NodeIo::Turn() {
    coap_->Settle();
    const TimePoint now = Clock::now();
    if (core_.NextDeadline(now) <= now) {
        core_.Tick(now);
        coap_->Settle();
    }
    loop_.WakeAt(std::min(core_.NextDeadline(now), coap_->NextDeadline()));
    loop_.RunOnce();
}

// The kernel tells when links and addresses change. Without that the node stays with what it has.
void NodeIo::OpenRouteSocket() {
    routes_ = UniqueFd(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE));
    sockaddr_nl address = {};
    address.nl_family = AF_NETLINK;
    address.nl_groups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR;
    if (!routes_ || bind(routes_.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        LINK_LOG_LIMITED(kLogWarning, "changes of the interfaces cannot be followed\n");
        return;
    }
    loop_.Watch(routes_.Get(), [this] {
        // What changed is read anew; the messages, or their loss, only tell that something did.
        std::array<char, 8192> ignored;
        while (recv(routes_.Get(), ignored.data(), ignored.size(), 0) > 0) {
        }
        FollowInterfaces();
    });
}

void NodeIo::FollowInterfaces() {
    std::vector<LocalInterface> used = SelectInterfaces(ListSystemInterfaces(), config_.interfaces);
    WarnOfMissing(used);
    const auto refused = [this](const LocalInterface& local) {
        return !coap_->Listen({local.host, port_.port});
    };
    used.erase(std::remove_if(used.begin(), used.end(), refused), used.end());
    group_->Use(used);
    core_.SetInterfaces(std::move(used), port_.port, Clock::now());
}

void NodeIo::WarnOfMissing(const std::vector<LocalInterface>& used) const {
    for (const std::string& name : config_.interfaces) {
        const bool found = std::any_of(used.begin(), used.end(),
                                       [&](const LocalInterface& local) { return local.name == name; });
        if (!found) {
            LINK_LOG_LIMITED(kLogWarning, "LUMORA_LINK_INTERFACE: \"%s\" is not up with an IPv4 address\n",
                             name.c_str());
        }
    }
}

void NodeIo::Send(const LocalInterface& via, const Endpoint& to, const CoapMessage& message) {
    group_->Send(via, to, message);
}

void NodeIo::Transmit(ConversationId conversation, const Endpoint& to, const CoapMessage& message) {
    coap_->Transmit(conversation, to, message);
}

void NodeIo::Hang(ConversationId conversation) { coap_->Hang(conversation); }

void NodeIo::OnPeerGone(const Endpoint& endpoint) { coap_->OnPeerGone(endpoint); }

void NodeIo::Reply(ReplyPath path, const CoapMessage& message) { coap_->Reply(path, message); }

void NodeIo::Forget(ReplyPath path) { coap_->Forget(path); }

}  // namespace lumora_link
