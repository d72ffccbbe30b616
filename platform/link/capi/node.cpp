#include "platform/link/capi/node.h"

#include "platform/link/capi/handler_call.h"
#include "platform/link/capi/security.h"
#include "platform/link/io/run_guarded.h"
#include "platform/link/log.h"

namespace lumora_link {

namespace {

// Events are few and must not be lost; the bound only ends what would never end.
constexpr std::size_t MAX_QUEUED_EVENTS = 65536;

}  // namespace

Node::Node(Config config, NodeIdentity identity, Registration registration)
    : mRegistration(std::move(registration)),
      mIo(std::move(config), identity, CurrentRegistration().deviceType, *this),
      mHandlers({[this](const HandlerCall& call) {
                     const CurrentCall current(call, mIo.Number());
                     return CallHandler(CurrentRegistration(), call);
                 },
                 [this](std::uint64_t ticket, Outcome outcome) { OnHandled(ticket, std::move(outcome)); }}),
      mEvents("lumora-link-evt", MAX_QUEUED_EVENTS) {}

Node::~Node() { Stop(); }

// The order matters: the threads that call the application end before the I/O thread, because a running
// handler may wait for an answer that only the I/O thread can bring. New requests are refused first, so that
// a waiting application thread cannot delay the end.
void Node::Stop() {
    mAccepting = false;
    RunGuarded([this] { mIo.Post([](NodeCore& core, TimePoint) { core.RefuseRequests(); }); });
    mHandlers.Stop();
    mEvents.Stop();
    mIo.Stop();
    // No thread is left that could answer: wakes the application's threads that still wait.
    mRequests.Close();
    mSearches.Close();
}

void Node::Register(Registration registration) {
    std::optional<std::string> deviceType = registration.deviceType;
    {
        lumora::MutexLock lock(mMutex);
        mRegistration = std::move(registration);
    }
    mIo.Post([deviceType](NodeCore& core, TimePoint now) { core.SetDeviceType(deviceType, now); });
}

Outcome Node::Request(const Endpoint& to, std::uint8_t method, std::string key, std::string value) {
    const auto ticket = mAccepting ? mRequests.Enter() : std::nullopt;
    if (!ticket) {
        return {};
    }
    OutgoingRequest request{*ticket, to, method, std::move(key), std::move(value)};
    const bool posted = mIo.Post([this, request = std::move(request)](NodeCore& core, TimePoint now) {
        try {
            core.StartRequest(request, now);
        } catch (...) {
            // Without memory the request fails. Its thread must not wait for an answer that never comes.
            mRequests.Tell(request.ticket, {});
        }
    });
    if (!posted) {
        mRequests.Tell(*ticket, {});
    }
    return mRequests.Wait(*ticket);
}

std::vector<NodeDescription> Node::Find(const std::string& deviceType) {
    const auto ticket = mAccepting ? mSearches.Enter() : std::nullopt;
    if (!ticket) {
        return {};
    }
    const bool posted = mIo.Post([this, ticket, deviceType](NodeCore& core, TimePoint now) {
        try {
            core.StartSearch(*ticket, deviceType, now);
        } catch (...) {
            mSearches.Tell(*ticket, {});
        }
    });
    if (!posted) {
        mSearches.Tell(*ticket, {});
    }
    return mSearches.Wait(*ticket);
}

bool Node::Handle(HandlerCall call) { return mHandlers.Push(std::move(call)); }

void Node::OnHandled(std::uint64_t ticket, Outcome outcome) {
    mIo.Post([ticket, outcome = std::move(outcome)](NodeCore& core, TimePoint now) {
        core.OnHandled(ticket, outcome, now);
    });
}

void Node::Notify(DeviceEvent event) {
    const bool queued =
        mEvents.Post([this, event = std::move(event)] { CallDeviceEvent(CurrentRegistration(), event); });
    if (!queued && mAccepting) {
        LINK_LOG(LEVEL_ERROR, "a device event is lost: the application takes none\n");
    }
}

void Node::RequestEnded(std::uint64_t ticket, Outcome outcome) { mRequests.Tell(ticket, std::move(outcome)); }

void Node::SearchEnded(std::uint64_t ticket, std::vector<NodeDescription> found) {
    mSearches.Tell(ticket, std::move(found));
}

Registration Node::CurrentRegistration() {
    lumora::MutexLock lock(mMutex);
    return mRegistration;
}

}  // namespace lumora_link
