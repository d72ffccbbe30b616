#include "hub/core/hub.h"

#include <arpa/inet.h>

#include <algorithm>
#include <future>
#include <set>
#include <utility>

#include "base/interface_addresses.h"
#include "base/thread.h"
#include "hub/core/log.h"
#include "lumora.h"

namespace lumora_hub {

namespace {

using lumora_nodes::FoundDevice;
using lumora_nodes::NodeEvent;

// Devices may register other services; no event tells of it.
constexpr std::chrono::minutes REFRESH_INTERVAL{1};
constexpr std::size_t MOST_LISTENERS = 1000;
constexpr std::size_t MOST_REQUESTS = 1000;
constexpr std::size_t MOST_REQUEST_BYTES = std::size_t{64} << 20;
// All workers end within it.
constexpr std::chrono::seconds TIME_TO_END{7};

bool IsName(const std::string& name) {
    return !name.empty() && name.size() < LUM_NAME_SIZE && name.find('\0') == std::string::npos;
}

bool IsCommand(const std::string& command, const std::string& parameter) {
    return !command.empty() && command.size() + parameter.size() <= LUM_MAX_CMD_LENGTH &&
           command.find('\0') == std::string::npos && parameter.find('\0') == std::string::npos &&
           command != "subscribe" && command != "unsubscribe";
}

bool IsOwnAddress(const std::string& address) {
    in_addr parsed = {};
    const bool isAddress = inet_pton(AF_INET, address.c_str(), &parsed) == 1;
    const std::vector<lumora::InterfaceAddress> own = lumora::ListInterfaceAddresses();
    return isAddress && std::any_of(own.begin(), own.end(), [&](const lumora::InterfaceAddress& one) {
               return one.hasIpv4 && one.host == parsed.s_addr;
           });
}

std::vector<ServiceState> ServicesOf(const FoundDevice& found) {
    std::vector<ServiceState> services;
    for (const lumora_nodes::Service& service : found.services) {
        ServiceState state;
        state.name = service.name;
        state.transport = lumora_nodes::TransportName(service.transport);
        state.outputBytes = service.outputBytes;
        services.push_back(std::move(state));
    }
    return services;
}

bool IsSame(const std::vector<ServiceState>& some, const std::vector<ServiceState>& others) {
    return std::equal(some.begin(), some.end(), others.begin(), others.end(),
                      [](const ServiceState& one, const ServiceState& other) {
                          return one.name == other.name && one.transport == other.transport &&
                                 one.outputBytes == other.outputBytes;
                      });
}

}  // namespace

// ---- Registrations

class Hub::ConsumerRegistration : public Registration {
public:
    ConsumerRegistration(Hub& hub, std::shared_ptr<ConsumerEntry> entry)
        : mHub(hub), mEntry(std::move(entry)) {}
    ~ConsumerRegistration() override {
        mHub.mConsumers.Remove(mEntry);
        mEntry->gate.Close();
        mHub.ReconcileSoon();
    }

private:
    Hub& mHub;
    const std::shared_ptr<ConsumerEntry> mEntry;
};

class Hub::ListenerRegistration : public Registration {
public:
    ListenerRegistration(Hub& hub, std::shared_ptr<ListenerEntry> entry)
        : mHub(hub), mEntry(std::move(entry)) {}
    ~ListenerRegistration() override {
        mEntry->gate.Close();
        mHub.mLoop.Post([&hub = mHub, entry = mEntry] {
            auto& all = hub.mListeners;
            all.erase(std::remove(all.begin(), all.end(), entry), all.end());
        });
    }

private:
    Hub& mHub;
    const std::shared_ptr<ListenerEntry> mEntry;
};

// ---- Life

Hub::Hub(Settings settings)
    : mSettings(std::move(settings)),
      mConsumers(mSettings.consumers),
      mPorts(mSettings.ports),
      mSurroundings{mLoop, mReaper, mPorts, mSettings, {}},
      mShares(mSettings.devices, ThreeQuarters(mSettings.devices)) {
    NetworkWatch::Events events;
    events.onFound = [this](const FoundDevice& found) { mLoop.Post([this, found] { OnFound(found); }); };
    events.onLeft = [this](const NodeEvent& node) { mLoop.Post([this, node] { OnLeft(node); }); };
    // Events that come before the thread runs wait for it.
    mWatch = std::make_unique<NetworkWatch>(mSettings.types, mSettings.devices, std::move(events));
    RefreshLater();
    mThread = lumora::StartThread("hub", [this] { mLoop.Run(); });
}

// The watch ends last: when the hub's node leaves, devices close what is still open.
Hub::~Hub() {
    mLoop.Stop();
    mThread.join();
    mDevices.clear();
    const EventLoop::Clock::time_point end = EventLoop::Clock::now() + TIME_TO_END;
    while (!mReaper.IsEmpty() && EventLoop::Clock::now() < end) {
        mLoop.RunOnce(std::chrono::milliseconds(20));
    }
    mWatch.reset();
}

void Hub::OnThread(const std::function<void()>& work) {
    if (std::this_thread::get_id() == mThread.get_id()) {
        work();
        return;
    }
    std::promise<void> done;
    mLoop.Post([&] {
        work();
        done.set_value();
    });
    done.get_future().wait();
}

// ---- What faces ask

std::vector<ConsumerState> Hub::Consumers() const {
    std::vector<ConsumerState> states;
    for (const std::shared_ptr<ConsumerEntry>& entry : mConsumers.All()) {
        states.push_back({entry->consumer->Name(), entry->device, entry->service, entry->consumer->Counts()});
    }
    return states;
}

std::unique_ptr<Registration> Hub::Subscribe(const std::string& device, const std::string& service,
                                             std::shared_ptr<Consumer> consumer) {
    std::shared_ptr<ConsumerEntry> entry = mConsumers.Add(device, service, std::move(consumer));
    if (entry == nullptr) {
        return nullptr;
    }
    ReconcileSoon();
    return std::make_unique<ConsumerRegistration>(*this, std::move(entry));
}

void Hub::SendCommand(const std::string& device, const std::string& command, const std::string& parameter,
                      Done done) {
    if (!IsCommand(command, parameter)) {
        done(Outcome::BAD_REQUEST);
        return;
    }
    Request(FrameKind::COMMAND, device, command, parameter, std::move(done));
}

void Hub::SendBlock(const std::string& device, std::string bytes, Done done) {
    if (bytes.empty() || bytes.size() > LUM_MAX_CLIENT_DATA_LENGTH) {
        done(Outcome::BAD_REQUEST);
        return;
    }
    Request(FrameKind::SEND, device, {}, std::move(bytes), std::move(done));
}

RefusalCounts Hub::Refusals() const { return {mWatch->Refused(), mRefused, mSurroundings.refused}; }

void Hub::Request(FrameKind kind, const std::string& device, const std::string& name, std::string body,
                  Done done) {
    const std::size_t size = body.size();
    if (mRequests >= MOST_REQUESTS || mRequestBytes + size > MOST_REQUEST_BYTES) {
        done(Outcome::BUSY);
        return;
    }
    ++mRequests;
    mRequestBytes += size;
    Done counted = [this, size, done = std::move(done)](Outcome outcome) {
        --mRequests;
        mRequestBytes -= size;
        done(outcome);
    };
    mLoop.Post([this, kind, device, name, body = std::move(body), counted = std::move(counted)]() mutable {
        const auto found = mDevices.find(mBoard.Resolve(device));
        if (found == mDevices.end() || !found->second.state.isPresent) {
            counted(Outcome::NO_DEVICE);
            return;
        }
        found->second.link->Request(kind, name, body, std::move(counted));
    });
}

std::unique_ptr<Registration> Hub::Watch(Listener listener) {
    auto entry = std::make_shared<ListenerEntry>();
    entry->listener = std::move(listener);
    bool taken = false;
    OnThread([&] {
        taken = mListeners.size() < MOST_LISTENERS;
        if (!taken) {
            return;
        }
        mListeners.push_back(entry);
        for (const DeviceState& device : mBoard.All()) {
            entry->gate.Run([&] { entry->listener({DeviceEvent::Kind::APPEARED, device}); });
        }
    });
    return taken ? std::make_unique<ListenerRegistration>(*this, std::move(entry)) : nullptr;
}

// ---- What the watch tells

void Hub::OnFound(const FoundDevice& found) {
    if (Device* const known = DeviceAt(found.type, found.address, found.port)) {
        if (found.answers) {
            Describe(*known, found);
        }
        LetIn(found.type, found.address);
        return;
    }
    if (!found.answers || HoldBack(found)) {
        return;
    }
    if (Device* const device = AddDevice(found)) {
        Describe(*device, found);
        ReconcileSoon();
    } else {
        LeaveOut(found);
    }
}

void Hub::LeaveOut(const FoundDevice& found) {
    const char* const type = found.type.c_str();
    const char* const address = found.address.c_str();
    if (mShares.HasItsShare(found.address)) {
        ++mRefused;
        HUB_LOG_LIMITED(
            lumora::LOG_WARNING,
            "The device of type \"%s\" at %s is left out: too many others at its address are known.\n", type,
            address);
    } else {
        HUB_LOG_LIMITED(lumora::LOG_WARNING,
                        "The device of type \"%s\" at %s is left out: %zu others are known.\n", type, address,
                        mDevices.size());
    }
}

// A device that was killed and started again is seen twice for about a second. The newcomer shall have its
// id, so it waits until a look has shown whether the former one is still there.
bool Hub::HoldBack(const FoundDevice& found) {
    const Device* const former = PresentAt(found.type, found.address);
    const bool wasHeld = std::any_of(mHeldBack.begin(), mHeldBack.end(), [&](const FoundDevice& held) {
        return held.port == found.port && held.type == found.type && held.address == found.address;
    });
    if (former == nullptr || wasHeld || mHeldBack.size() >= mSettings.devices) {
        return false;
    }
    mHeldBack.push_back(found);
    mWatch->Check(former->state.type, former->state.address, former->state.port);
    return true;
}

// The former device at that address has answered, or has left.
void Hub::LetIn(const std::string& type, const std::string& address) {
    for (const FoundDevice& held : std::vector<FoundDevice>(mHeldBack)) {
        if (held.type == type && held.address == address) {
            OnFound(held);  // which finds that it was held before
            const auto isThat = [&](const FoundDevice& other) {
                return other.port == held.port && other.type == type && other.address == address;
            };
            mHeldBack.erase(std::remove_if(mHeldBack.begin(), mHeldBack.end(), isThat), mHeldBack.end());
        }
    }
}

void Hub::OnLeft(const NodeEvent& node) {
    if (IsOwnAddress(node.address)) {
        mSurroundings.neighbourLeft = EventLoop::Clock::now();
    }
    const auto isThat = [&](const FoundDevice& held) {
        return held.port == node.port && held.type == node.type && held.address == node.address;
    };
    mHeldBack.erase(std::remove_if(mHeldBack.begin(), mHeldBack.end(), isThat), mHeldBack.end());
    if (Device* const device = DeviceAt(node.type, node.address, node.port)) {
        Leave(*device);
    }
    LetIn(node.type, node.address);
    ReconcileSoon();
}

Hub::Device* Hub::DeviceAt(const std::string& type, const std::string& address, int port) {
    const auto found = std::find_if(mDevices.begin(), mDevices.end(), [&](const auto& entry) {
        const DeviceState& state = entry.second.state;
        return state.isPresent && state.port == port && state.address == address && state.type == type;
    });
    return found != mDevices.end() ? &found->second : nullptr;
}

Hub::Device* Hub::PresentAt(const std::string& type, const std::string& address) {
    const auto found = std::find_if(mDevices.begin(), mDevices.end(), [&](const auto& entry) {
        const DeviceState& state = entry.second.state;
        return state.isPresent && state.address == address && state.type == type;
    });
    return found != mDevices.end() ? &found->second : nullptr;
}

std::string Hub::IdFor(const FoundDevice& found) {
    std::string id = found.type + '@' + found.address;
    const auto known = mDevices.find(id);
    return known == mDevices.end() || !known->second.state.isPresent ? id
                                                                     : id + ':' + std::to_string(found.port);
}

// One that had left is known still. Null if there is no room for another one.
Hub::Device* Hub::AddDevice(const FoundDevice& found) {
    const std::string id = IdFor(found);
    const auto known = mDevices.find(id);
    if (known != mDevices.end()) {
        mLoop.Cancel(known->second.forget);
        return &known->second;
    }
    if (!MakeRoom(found.address)) {
        return nullptr;
    }
    Device& device = mDevices[id];
    device.state.id = id;
    device.share = mShares.Take(found.address);
    LinkDevice(device);
    return &device;
}

// The device stays at its place in the map.
void Hub::LinkDevice(Device& device) {
    DeviceLink::Events events;
    events.onChanged = [this, &device] { Publish(device); };
    events.onBlock = [this, &device](const std::string& service, std::uint64_t number, std::string bytes) {
        HandOut(device, service, number, std::move(bytes));
    };
    events.onUnreachable = [this, &device] {
        mWatch->Check(device.state.type, device.state.address, device.state.port);
    };
    device.link = std::make_unique<DeviceLink>(mSurroundings, std::move(events));
}

void Hub::Describe(Device& device, const FoundDevice& found) {
    DeviceState& state = device.state;
    const bool came = !state.isPresent;
    std::vector<ServiceState> services = ServicesOf(found);
    if (!came && IsSame(services, state.services)) {
        return;
    }
    state.type = found.type;
    state.address = found.address;
    state.port = found.port;
    state.version = found.version;
    state.services = std::move(services);
    if (came) {
        state.isPresent = true;
        state.since = std::chrono::system_clock::now();
        mBoard.Set(state);
        Tell(DeviceEvent::Kind::APPEARED, state);
        HUB_LOG(lumora::LOG_STATE, "%s has come.\n", state.id.c_str());
        device.link->SetPlace(Place{state.type, state.address, state.port});
    } else {
        Publish(device);
    }
}

void Hub::Leave(Device& device) {
    DeviceState& state = device.state;
    device.link->SetPlace(std::nullopt);  // first: its end is a change of a device that is there
    state.isPresent = false;
    state.lastSeen = std::chrono::system_clock::now();
    mBoard.Set(state);
    Tell(DeviceEvent::Kind::LEFT, state);
    HUB_LOG(lumora::LOG_STATE, "%s has left.\n", state.id.c_str());
    const ConsumerList consumers = mConsumers.All();
    const bool isAwaited = std::any_of(consumers.begin(), consumers.end(), [&](const auto& entry) {
        return entry->device == state.id || entry->device == state.type;
    });
    device.forget = mLoop.After(isAwaited ? mSettings.forget : std::chrono::milliseconds(0),
                                [this, id = state.id] { Forget(id); });
}

void Hub::Forget(const std::string& id) {
    const auto found = mDevices.find(id);
    if (found != mDevices.end() && !found->second.state.isPresent) {
        const DeviceState state = found->second.state;
        mDevices.erase(found);
        mBoard.Remove(id);
        Tell(DeviceEvent::Kind::FORGOTTEN, state);
    }
}

// Devices that consumers wait for stay known when they leave. Those that are there come first. An address
// that has its share makes room itself.
bool Hub::MakeRoom(const std::string& address) {
    if (mShares.HasRoom(address)) {
        return true;
    }
    const bool mustYield = mShares.HasItsShare(address);
    Device* oldest = nullptr;
    for (auto& [id, device] : mDevices) {
        const bool isOlder = oldest == nullptr || device.state.lastSeen < oldest->state.lastSeen;
        const bool mayGo = !device.state.isPresent && (!mustYield || device.state.address == address);
        if (mayGo && isOlder) {
            oldest = &device;
        }
    }
    if (oldest != nullptr) {
        mLoop.Cancel(oldest->forget);
        Forget(std::string(oldest->state.id));
    }
    return oldest != nullptr;
}

void Hub::RefreshLater() {
    mLoop.After(REFRESH_INTERVAL, [this] {
        for (const auto& [id, device] : mDevices) {
            if (device.state.isPresent) {
                mWatch->Refresh(device.state.type, device.state.address, device.state.port);
            }
        }
        RefreshLater();
    });
}

// ---- What consumers want

void Hub::ReconcileSoon() {
    if (!mReconciling.exchange(true)) {
        mLoop.Post([this] {
            mReconciling = false;
            Reconcile();
        });
    }
}

void Hub::Reconcile() {
    std::map<std::string, std::map<std::string, ConsumerList>> wanted;
    for (const std::shared_ptr<ConsumerEntry>& entry : mConsumers.All()) {
        const std::string id = mBoard.Resolve(entry->device);
        if (!id.empty() && IsName(entry->service)) {
            wanted[id][entry->service].push_back(entry);
        }
    }
    for (auto& [id, device] : mDevices) {
        device.consumers = std::move(wanted[id]);
        std::set<std::string> services;
        std::map<std::string, std::size_t> counts;
        for (const auto& [service, consumers] : device.consumers) {
            services.insert(service);
            counts[service] = consumers.size();
        }
        mBoard.SetConsumers(id, counts);
        device.link->SetWanted(std::move(services));
    }
}

void Hub::HandOut(Device& device, const std::string& service, std::uint64_t number, std::string bytes) {
    mBoard.CountBlock(device.state.id, service, bytes.size());
    auto block = std::make_shared<Block>();
    block->device = device.state.id;
    block->service = service;
    block->number = number;
    block->received = std::chrono::system_clock::now();
    block->arrived = std::chrono::steady_clock::now();
    block->bytes = std::move(bytes);
    const BlockPointer shared = std::move(block);
    const auto consumers = device.consumers.find(service);
    if (consumers == device.consumers.end()) {
        return;
    }
    for (const std::shared_ptr<ConsumerEntry>& entry : consumers->second) {
        entry->gate.Run([&] { entry->consumer->Push(shared); });
    }
}

// ---- What listeners are told

void Hub::Publish(Device& device) {
    DeviceState& state = device.state;
    state.channel = device.link->State();
    state.trouble = device.link->Trouble();
    state.identity = device.link->Identity();
    state.reconnects = device.link->Reconnects();
    if (!device.link->Version().empty()) {
        state.version = device.link->Version();
    }
    mBoard.Set(state);
    Tell(DeviceEvent::Kind::CHANGED, state);
}

// A listener may add others.
void Hub::Tell(DeviceEvent::Kind kind, const DeviceState& device) {
    for (const std::shared_ptr<ListenerEntry>& entry :
         std::vector<std::shared_ptr<ListenerEntry>>(mListeners)) {
        entry->gate.Run([&] { entry->listener({kind, device}); });
    }
}

}  // namespace lumora_hub
