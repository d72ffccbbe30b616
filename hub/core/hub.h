// The core: watches the network, holds the channels, hands out what comes.
#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "hub/core/call_gate.h"
#include "hub/core/consumer_table.h"
#include "hub/core/device_board.h"
#include "hub/core/device_hub.h"
#include "hub/core/device_link.h"
#include "hub/core/network_watch.h"

namespace lumora_hub {

// All that changes does so on one thread. The board and the table of consumers are what others see of it.
class Hub : public DeviceHub {
public:
    // Joins the network. Throws std::runtime_error if it cannot.
    explicit Hub(Settings settings);
    // Ends the channels, which tells the devices, and waits for the workers.
    ~Hub() override;
    Hub(const Hub&) = delete;
    Hub& operator=(const Hub&) = delete;

    std::vector<DeviceState> Devices() const override { return mBoard.All(); }
    std::optional<DeviceState> FindDevice(const std::string& name) const override {
        return mBoard.Find(name);
    }
    std::vector<ConsumerState> Consumers() const override;
    std::unique_ptr<Registration> Subscribe(const std::string& device, const std::string& service,
                                            std::shared_ptr<Consumer> consumer) override;
    void SendCommand(const std::string& device, const std::string& command, const std::string& parameter,
                     Done done) override;
    void SendBlock(const std::string& device, std::string bytes, Done done) override;
    std::unique_ptr<Registration> Watch(Listener listener) override;
    RefusalCounts Refusals() const override;

private:
    class ConsumerRegistration;
    class ListenerRegistration;

    // One listener of Watch.
    struct ListenerEntry {
        Listener listener;
        CallGate gate;
    };
    // A device, and what only this thread knows of it.
    struct Device {
        DeviceState state;
        Quota::Share share;
        std::unique_ptr<DeviceLink> link;
        std::map<std::string, ConsumerList> consumers;  // of each service
        EventLoop::Timer forget = 0;
    };

    void OnThread(const std::function<void()>& work);

    // What the watch tells.
    void OnFound(const lumora_nodes::FoundDevice& found);
    void OnLeft(const lumora_nodes::NodeEvent& node);
    bool HoldBack(const lumora_nodes::FoundDevice& found);
    void LetIn(const std::string& type, const std::string& address);
    Device* DeviceAt(const std::string& type, const std::string& address, int port);
    Device* PresentAt(const std::string& type, const std::string& address);
    std::string IdFor(const lumora_nodes::FoundDevice& found);
    Device* AddDevice(const lumora_nodes::FoundDevice& found);
    void LinkDevice(Device& device);
    void Describe(Device& device, const lumora_nodes::FoundDevice& found);
    void Leave(Device& device);
    void Forget(const std::string& id);
    bool MakeRoom(const std::string& address);
    void LeaveOut(const lumora_nodes::FoundDevice& found);
    void RefreshLater();

    // What consumers want.
    void ReconcileSoon();
    void Reconcile();
    void HandOut(Device& device, const std::string& service, std::uint64_t number, std::string bytes);

    void Request(FrameKind kind, const std::string& device, const std::string& name, std::string body,
                 Done done);
    void Publish(Device& device);
    void Tell(DeviceEvent::Kind kind, const DeviceState& device);

    const Settings mSettings;
    DeviceBoard mBoard;
    ConsumerTable mConsumers;

    EventLoop mLoop;
    Reaper mReaper{mLoop};
    PortRange mPorts;
    LinkSurroundings mSurroundings;
    Quota mShares;  // of the known devices
    std::map<std::string, Device> mDevices;
    std::vector<lumora_nodes::FoundDevice> mHeldBack;
    std::vector<std::shared_ptr<ListenerEntry>> mListeners;
    std::atomic<bool> mReconciling{false};
    std::atomic<std::uint64_t> mRefused{0};  // devices whose address has its share
    std::atomic<std::size_t> mRequests{0};
    std::atomic<std::size_t> mRequestBytes{0};

    std::thread mThread;
    std::unique_ptr<NetworkWatch> mWatch;
};

}  // namespace lumora_hub
