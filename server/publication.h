// What requests decide and sends need: the data channel, the services with their subscribers, and the
// client's address.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "base/mutex.h"
#include "transport/transport_manager.h"

namespace lumoraAiModule {

// The subscribers of one service, in the order in which they subscribed, each at most once.
struct LumoraServiceManager {
    std::vector<unsigned int> mClientIds;
};

using ServiceMap = std::map<std::string, std::shared_ptr<const LumoraServiceManager>>;

// One consistent state. It never changes: a change publishes another one.
struct Published {
    std::shared_ptr<LumoraTransManager> mTransManager;  // null until a client sets one up
    std::shared_ptr<const ServiceMap> mServiceMap;      // null until services are registered

    // Null when there is no such service.
    std::shared_ptr<const LumoraServiceManager> FindService(const std::string& serviceName) const {
        if (mServiceMap == nullptr) {
            return nullptr;
        }
        const auto found = mServiceMap->find(serviceName);
        return found != mServiceMap->end() ? found->second : nullptr;
    }
};

// A send copies the current state once and works with that copy, so sends and requests do not wait for each
// other. The lock is held for a swap or a copy, never across a call to the outside. Withdrawing needs no
// memory.
class Publication {
public:
    Published Current() {
        const lumora::MutexLock lock(mMutex);
        return mPublished;
    }
    void SetTransport(std::shared_ptr<LumoraTransManager> transport) {
        const lumora::MutexLock lock(mMutex);
        mPublished.mTransManager.swap(transport);  // the former one is released after the lock
    }
    void SetServices(std::shared_ptr<const ServiceMap> services) {
        const lumora::MutexLock lock(mMutex);
        mPublished.mServiceMap.swap(services);
    }
    // Replaces one service. Changes come from one thread at a time.
    void SetService(const std::string& serviceName, std::shared_ptr<const LumoraServiceManager> service) {
        const Published current = Current();
        auto services = current.mServiceMap != nullptr ? std::make_shared<ServiceMap>(*current.mServiceMap)
                                                       : std::make_shared<ServiceMap>();
        (*services)[serviceName] = std::move(service);
        SetServices(std::move(services));
    }

    // The address of the client that last set up a transport.
    std::string RemoteAddress() {
        const lumora::MutexLock lock(mMutex);
        return mRemoteAddress;
    }
    void SetRemoteAddress(const std::string& address) {
        const lumora::MutexLock lock(mMutex);
        mRemoteAddress = address;
    }

private:
    lumora::Mutex mMutex;  // a leaf lock
    Published mPublished GUARDED_BY(mMutex);
    std::string mRemoteAddress GUARDED_BY(mMutex);
};

}  // namespace lumoraAiModule
