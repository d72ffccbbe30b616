#include "transport/transport_manager.h"

#include "base/json.h"
#include "base/log.h"
#include "base/make_shared.h"
#include "transport/tcp_client_transport.h"
#include "transport/tcp_server_transport.h"

namespace lumoraAiModule {

namespace {

// Parsing accepts values that the factory does not serve. The request of a client that asks for one fails for
// want of a transport, and not as damaged.
constexpr int LAST_TRANSPORT = LUM_TRANSPORT_RESERVED_5;

int NotCallable(const char* operation) {
    LUMORA_DETAIL("Can't be called :%s \n", operation);
    return 0;
}

// Whether the protocol is served, and what the log says of the choice.
// UDP falls through to RTP's message as well: scripts that watch the log look for both lines.
bool IsCarriedOverTcp(LUM_TRANSPORT_E protocol) {
    switch (static_cast<int>(protocol)) {
        case LUM_TRANSPORT_UDP:
            LUMORA_DETAIL("UDP not support, we will use TCP\n");
            [[fallthrough]];
        case LUM_TRANSPORT_RTP:
            LUMORA_DETAIL("RTP not support, we will use TCP\n");
            [[fallthrough]];
        case LUM_TRANSPORT_TCP:
            LUMORA_DETAIL("we will create LumoraTCPTransManager\n");
            return true;
        default:
            return false;
    }
}

}  // namespace

int LumoraTransManager::CreateTransports(TransType, const std::string&, int, LUM_OBSERVER_S&) {
    return NotCallable("CreateTransports");
}
int LumoraTransManager::DestoryTransports() { return NotCallable("DestoryTransports"); }
int LumoraTransManager::StartTransports(TransType) { return NotCallable("StartTransports"); }
int LumoraTransManager::StopTransports() { return NotCallable("StopTransports"); }
int LumoraTransManager::GetTransStatus(LUM_TRANSPORT_STATUS_E&) { return NotCallable("GetTransStatus"); }
int LumoraTransManager::SendData(const void*, unsigned int, unsigned int*, unsigned int) {
    return NotCallable("SendData");
}
int LumoraTransManager::SendFrame(const FrameParts&, unsigned int*, unsigned int) {
    return NotCallable("SendFrame");
}

std::shared_ptr<LumoraTransManager> LumoraTransManagerFactory::CreateTransportsManager(
    LUM_TRANSPORT_E protocol, LumoraTransCallback& callback, unsigned int handle) {
    if (!IsCarriedOverTcp(protocol)) {
        return nullptr;
    }
    return lumora::MakeSharedOrNull<LumoraTCPTransClient>(callback, handle);
}

std::shared_ptr<LumoraTransManager> LumoraTransManagerFactory::CreateTransportsManager(
    LUM_TRANSPORT_E protocol) {
    if (!IsCarriedOverTcp(protocol)) {
        return nullptr;
    }
    return lumora::MakeSharedOrNull<LumoraTCPTransServer>();
}

int LumoraTransManagerFactory::ParseTransportsProtocol(const std::string& setupString,
                                                       LUM_TRANSPORT_E& protocol) {
    LUMORA_DETAIL("setupString.data() = %s\n", setupString.c_str());
    const lumora::JsonTree root = lumora::ParseJson(setupString);
    if (root == nullptr) {
        LUMORA_ERROR("root == nullptr\n");
        return -1;
    }
    const cJSON* p = cJSON_GetObjectItem(root.get(), "p");
    if (p == nullptr) {
        LUMORA_ERROR("p == nullptr\n");
        return -1;
    }
    if (!cJSON_IsNumber(p)) {
        LUMORA_ERROR("type is not cJSON_Number \n");
        return -1;
    }
    if (p->valueint < 0 || p->valueint > LAST_TRANSPORT) {
        LUMORA_ERROR("Transports protocol is illegal!\n");
        return -1;
    }
    protocol = static_cast<LUM_TRANSPORT_E>(p->valueint);
    return 0;
}

std::shared_ptr<LumoraTransManagerFactory> CreateLumTransManagerFactory() {
    return lumora::MakeSharedOrNull<LumoraTransManagerFactory>();
}

}  // namespace lumoraAiModule
