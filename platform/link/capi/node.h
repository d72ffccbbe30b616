// One node, from its start to its end: the I/O thread, the application's two threads, and those
// who wait for answers.
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

// What RegisterResource was given, read once: the record may be gone later.
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
    // Waits for handlers and events that run, says goodbye, ends. Nothing is called afterwards.
    void Stop();
    // Whether this is a thread that Stop would wait for.
    bool IsOwnThread() const { return mHandlers.IsCurrentThread() || mEvents.IsCurrentThread(); }

    void Register(Registration registration);

    // These wait. After Stop has begun there is no answer and nothing found.
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
    // The threads end before what they use.
    NodeIo mIo;
    HandlerThread mHandlers;
    Worker mEvents;
};

}  // namespace lumora_link
