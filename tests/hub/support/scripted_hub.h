// A hub without a network: a test says which devices there are, what they send and how they answer.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "base/mutex.h"
#include "hub/core/device_hub.h"

namespace lumora_hub_test {

lumora_hub::DeviceState MakeDevice(const std::string& type, const std::string& address,
                                   const std::vector<std::string>& services);

class ScriptedHub : public lumora_hub::DeviceHub {
public:
    struct Request {
        bool isCommand = false;
        std::string device;
        std::string command;
        std::string bytes;  // of the parameter, or of the block
    };

    // What happens in the network. A device that comes back keeps the counts of its services.
    void Appear(lumora_hub::DeviceState device);
    void Change(lumora_hub::DeviceState device);
    void Leave(const std::string& id);
    void Forget(const std::string& id);
    // Returns the number of consumers that got the block: those of the device and those of its type.
    std::size_t Send(const std::string& device, const std::string& service, std::string bytes);

    // How requests end. While they are held, they do not.
    void AnswerWith(lumora_hub::Outcome outcome);
    void HoldAnswers();
    void ReleaseAnswers();
    void PermitConsumers(std::size_t most);
    // Called with each request, on the thread that makes it.
    void OnRequest(std::function<void(const Request& request)> handler);

    std::vector<Request> Requests() const;
    std::size_t Subscriptions() const;

    std::vector<lumora_hub::DeviceState> Devices() const override;
    std::optional<lumora_hub::DeviceState> FindDevice(const std::string& name) const override;
    std::vector<lumora_hub::ConsumerState> Consumers() const override;
    lumora_hub::RefusalCounts Refusals() const override { return {1, 2, 3}; }
    std::unique_ptr<lumora_hub::Registration> Subscribe(
        const std::string& device, const std::string& service,
        std::shared_ptr<lumora_hub::Consumer> consumer) override;
    void SendCommand(const std::string& device, const std::string& command, const std::string& parameter,
                     Done done) override;
    void SendBlock(const std::string& device, std::string bytes, Done done) override;
    std::unique_ptr<lumora_hub::Registration> Watch(Listener listener) override;

private:
    // What a registration needs after the hub: they may end in any order.
    struct Shared {
        struct Subscription {
            std::string device;
            std::string service;
            std::shared_ptr<lumora_hub::Consumer> consumer;
        };
        mutable lumora::Mutex mutex;
        std::map<int, Subscription> subscriptions GUARDED_BY(mutex);
        std::map<int, Listener> listeners GUARDED_BY(mutex);
        int lastNumber GUARDED_BY(mutex) = 0;
    };
    class Entry;

    void Tell(lumora_hub::DeviceEvent::Kind kind, const lumora_hub::DeviceState& device);
    void Answer(const Request& request, const Done& done);
    const lumora_hub::DeviceState* Lookup(const std::string& name) const REQUIRES(mMutex);

    const std::shared_ptr<Shared> mShared = std::make_shared<Shared>();
    mutable lumora::Mutex mMutex;
    std::map<std::string, lumora_hub::DeviceState> mDevices GUARDED_BY(mMutex);
    std::map<std::pair<std::string, std::string>, std::uint64_t> mNumbers GUARDED_BY(mMutex);
    std::vector<Request> mRequests GUARDED_BY(mMutex);
    std::vector<Done> mHeld GUARDED_BY(mMutex);
    bool mHolds GUARDED_BY(mMutex) = false;
    lumora_hub::Outcome mOutcome GUARDED_BY(mMutex) = lumora_hub::Outcome::DONE;
    std::size_t mMostConsumers GUARDED_BY(mMutex) = 1000;
    std::function<void(const Request&)> mOnRequest GUARDED_BY(mMutex);
};

}  // namespace lumora_hub_test
