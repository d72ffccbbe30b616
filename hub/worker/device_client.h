// A worker's client of its device.
#pragma once

#include <deque>
#include <map>
#include <memory>
#include <string>
#include <thread>

#include "base/mutex.h"
#include "hub/worker/frame_reader.h"
#include "hub/worker/outbox.h"
#include "lumora.hpp"

namespace lumora_hub {

struct DevicePlace {
    std::string type;
    std::string address;
    int port = 0;  // of its link platform
    int dataPort = 0;
};

// Requests of the hub run on a thread of its own, one after the other, because the library's calls wait for
// the device.
class DeviceClient {
public:
    // Connects on its thread. What comes of it goes to the outbox, which outlives the object.
    DeviceClient(DevicePlace place, Outbox& outbox);
    // Says goodbye to the device. Waits for a request in progress.
    ~DeviceClient();
    DeviceClient(const DeviceClient&) = delete;
    DeviceClient& operator=(const DeviceClient&) = delete;

    // A frame from the hub.
    void Handle(Frame frame);

private:
    void Run();
    bool Connect();
    bool Join();
    void SetHandlers();
    void Carry(const Frame& frame);
    void Subscribe(const std::string& service);
    void Answer(std::uint64_t request, bool done);
    void End(EndReason reason, const std::string& text);
    void OnBlock(std::string_view service, lumora::Bytes data);

    const DevicePlace mPlace;
    Outbox& mOutbox;
    std::map<std::string, std::uint64_t, std::less<>> mNumbers;  // of the receive thread

    lumora::Mutex mMutex;
    lumora::Condition mChanged;
    std::deque<Frame> mRequests GUARDED_BY(mMutex);
    bool mStop GUARDED_BY(mMutex) = false;

    std::unique_ptr<lumora::Client> mClient;  // of the thread
    std::thread mThread;
};

}  // namespace lumora_hub
