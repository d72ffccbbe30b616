// The application clients of this process.
#pragma once

#include <array>
#include <map>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "base/mutex.h"
#include "lumora.h"
#include "protocol/data_frame.h"

namespace lumoraAiModule {

// One application client.
struct LumoraClientManager {
    LUM_EVENT_CALLBACK eventCallback = nullptr;
    unsigned int connectedHandle = 0;  // 0 when not connected
};

// One client that a frame is addressed to, as it was registered when the frame's delivery began.
struct Recipient {
    int clientID = 0;
    LUM_DEVICE_EVENT_CALLBACK callback = nullptr;  // null: the client has registered none
    std::optional<unsigned int> handle;            // none: there is no such client
};

struct Recipients {
    std::array<Recipient, MAX_FRAME_CLIENTS> entries;
    unsigned int count = 0;
};

// What delivery needs to know of the clients, apart from everything else: the lock inside is a leaf, is held
// for a look-up or a change only, and so delivery waits for no request, search or connect.
class ClientRegistry {
public:
    // Keeps an existing client as it is. False when memory ran out.
    bool Add(int clientID);
    // Forgets the client and its callbacks. False when there is no such client.
    bool Remove(int clientID);
    bool Has(int clientID);
    void Clear();
    void ClearDeviceCallbacks();

    // False when there is no such client.
    bool SetEventCallback(int clientID, LUM_EVENT_CALLBACK callback);
    // The first callback of a client stays.
    void AddDeviceCallback(int clientID, LUM_DEVICE_EVENT_CALLBACK callback);

    // None when there is no such client.
    std::optional<unsigned int> ConnectedHandle(int clientID);
    // Whether a client other than this one is connected to handle.
    bool IsConnectedBeside(int clientID, unsigned int handle);
    // False when there is no such client.
    bool SetConnectedHandle(int clientID, unsigned int handle);
    // The clients that were connected to handle are no longer connected. Returns them in ascending order,
    // each with its event callback, which is null if it has registered none.
    using Disconnected = std::vector<std::pair<int, LUM_EVENT_CALLBACK>>;
    Disconnected DisconnectAll(unsigned int handle);

    // Looks up all recipients in one step: what happens to a client later changes nothing for this frame.
    Recipients RecipientsOf(const ServerFrame& frame);

    std::size_t Size();

private:
    LumoraClientManager* Find(int clientID) REQUIRES(mMutex);

    lumora::Mutex mMutex;  // a leaf lock
    std::map<unsigned int, std::shared_ptr<LumoraClientManager>> mClientManagerMap GUARDED_BY(mMutex);
    std::map<int, LUM_DEVICE_EVENT_CALLBACK> mDeviceEventMap GUARDED_BY(mMutex);
};

}  // namespace lumoraAiModule
