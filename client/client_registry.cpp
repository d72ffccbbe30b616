#include "client/client_registry.h"

#include <utility>

#include "base/make_shared.h"

namespace lumoraAiModule {

using lumora::MutexLock;

bool ClientRegistry::Add(int clientID) {
    const MutexLock lock(mMutex);
    if (Find(clientID) != nullptr) {
        return true;
    }
    auto client = lumora::MakeSharedOrNull<LumoraClientManager>();
    if (client == nullptr) {
        return false;
    }
    mClientManagerMap[static_cast<unsigned int>(clientID)] = std::move(client);
    return true;
}

bool ClientRegistry::Remove(int clientID) {
    const MutexLock lock(mMutex);
    if (mClientManagerMap.erase(static_cast<unsigned int>(clientID)) == 0) {
        return false;
    }
    mDeviceEventMap.erase(clientID);
    return true;
}

bool ClientRegistry::Has(int clientID) {
    const MutexLock lock(mMutex);
    return Find(clientID) != nullptr;
}

void ClientRegistry::Clear() {
    const MutexLock lock(mMutex);
    mClientManagerMap.clear();
}

void ClientRegistry::ClearDeviceCallbacks() {
    const MutexLock lock(mMutex);
    mDeviceEventMap.clear();
}

bool ClientRegistry::SetEventCallback(int clientID, LUM_EVENT_CALLBACK callback) {
    const MutexLock lock(mMutex);
    LumoraClientManager* client = Find(clientID);
    if (client == nullptr) {
        return false;
    }
    client->eventCallback = callback;
    return true;
}

// emplace, not assignment: the first callback stays, and a later registration succeeds without effect, as
// lumora.h says.
void ClientRegistry::AddDeviceCallback(int clientID, LUM_DEVICE_EVENT_CALLBACK callback) {
    const MutexLock lock(mMutex);
    mDeviceEventMap.emplace(clientID, callback);
}

std::optional<unsigned int> ClientRegistry::ConnectedHandle(int clientID) {
    const MutexLock lock(mMutex);
    const LumoraClientManager* client = Find(clientID);
    return client != nullptr ? std::optional<unsigned int>(client->connectedHandle) : std::nullopt;
}

bool ClientRegistry::IsConnectedBeside(int clientID, unsigned int handle) {
    const MutexLock lock(mMutex);
    for (const auto& [otherID, client] : mClientManagerMap) {
        if (otherID != static_cast<unsigned int>(clientID) && client->connectedHandle == handle) {
            return true;
        }
    }
    return false;
}

bool ClientRegistry::SetConnectedHandle(int clientID, unsigned int handle) {
    const MutexLock lock(mMutex);
    LumoraClientManager* client = Find(clientID);
    if (client == nullptr) {
        return false;
    }
    client->connectedHandle = handle;
    return true;
}

ClientRegistry::Disconnected ClientRegistry::DisconnectAll(unsigned int handle) {
    Disconnected disconnected;
    const MutexLock lock(mMutex);
    disconnected.reserve(mClientManagerMap.size());  // throws, if at all, before anything has changed
    for (const auto& [clientID, client] : mClientManagerMap) {
        if (client->connectedHandle == handle) {
            client->connectedHandle = 0;
            disconnected.emplace_back(static_cast<int>(clientID), client->eventCallback);
        }
    }
    return disconnected;
}

// A device may name any IDs, also such as this process has never given out, and the same one twice. The array
// has room for all that ReadServerFrame lets pass.
Recipients ClientRegistry::RecipientsOf(const ServerFrame& frame) {
    Recipients recipients;
    const MutexLock lock(mMutex);
    for (; recipients.count < frame.clientNum; ++recipients.count) {
        Recipient& recipient = recipients.entries[recipients.count];
        recipient.clientID = frame.clientIDs[recipients.count];
        const auto registered = mDeviceEventMap.find(recipient.clientID);
        if (registered != mDeviceEventMap.end()) {
            recipient.callback = registered->second;
        }
        if (const LumoraClientManager* client = Find(recipient.clientID)) {
            recipient.handle = client->connectedHandle;
        }
    }
    return recipients;
}

std::size_t ClientRegistry::Size() {
    const MutexLock lock(mMutex);
    return mClientManagerMap.size();
}

LumoraClientManager* ClientRegistry::Find(int clientID) {
    const auto found = mClientManagerMap.find(static_cast<unsigned int>(clientID));
    return found != mClientManagerMap.end() ? found->second.get() : nullptr;
}

}  // namespace lumoraAiModule
