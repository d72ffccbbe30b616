// One node, from its start to its end: the I/O thread, the two threads that call the application, and the
// application's threads that wait for answers.
#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/mutex.h"
#include "link_platform.h"
#include "platform/link/capi/handler_thread.h"
#include "platform/link/capi/waiting_room.h"
#include "platform/link/core/ports.h"
#include "platform/link/io/config.h"
#include "platform/link/io/node_io.h"
#include "platform/link/io/worker.h"

namespace lumora_link {

// A copy of what RegisterResource was given, because the application may free its record after the call.
struct Registration {
    AppResource* resource = nullptr;  // only passed back
    AppResource handlers = {};
    DeviceEventFunction onDeviceEvent = nullptr;
    std::optional<std::string> deviceType;
};

class Node : private Application {
public:
    Node(Config config, NodeIdentity identity, Registration registration);
    ~Node() override;

    bool Start() { return mIo.Start(); }
    // Waits for the running handler and event, sends a goodbye and joins the threads. Calls nothing of the
    // application afterwards. Must not be called on a thread for which IsOwnThread is true.
    void Stop();
    // Whether the current thread is one that Stop joins.
    bool IsOwnThread() const { return mHandlers.IsCurrentThread() || mEvents.IsCurrentThread(); }

    void Register(Registration registration);

    // Both block until the answer, its timeout, or Stop. After Stop has begun they return nothing.
    Outcome Request(const Endpoint& to, std::uint8_t method, std::string key, std::string value);
    std::vector<NodeDescription> Find(const std::string& deviceType);

private:
    bool Handle(HandlerCall call) override;
    void Notify(DeviceEvent event) override;
    void RequestEnded(std::uint64_t ticket, Outcome outcome) override;
    void SearchEnded(std::uint64_t ticket, std::vector<NodeDescription> found) override;

    void OnHandled(std::uint64_t ticket, Outcome outcome);
    Registration CurrentRegistration();

    std::atomic<bool> mAccepting{true};
    lumora::Mutex mMutex;
    Registration mRegistration GUARDED_BY(mMutex);
    WaitingRoom<Outcome> mRequests;
    WaitingRoom<std::vector<NodeDescription>> mSearches;
    // Declared last: members are destroyed in reverse order, so the threads end before what they use.
    NodeIo mIo;
    HandlerThread mHandlers;
    Worker mEvents;
};

}  // namespace lumora_link
