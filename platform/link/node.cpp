#include "node.h"

#include "contain.h"
#include "handler_call.h"
#include "log.h"

namespace lumora_link {

namespace {

// A flood of requests is refused rather than stored.
constexpr std::size_t kMaxQueuedCalls = 256;
// Events are few and must not be lost; the bound only ends what would never end.
constexpr std::size_t kMaxQueuedEvents = 65536;

}  // namespace

Node::Node(Config config, NodeIdentity identity, Registration registration)
    : registration_(std::move(registration)),
      io_(std::move(config), identity, CurrentRegistration().deviceType, *this),
      handlers_("lumora-link-req", kMaxQueuedCalls),
      events_("lumora-link-evt", kMaxQueuedEvents) {}

Node::~Node() { Stop(); }

void Node::Stop() {
    accepting_ = false;
    Contain([this] { io_.Post([](NodeCore& core, TimePoint) { core.RefuseRequests(); }); });
    handlers_.Stop();
    events_.Stop();
    io_.Stop();
    requests_.Close();
    searches_.Close();
}

void Node::Register(Registration registration) {
    std::optional<std::string> deviceType = registration.deviceType;
    {
        MutexLock lock(mutex_);
        registration_ = std::move(registration);
    }
    io_.Post([deviceType](NodeCore& core, TimePoint now) { core.SetDeviceType(deviceType, now); });
}

Outcome Node::Request(const Endpoint& to, std::uint8_t method, std::string key, std::string value) {
    const auto ticket = accepting_ ? requests_.Enter() : std::nullopt;
    if (!ticket) {
        return {};
    }
    OutgoingRequest request{*ticket, to, method, std::move(key), std::move(value)};
    const bool posted = io_.Post([this, request = std::move(request)](NodeCore& core, TimePoint now) {
        try {
            core.StartRequest(request, now);
        } catch (...) {
            requests_.Tell(request.ticket, {});
        }
    });
    if (!posted) {
        requests_.Tell(*ticket, {});
    }
    return requests_.Wait(*ticket);
}

std::vector<NodeDescription> Node::Find(const std::string& deviceType) {
    const auto ticket = accepting_ ? searches_.Enter() : std::nullopt;
    if (!ticket) {
        return {};
    }
    const bool posted = io_.Post([this, ticket, deviceType](NodeCore& core, TimePoint now) {
        try {
            core.StartSearch(*ticket, deviceType, now);
        } catch (...) {
            searches_.Tell(*ticket, {});
        }
    });
    if (!posted) {
        searches_.Tell(*ticket, {});
    }
    return searches_.Wait(*ticket);
}

bool Node::Handle(HandlerCall call) {
    return handlers_.Post([this, call = std::move(call)] {
        Outcome outcome{code::kInternalError, {}};
        try {
            outcome = CallHandler(CurrentRegistration(), call);
        } catch (...) {
            LINK_LOG(kLogError, "a handler threw; the request has failed\n");
        }
        io_.Post([ticket = call.ticket, outcome = std::move(outcome)](NodeCore& core, TimePoint now) {
            core.OnHandled(ticket, outcome, now);
        });
    });
}

void Node::Notify(DeviceEvent event) {
    const bool queued =
        events_.Post([this, event = std::move(event)] { CallDeviceEvent(CurrentRegistration(), event); });
    if (!queued && accepting_) {
        LINK_LOG(kLogError, "a device event is lost: the application takes none\n");
    }
}

void Node::RequestEnded(std::uint64_t ticket, Outcome outcome) { requests_.Tell(ticket, std::move(outcome)); }

void Node::SearchEnded(std::uint64_t ticket, std::vector<NodeDescription> found) {
    searches_.Tell(ticket, std::move(found));
}

Registration Node::CurrentRegistration() {
    MutexLock lock(mutex_);
    return registration_;
}

}  // namespace lumora_link
