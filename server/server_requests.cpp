// The server module's answers to the requests of clients, and to devices that leave the network.
#include <algorithm>
#include <chrono>
#include <utility>

#include "library/callback_scope.h"
#include "library/log.h"
#include "protocol/control_documents.h"
#include "securec.h"
#include "server/server_module.h"

namespace lumoraAiModule {

using lumora::MutexLock;

namespace {

bool Contains(const std::vector<unsigned int>& ids, int clientID) {
    return std::find(ids.begin(), ids.end(), static_cast<unsigned int>(clientID)) != ids.end();
}

constexpr char ON_COAP_POST[] = "OnCoapPost";

// Any host can send requests, so the tables are bounded. Real clients stay far below these limits.
constexpr std::size_t MAX_CONNECTIONS = 1024;
constexpr std::size_t MAX_SUBSCRIBERS = 1024;

// A client that leaves may have sent faster than the application takes its blocks. So long they are still
// handed over. If the platform has one thread for all requests, the others wait meanwhile, 8 s before their
// clients give up.
constexpr std::chrono::milliseconds GOODBYE_LIMIT{7000};
// Connections are counted: a client that connected twice has to leave twice.
void EraseFirst(std::vector<unsigned int>& ids, int clientID) {
    ids.erase(std::find(ids.begin(), ids.end(), static_cast<unsigned int>(clientID)));
}

// A copy, because sends may be reading the published list at this moment. If memory runs out, the exception
// fails the request and the subscription stays.
std::shared_ptr<LumoraServiceManager> Without(const LumoraServiceManager& service, int clientID) {
    auto next = std::make_shared<LumoraServiceManager>(service);
    EraseFirst(next->mClientIds, clientID);
    return next;
}

}  // namespace

// An unknown key succeeds, and the reply is the value of the request: success does not prove that a device
// knows a key. Our transports report UNKNOWN. It counts as free, so that clients do not wait.
int LumoraServerModule::OnCoapGet(const std::string& key, std::string& reply) {
    const MutexLock lock(mMutex);
    LUMORA_TRACE("Enter\n");
    if (key == SERVICE_INFO_KEY) {
        reply = mLocalServiceInfo;
    } else if (key == TRANS_STATUS_KEY) {
        LUM_TRANSPORT_STATUS_E status = LUM_TRANSPORT_STATUS_FREE;
        const std::shared_ptr<LumoraTransManager> transport = mPublication.Current().mTransManager;
        if (transport != nullptr && transport->GetTransStatus(status) == -1) {
            LUMORA_ERROR("GetTransStatus failed!\n");
            return -1;
        }
        reply = status == LUM_TRANSPORT_STATUS_BUSY ? TRANSPORT_BUSY_REPLY : TRANSPORT_FREE_REPLY;
    } else if (key == GET_VERSION_KEY) {
        if (mSources.getVersion(reply) != 0) {
            LUMORA_ERROR("GetVersion failed!\n");
            return -1;
        }
    }
    LUMORA_TRACE("Out\n");
    return 0;
}

// Any host may stop the channel: a client that lost its own half asks for this before it has another one.
int LumoraServerModule::OnCoapPut(const std::string& key, const std::string&) {
    const MutexLock lock(mMutex);
    LUMORA_TRACE("Enter\n");
    LUMORA_DETAIL("cmd:%s\n", key.c_str());
    if (key == STOP_TRANSPORT_KEY && (!AwaitChannel("OnCoapPut") || !MayChangeChannel("OnCoapPut") ||
                                      StopTransport("OnCoapPut", Rest::ALL, GOODBYE_LIMIT) != 0)) {
        return -1;
    }
    LUMORA_TRACE("Out\n");
    return 0;
}

// std::stoi takes the digits that the text begins with and ignores what follows. Nothing proves the number:
// it is what the peer wrote.
int LumoraServerModule::OnCoapPost(const std::string& key, const std::string& value) {
    const MutexLock lock(mMutex);
    LUMORA_TRACE("Enter\n");
    LUMORA_STATE("Received coap request: [cmd:%s, value:%s].\n", key.c_str(), value.c_str());
    int ret = 0;
    if (key == COMMAND_KEY) {
        return HandleCommand(value);
    }
    if (key == DESTROY_KEY && !AwaitChannel(ON_COAP_POST)) {
        return -1;
    }
    if ((key == DESTROY_KEY || key == CONNECT_KEY) && !MayChangeChannel(ON_COAP_POST)) {
        return -1;
    }
    // stoi throws if the value is not a number; the registry turns that into a failed request.
    if (key == DESTROY_KEY) {
        ret = HandleDestroy(std::stoi(value));
    } else if (key == CONNECT_KEY) {
        const int clientID = std::stoi(value);
        RememberClient(clientID);
        LUMORA_DETAIL("client %d  on us!\n", clientID);
    }
    if (ret != 0) {
        return ret;
    }
    LUMORA_TRACE("Out\n");
    return 0;
}

int LumoraServerModule::OnCoapDelete(const std::string&, const std::string&) {
    const MutexLock lock(mMutex);
    return 0;
}

// Callbacks run with mMutex held, so the next request waits. If the application has registered nothing, the
// request succeeds and the command is lost.
int LumoraServerModule::HandleCommand(const std::string& value) {
    CommandParam param;
    if (memset_s(&param, sizeof(param), 0, sizeof(param)) != 0) {
        LUMORA_LOG_AS(lumora::LOG_ERROR, ON_COAP_POST, "memset_s failed!\n");
        return -1;
    }
    int clientID = 0;
    std::string cmd;
    if (ParseJsonCmd(value, &clientID, &cmd, &param) != 0) {
        LUMORA_LOG_AS(lumora::LOG_ERROR, ON_COAP_POST, "ParseJsonCmd failed!\n");
        return -1;
    }
    if (mDevInfo.OnCommand == nullptr || mDevInfo.OnEventNotify == nullptr) {
        LUMORA_LOG_AS(lumora::LOG_ERROR, ON_COAP_POST, "User register mDevInfo error!\n");
        return 0;
    }
    const LUM_SUBSCRIBE_SERVICE_S& subscription = param.subscription;
    if ((cmd == SUBSCRIBE_COMMAND || cmd == UNSUBSCRIBE_COMMAND) && !MayChangeChannel(ON_COAP_POST)) {
        return -1;
    }
    if (cmd == SUBSCRIBE_COMMAND) {
        if (ProcessSubscribe(clientID, subscription) != 0) {
            LUMORA_LOG_AS(lumora::LOG_ERROR, ON_COAP_POST, "Process Subscribe %s failed\n",
                          subscription.serviceName);
            return -1;
        }
    } else if (cmd == UNSUBSCRIBE_COMMAND) {
        if (ProcessUnSubscribe(clientID, subscription) != 0) {
            LUMORA_LOG_AS(lumora::LOG_ERROR, ON_COAP_POST, "Process UnSubscribe %s failed\n",
                          subscription.serviceName);
            return -1;
        }
    } else {
        const lumora::CallbackScope scope(lumora::Side::SERVER);
        mDevInfo.OnCommand(cmd.c_str(), param.text);
        return 0;
    }
    LUMORA_LOG_AS(lumora::LOG_TRACE, ON_COAP_POST, "Out\n");
    return 0;
}

// Each Connect adds an entry, even without a Destroy. When full, drop this client's older entry, or the
// oldest.
void LumoraServerModule::RememberClient(int clientID) {
    if (mClientList.size() >= MAX_CONNECTIONS) {
        const auto earlier =
            std::find(mClientList.begin(), mClientList.end(), static_cast<unsigned int>(clientID));
        mClientList.erase(earlier != mClientList.end() ? earlier : mClientList.begin());
    }
    mClientList.push_back(static_cast<unsigned int>(clientID));
}

int LumoraServerModule::HandleDestroy(int clientID) {
    if (!Contains(mClientList, clientID)) {
        LUMORA_LOG_AS(lumora::LOG_ERROR, ON_COAP_POST, "No such clientID : %d connect on us!!\n", clientID);
        return -1;
    }
    EraseFirst(mClientList, clientID);
    LUMORA_LOG_AS(lumora::LOG_STATE, ON_COAP_POST, "There are %d clients connected.\n",
                  static_cast<int>(mClientList.size()));
    if (ClearOneServerInfo(clientID) != 0) {
        LUMORA_LOG_AS(lumora::LOG_ERROR, ON_COAP_POST, "ClearOneServerInfo : %d failed!!\n", clientID);
        return -1;
    }
    return 0;
}

// Published before the application is told, because it may send as soon as OnEventNotify runs, and the first
// block must reach this client. A repeated subscription succeeds without a second notice.
int LumoraServerModule::ProcessSubscribe(int clientID, const LUM_SUBSCRIBE_SERVICE_S& record) {
    const auto service = mPublication.Current().FindService(record.serviceName);
    if (service == nullptr) {
        LUMORA_ERROR("Device can't support %s service\n", record.serviceName);
        return -1;
    }
    if (Contains(service->mClientIds, clientID)) {
        LUMORA_STATE("Client[%d] has subscribed %s service.\n", clientID, record.serviceName);
        return 0;
    }
    if (service->mClientIds.size() >= MAX_SUBSCRIBERS) {
        LUMORA_ERROR("%s has too many subscribers\n", record.serviceName);
        return -1;
    }
    auto next = std::make_shared<LumoraServiceManager>(*service);
    next->mClientIds.push_back(static_cast<unsigned int>(clientID));
    mPublication.SetService(record.serviceName, std::move(next));
    LUMORA_DETAIL("clientID = %d is stored in %s space!\n", clientID, record.serviceName);
    return NotifyApplication(__func__, clientID, LUM_NOTIFY_SUBSCRIBED, record);
}

int LumoraServerModule::ProcessUnSubscribe(int clientID, const LUM_SUBSCRIBE_SERVICE_S& record) {
    const auto service = mPublication.Current().FindService(record.serviceName);
    if (service == nullptr) {
        LUMORA_ERROR("Device can't support %s service\n", record.serviceName);
        return -1;
    }
    if (!Contains(service->mClientIds, clientID)) {
        LUMORA_ERROR("Client : %d has not subscribed %s service!!\n", clientID, record.serviceName);
        return -1;
    }
    mPublication.SetService(record.serviceName, Without(*service, clientID));
    return NotifyApplication(__func__, clientID, LUM_NOTIFY_UNSUBSCRIBED, record);
}

int LumoraServerModule::NotifyApplication(const char* operation, int clientID, int event,
                                          const LUM_SUBSCRIBE_SERVICE_S& record) {
    LUM_SUBSCRIBE_SERVICE_S copy = {};
    if (memcpy_s(&copy, sizeof(copy), &record, sizeof(record)) != 0) {
        LUMORA_LOG_AS(lumora::LOG_ERROR, operation, "memcpy_s failed\n");
        return -1;
    }
    CallOnEventNotify(clientID, event, copy);
    return 0;
}

void LumoraServerModule::CallOnEventNotify(int clientID, int event, const LUM_SUBSCRIBE_SERVICE_S& record) {
    if (mDevInfo.OnEventNotify != nullptr) {
        const lumora::CallbackScope scope(lumora::Side::SERVER);
        mDevInfo.OnEventNotify(clientID, event, record);
    }
}

// Walks through the state as it was at the beginning, because each change publishes another one. The callback
// runs before the change: a block that is sent at that time still goes to this client. When the last client
// has gone, the channel is closed, because no client reads it any more.
int LumoraServerModule::ClearOneServerInfo(int clientID) {
    LUMORA_TRACE("Enter\n");
    LUMORA_STATE("Client[%d] will be cleared.\n", clientID);
    LUM_SUBSCRIBE_SERVICE_S record = {};
    const Published published = mPublication.Current();
    const ServiceMap none;
    for (const auto& [serviceName, service] :
         published.mServiceMap != nullptr ? *published.mServiceMap : none) {
        if (!Contains(service->mClientIds, clientID)) {
            continue;
        }
        if (strncpy_s(record.serviceName, sizeof(record.serviceName), serviceName.c_str(),
                      serviceName.length()) != 0) {
            LUMORA_ERROR("strncpy_s failed\n");
            return -1;
        }
        CallOnEventNotify(clientID, LUM_NOTIFY_UNSUBSCRIBED, record);
        LUMORA_DETAIL("will erase clientID = %d is stored in %s space!\n", clientID, serviceName.c_str());
        mPublication.SetService(serviceName, Without(*service, clientID));
    }
    LUMORA_STATE("There are %d clients connected.\n", static_cast<int>(mClientList.size()));
    if (mClientList.empty()) {
        LUMORA_STATE("No client connected, the transport will be stopped.\n");
        if (StopTransport(__func__, Rest::ALL, GOODBYE_LIMIT) != 0) {
            return -1;
        }
    }
    LUMORA_TRACE("Out\n");
    return 0;
}

int LumoraServerModule::OnAddDevice(unsigned int, const std::string&, int, const std::string&) { return 0; }

// The address is compared without mMutex, so that events about other hosts do not wait for a request in
// progress, and again after a wait: another client may have taken the channel over. One channel serves all
// clients of a host, so all of them are taken for gone. mClientList is cleared after the walk: nothing in the
// walk may change it.
int LumoraServerModule::OnRemoveDevice(unsigned int, const std::string& addr, int port, const std::string&) {
    LUMORA_TRACE("Enter\n");
    if (addr != mPublication.RemoteAddress()) {
        LUMORA_TRACE("Out\n");
        return 0;
    }
    const MutexLock lock(mMutex);
    if (!AwaitChannel(__func__)) {
        return -1;
    }
    if (addr != mPublication.RemoteAddress() || (mOwner && port != mOwnerPort)) {
        LUMORA_TRACE("Out\n");
        return 0;  // another client's channel, or another node on the client's host
    }
    LUMORA_STATE("The transport will be destoried while removing device.\n");
    for (const unsigned int clientID : mClientList) {
        ClearOneServerInfo(static_cast<int>(clientID));
    }
    mClientList.clear();
    if (StopTransport(__func__, Rest::ALL, GOODBYE_LIMIT) != 0) {
        return -1;
    }
    LUMORA_TRACE("Out\n");
    return 0;
}

}  // namespace lumoraAiModule
