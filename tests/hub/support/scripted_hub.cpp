#include "tests/hub/support/scripted_hub.h"

namespace lumora_hub_test {

using lumora::MutexLock;
using lumora_hub::Block;
using lumora_hub::Consumer;
using lumora_hub::ConsumerState;
using lumora_hub::DeviceEvent;
using lumora_hub::DeviceState;
using lumora_hub::Outcome;
using lumora_hub::Registration;
using lumora_hub::ServiceState;

DeviceState MakeDevice(const std::string& type, const std::string& address,
                       const std::vector<std::string>& services) {
    DeviceState device;
    device.id = type + "@" + address;
    device.type = type;
    device.address = address;
    device.port = 5683;
    device.version = "1.1.1";
    device.isPresent = true;
    device.since = device.lastSeen = std::chrono::system_clock::now();
    for (const std::string& name : services) {
        ServiceState service;
        service.name = name;
        service.transport = "tcp";
        device.services.push_back(std::move(service));
    }
    return device;
}

// A subscription or a listener.
class ScriptedHub::Entry : public Registration {
public:
    Entry(std::shared_ptr<Shared> shared, int number) : mShared(std::move(shared)), mNumber(number) {}
    ~Entry() override {
        const MutexLock lock(mShared->mutex);
        mShared->subscriptions.erase(mNumber);
        mShared->listeners.erase(mNumber);
    }

private:
    const std::shared_ptr<Shared> mShared;
    const int mNumber;
};

void ScriptedHub::Appear(DeviceState device) {
    {
        const MutexLock lock(mMutex);
        DeviceState& known = mDevices[device.id];
        for (ServiceState& service : device.services) {
            for (const ServiceState& former : known.services) {
                if (former.name == service.name) {
                    service.blocks = former.blocks;
                    service.bytes = former.bytes;
                }
            }
        }
        known = device;
    }
    Tell(DeviceEvent::Kind::APPEARED, device);
}

void ScriptedHub::Change(DeviceState device) {
    {
        const MutexLock lock(mMutex);
        mDevices[device.id] = device;
    }
    Tell(DeviceEvent::Kind::CHANGED, device);
}

void ScriptedHub::Leave(const std::string& id) {
    DeviceState device = FindDevice(id).value();
    device.isPresent = false;
    device.channel = lumora_hub::ChannelState::IDLE;
    {
        const MutexLock lock(mMutex);
        mDevices[id] = device;
    }
    Tell(DeviceEvent::Kind::LEFT, device);
}

void ScriptedHub::Forget(const std::string& id) {
    const DeviceState device = FindDevice(id).value();
    {
        const MutexLock lock(mMutex);
        mDevices.erase(id);
    }
    Tell(DeviceEvent::Kind::FORGOTTEN, device);
}

std::size_t ScriptedHub::Send(const std::string& device, const std::string& service, std::string bytes) {
    auto block = std::make_shared<Block>();
    block->device = device;
    block->service = service;
    block->received = std::chrono::system_clock::now();
    block->arrived = std::chrono::steady_clock::now();
    block->bytes = std::move(bytes);
    std::string type;
    {
        const MutexLock lock(mMutex);
        block->number = ++mNumbers[{device, service}];
        const auto known = mDevices.find(device);
        if (known != mDevices.end()) {
            type = known->second.type;
            for (ServiceState& state : known->second.services) {
                const bool isMeant = state.name == service;
                state.blocks += isMeant ? 1 : 0;
                state.bytes += isMeant ? block->bytes.size() : 0;
            }
        }
    }
    const MutexLock lock(mShared->mutex);
    std::size_t count = 0;
    for (const auto& entry : mShared->subscriptions) {
        const Shared::Subscription& subscription = entry.second;
        const bool isDevice = subscription.device == device || subscription.device == type;
        if (isDevice && subscription.service == service) {
            subscription.consumer->Push(block);
            ++count;
        }
    }
    return count;
}

void ScriptedHub::AnswerWith(Outcome outcome) {
    const MutexLock lock(mMutex);
    mOutcome = outcome;
}

void ScriptedHub::HoldAnswers() {
    const MutexLock lock(mMutex);
    mHolds = true;
}

void ScriptedHub::ReleaseAnswers() {
    std::vector<Done> held;
    Outcome outcome = Outcome::DONE;
    {
        const MutexLock lock(mMutex);
        mHolds = false;
        held.swap(mHeld);
        outcome = mOutcome;
    }
    for (const Done& done : held) {
        done(outcome);
    }
}

void ScriptedHub::PermitConsumers(std::size_t most) {
    const MutexLock lock(mMutex);
    mMostConsumers = most;
}

void ScriptedHub::OnRequest(std::function<void(const Request& request)> handler) {
    const MutexLock lock(mMutex);
    mOnRequest = std::move(handler);
}

std::vector<ScriptedHub::Request> ScriptedHub::Requests() const {
    const MutexLock lock(mMutex);
    return mRequests;
}

std::size_t ScriptedHub::Subscriptions() const {
    const MutexLock lock(mShared->mutex);
    return mShared->subscriptions.size();
}

std::vector<DeviceState> ScriptedHub::Devices() const {
    const MutexLock lock(mMutex);
    std::vector<DeviceState> devices;
    for (const auto& entry : mDevices) {
        devices.push_back(entry.second);
    }
    return devices;
}

std::optional<DeviceState> ScriptedHub::FindDevice(const std::string& name) const {
    const MutexLock lock(mMutex);
    const DeviceState* const device = Lookup(name);
    return device != nullptr ? std::make_optional(*device) : std::nullopt;
}

const DeviceState* ScriptedHub::Lookup(const std::string& name) const {
    for (const auto& [id, device] : mDevices) {
        if (id == name || device.type == name) {
            return &device;
        }
    }
    return nullptr;
}

std::vector<ConsumerState> ScriptedHub::Consumers() const {
    const MutexLock lock(mShared->mutex);
    std::vector<ConsumerState> states;
    for (const auto& entry : mShared->subscriptions) {
        const Shared::Subscription& subscription = entry.second;
        states.push_back({subscription.consumer->Name(), subscription.device, subscription.service,
                          subscription.consumer->Counts()});
    }
    return states;
}

std::unique_ptr<Registration> ScriptedHub::Subscribe(const std::string& device, const std::string& service,
                                                     std::shared_ptr<Consumer> consumer) {
    std::size_t most = 0;
    {
        const MutexLock lock(mMutex);
        most = mMostConsumers;
    }
    const MutexLock lock(mShared->mutex);
    if (mShared->subscriptions.size() >= most) {
        return nullptr;
    }
    const int number = ++mShared->lastNumber;
    mShared->subscriptions[number] = {device, service, std::move(consumer)};
    return std::make_unique<Entry>(mShared, number);
}

void ScriptedHub::SendCommand(const std::string& device, const std::string& command,
                              const std::string& parameter, Done done) {
    Answer({true, device, command, parameter}, done);
}

void ScriptedHub::SendBlock(const std::string& device, std::string bytes, Done done) {
    Answer({false, device, "", std::move(bytes)}, done);
}

std::unique_ptr<Registration> ScriptedHub::Watch(Listener listener) {
    for (const DeviceState& device : Devices()) {
        listener({DeviceEvent::Kind::APPEARED, device});
    }
    const MutexLock lock(mShared->mutex);
    const int number = ++mShared->lastNumber;
    mShared->listeners[number] = std::move(listener);
    return std::make_unique<Entry>(mShared, number);
}

void ScriptedHub::Tell(DeviceEvent::Kind kind, const DeviceState& device) {
    const MutexLock lock(mShared->mutex);
    for (const auto& entry : mShared->listeners) {
        entry.second({kind, device});
    }
}

void ScriptedHub::Answer(const Request& request, const Done& done) {
    Outcome outcome = Outcome::NO_DEVICE;
    std::function<void(const Request&)> onRequest;
    bool holds = false;
    {
        const MutexLock lock(mMutex);
        mRequests.push_back(request);
        onRequest = mOnRequest;
        if (Lookup(request.device) != nullptr) {
            outcome = mOutcome;
            holds = mHolds;
        }
        if (holds) {
            mHeld.push_back(done);
        }
    }
    if (onRequest) {
        onRequest(request);
    }
    if (!holds) {
        done(outcome);
    }
}

}  // namespace lumora_hub_test
