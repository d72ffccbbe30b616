#include "tests/hub/support/fake_hub.h"

#include <utility>

namespace lumora_hub_test {

using lumora::MutexLock;
using lumora_hub::Block;
using lumora_hub::ChannelState;
using lumora_hub::Consumer;
using lumora_hub::ConsumerState;
using lumora_hub::DeviceEvent;
using lumora_hub::DeviceState;
using lumora_hub::Outcome;
using lumora_hub::Registration;
using lumora_hub::ServiceState;

class FakeHub::Ticket final : public Registration {
public:
    Ticket(FakeHub& hub, std::size_t number) : mHub(hub), mNumber(number) {}
    ~Ticket() override { mHub.Remove(mNumber); }
    Ticket(const Ticket&) = delete;
    Ticket& operator=(const Ticket&) = delete;

private:
    FakeHub& mHub;
    const std::size_t mNumber;
};

FakeHub::~FakeHub() = default;

void FakeHub::Appear(const std::string& id, const std::vector<std::string>& services) {
    DeviceState device;
    {
        const MutexLock lock(mMutex);
        DeviceState& known = mDevices[id];
        known.id = id;
        known.type = id.substr(0, id.find('@'));
        known.address = id.find('@') == std::string::npos ? "192.0.2.1" : id.substr(id.find('@') + 1);
        known.port = 40000;
        known.version = "1.1.1";
        known.isPresent = true;
        known.channel = ChannelState::CONNECTED;
        known.since = known.lastSeen = std::chrono::system_clock::now();
        known.services.resize(services.size());
        for (std::size_t at = 0; at < services.size(); ++at) {
            known.services[at].name = services[at];
            known.services[at].transport = "tcp";
        }
        device = known;
    }
    Tell(DeviceEvent::Kind::APPEARED, device);
}

void FakeHub::Leave(const std::string& id) {
    DeviceState device;
    {
        const MutexLock lock(mMutex);
        mDevices[id].isPresent = false;
        mDevices[id].channel = ChannelState::IDLE;
        device = mDevices[id];
    }
    Tell(DeviceEvent::Kind::LEFT, device);
}

void FakeHub::SendFromDevice(const std::string& id, const std::string& service, const std::string& bytes) {
    auto block = std::make_shared<Block>();
    std::vector<std::shared_ptr<Consumer>> consumers;
    {
        const MutexLock lock(mMutex);
        block->number = 1;
        for (ServiceState& state : mDevices[id].services) {
            if (state.name == service) {
                block->number = ++state.blocks;
                state.bytes += bytes.size();
            }
        }
        const std::string type = mDevices[id].type;
        for (const auto& [ticket, subscription] : mSubscriptions) {
            const bool isDevice = subscription.device == id || subscription.device == type;
            if (isDevice && subscription.service == service) {
                consumers.push_back(subscription.consumer);
            }
        }
    }
    block->device = id;
    block->service = service;
    block->received = std::chrono::system_clock::now();
    block->arrived = std::chrono::steady_clock::now();
    block->bytes = bytes;
    for (const auto& consumer : consumers) {
        consumer->Push(block);
    }
}

void FakeHub::AnswerWith(std::optional<Outcome> outcome) {
    const MutexLock lock(mMutex);
    mOutcome = outcome;
}

void FakeHub::AnswerAll(Outcome outcome) {
    std::deque<Done> waiting;
    {
        const MutexLock lock(mMutex);
        waiting.swap(mWaiting);
    }
    for (const Done& done : waiting) {
        done(outcome);
    }
}

void FakeHub::OnSent(std::function<void(const std::string&)> handler) {
    const MutexLock lock(mMutex);
    mOnSent = std::move(handler);
}

void FakeHub::LimitConsumers(std::size_t limit) {
    const MutexLock lock(mMutex);
    mLimit = limit;
}

std::vector<DeviceState> FakeHub::Devices() const {
    const MutexLock lock(mMutex);
    std::vector<DeviceState> devices;
    for (const auto& [id, device] : mDevices) {
        devices.push_back(device);
    }
    return devices;
}

std::optional<DeviceState> FakeHub::FindDevice(const std::string& name) const {
    const MutexLock lock(mMutex);
    for (const auto& [id, device] : mDevices) {
        if (id == name || device.type == name) {
            return device;
        }
    }
    return std::nullopt;
}

std::vector<ConsumerState> FakeHub::Consumers() const {
    const MutexLock lock(mMutex);
    std::vector<ConsumerState> consumers;
    for (const auto& [ticket, subscription] : mSubscriptions) {
        consumers.push_back({subscription.consumer->Name(), subscription.device, subscription.service,
                             subscription.consumer->Counts()});
    }
    return consumers;
}

std::unique_ptr<Registration> FakeHub::Subscribe(const std::string& device, const std::string& service,
                                                 std::shared_ptr<Consumer> consumer) {
    const MutexLock lock(mMutex);
    if (mSubscriptions.size() >= mLimit) {
        return nullptr;
    }
    mSubscriptions[++mLastTicket] = {device, service, std::move(consumer)};
    return std::make_unique<Ticket>(*this, mLastTicket);
}

void FakeHub::SendCommand(const std::string& device, const std::string& command, const std::string& parameter,
                          Done done) {
    Answer(device, "command " + device + " " + command + " " + parameter, std::move(done));
}

void FakeHub::SendBlock(const std::string& device, std::string bytes, Done done) {
    Answer(device, "block " + device + " " + std::to_string(bytes.size()) + " " + bytes.substr(0, 40),
           std::move(done));
}

std::unique_ptr<Registration> FakeHub::Watch(Listener listener) {
    const MutexLock listening(mListening);
    for (const DeviceState& device : Devices()) {
        listener({DeviceEvent::Kind::APPEARED, device});
    }
    std::size_t ticket = 0;
    {
        const MutexLock lock(mMutex);
        ticket = ++mLastTicket;
    }
    mListeners[ticket] = std::move(listener);
    return std::make_unique<Ticket>(*this, ticket);
}

void FakeHub::Tell(DeviceEvent::Kind kind, const DeviceState& device) {
    const MutexLock lock(mListening);
    for (const auto& [ticket, listener] : mListeners) {
        listener({kind, device});
    }
}

void FakeHub::Answer(const std::string& device, const std::string& line, Done done) {
    std::optional<Outcome> outcome;
    std::function<void(const std::string&)> onSent;
    const bool isKnown = FindDevice(device).has_value();
    {
        const MutexLock lock(mMutex);
        outcome = isKnown ? mOutcome : Outcome::NO_DEVICE;
        onSent = mOnSent;
        if (!outcome) {
            mWaiting.push_back(done);
        }
    }
    if (onSent) {
        onSent(line);
    }
    if (outcome) {
        done(*outcome);
    }
}

void FakeHub::Remove(std::size_t ticket) {
    {
        const MutexLock lock(mMutex);
        mSubscriptions.erase(ticket);
    }
    const MutexLock lock(mListening);
    mListeners.erase(ticket);
}

}  // namespace lumora_hub_test
