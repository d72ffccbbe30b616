#include "protocol/control_documents.h"

#include <cstddef>
#include <cstring>

#include "library/bounded_text.h"
#include "library/log.h"
#include "library/transport_kind.h"
#include "securec.h"

namespace lumoraAiModule {

const char* const COMMAND_KEY = "Command";
const char* const SERVICE_INFO_KEY = "ServiceInfo";
const char* const TRANS_STATUS_KEY = "TransStatus";
const char* const STOP_TRANSPORT_KEY = "StopTransport";
const char* const CONNECT_KEY = "Connect";
const char* const DESTROY_KEY = "Destroy";
const char* const GET_VERSION_KEY = "GetVersion";

const char* const SUBSCRIBE_COMMAND = "subscribe";
const char* const UNSUBSCRIBE_COMMAND = "unsubscribe";

const char* const SERVICE_INFO_VALUE = "Lum_RA";

const char* const TRANSPORT_BUSY_REPLY = "busy";
const char* const TRANSPORT_FREE_REPLY = "free";
const char* const SETUP_SUCCESS_REPLY = "Succ";

std::string SetupReply(const std::string& answer) {
    return answer.empty() ? SETUP_SUCCESS_REPLY
                          : std::string(R"({"r":")") + SETUP_SUCCESS_REPLY + R"(","sec":)" + answer + "}";
}

std::string AnswerInReply(const std::string& reply) {
    std::string answer;
    const lumora::JsonTree root = lumora::ParseJson(reply);
    const cJSON* result = cJSON_GetObjectItemCaseSensitive(root.get(), "r");
    const cJSON* item = cJSON_GetObjectItemCaseSensitive(root.get(), "sec");
    if (cJSON_IsString(result) && std::strcmp(result->valuestring, SETUP_SUCCESS_REPLY) == 0 &&
        cJSON_IsObject(item)) {
        lumora::PrintJson(item, answer);
    }
    return answer;
}

namespace {

// What the log calls the operations that the helpers below are pieces of.
constexpr char GET_JSON_CMD[] = "GetJsonCmd";
constexpr char PARSE_JSON_CMD[] = "ParseJsonCmd";

constexpr int LAST_DATA_SOURCE = 1;
constexpr int LAST_TRANSPORT = LUM_TRANSPORT_RESERVED_5;

bool IsDataSource(int value) { return value >= 0 && value <= LAST_DATA_SOURCE; }
bool IsTransport(int value) { return value >= 0 && value <= LAST_TRANSPORT; }

std::string ServiceKey(unsigned int index) { return "service" + std::to_string(index); }

// The fields are written and checked in turn: the first illegal one decides which message is logged.
int AddSubscription(cJSON* root, const LUM_SUBSCRIBE_SERVICE_S& subscription) {
    cJSON* object = lumora::AddJsonObject(root, SUBSCRIBE_COMMAND);
    if (object == nullptr) {
        LUMORA_LOG_AS(lumora::LOG_ERROR, GET_JSON_CMD, "cJSON_CreateObject failed\n");
        return -1;
    }
    const std::size_t length =
        lumora::NameLength(&subscription, offsetof(LUM_SUBSCRIBE_SERVICE_S, serviceName));
    if (length == 0 || length > LUM_MAX_SERVICE_NAME_LENGTH) {
        LUMORA_LOG_AS(lumora::LOG_ERROR, GET_JSON_CMD, "ERROR:subscribe serviceName length illegal.\n");
        return -1;
    }
    const std::string serviceName = lumora::NameText(subscription.serviceName);
    if (cJSON_AddStringToObject(object, "Service", serviceName.c_str()) == nullptr) {
        return -1;
    }
    if (!IsDataSource(subscription.dataSource)) {
        LUMORA_LOG_AS(lumora::LOG_ERROR, GET_JSON_CMD, "ERROR:dataSource illegal.\n");
        return -1;
    }
    if (cJSON_AddNumberToObject(object, "DataSource", subscription.dataSource) == nullptr) {
        return -1;
    }
    if (!IsTransport(subscription.transport)) {
        LUMORA_LOG_AS(lumora::LOG_ERROR, GET_JSON_CMD, "ERROR:transport illegal.\n");
        return -1;
    }
    return cJSON_AddNumberToObject(object, "TrasType", subscription.transport) != nullptr ? 0 : -1;
}

// The caller's record may stand at any address, because it arrives as text: it is copied before its integers
// are read.
int AddSubscriptionParam(cJSON* root, const char* param) {
    LUM_SUBSCRIBE_SERVICE_S subscription;
    std::memcpy(&subscription, param, sizeof(subscription));
    return AddSubscription(root, subscription);
}

}  // namespace

// "ClientID" here and "clientID" in ParseJsonCmd are the same member: cJSON compares keys without regard to
// case, and both ends rely on it. A failure leaves document as it was.
int GetJsonCmd(int clientID, const char* cmd, const char* param, std::string& document) {
    if (cmd == nullptr) {
        LUMORA_ERROR("cmd is null!\n");
        return -1;
    }
    if (param == nullptr) {
        LUMORA_ERROR("param is null!\n");
        return -1;
    }
    const lumora::JsonTree root(cJSON_CreateObject());
    if (root == nullptr) {
        LUMORA_ERROR("cJSON_CreateObject failed\n");
        return -1;
    }
    if (cJSON_AddNumberToObject(root.get(), "ClientID", clientID) == nullptr ||
        cJSON_AddStringToObject(root.get(), "cmd", cmd) == nullptr) {
        return -1;
    }
    if (std::strcmp(cmd, SUBSCRIBE_COMMAND) == 0) {
        if (AddSubscriptionParam(root.get(), param) != 0) {
            return -1;
        }
    } else if (cJSON_AddStringToObject(root.get(), "param", param) == nullptr) {
        return -1;
    }
    return lumora::PrintJson(root.get(), document) ? 0 : -1;
}

// The text comes from any host. Numbers outside of int are taken by cJSON for the nearest int, so the range
// checks see them. A wrong data source logs the message of the transport; scripts that watch the log know it
// so.
int ParseSubscribeJson(const cJSON* root, const std::string& cmd, LUM_SUBSCRIBE_SERVICE_S* subscription) {
    const cJSON* object = cJSON_GetObjectItem(root, cmd.c_str());
    if (!cJSON_IsObject(object)) {
        LUMORA_ERROR("cJSON_GetObjectItem service failed\n");
        return -1;
    }
    const cJSON* service = cJSON_GetObjectItem(object, "Service");
    const cJSON* transport = cJSON_GetObjectItem(object, "TrasType");
    const cJSON* dataSource = cJSON_GetObjectItem(object, "DataSource");
    if (!cJSON_IsString(service) || !cJSON_IsNumber(transport) || !cJSON_IsNumber(dataSource)) {
        LUMORA_ERROR("cJSON_GetObjectItem  failed\n");
        return -1;
    }
    if (strncpy_s(subscription->serviceName, sizeof(subscription->serviceName), service->valuestring,
                  std::strlen(service->valuestring)) != 0) {
        LUMORA_ERROR("strncpy_s failed\n");
        return -1;
    }
    subscription->transport = transport->valueint;
    if (!IsTransport(subscription->transport)) {
        LUMORA_ERROR("transport is illegal!\n");
        return -1;
    }
    subscription->dataSource = dataSource->valueint;
    if (!IsDataSource(subscription->dataSource)) {
        LUMORA_ERROR("transport is illegal!\n");
        return -1;
    }
    return 0;
}

namespace {

// Copies the text parameter of a command other than "subscribe".
// A missing parameter, or one that is not text, counts as empty: clients send commands without one.
int CopyParam(const cJSON* root, const std::string& cmd, CommandParam* param) {
    const cJSON* item = cJSON_GetObjectItem(root, "param");
    if (!cJSON_IsString(item)) {
        return 0;
    }
    const std::size_t length = std::strlen(item->valuestring);
    if (cmd == UNSUBSCRIBE_COMMAND) {
        if (strncpy_s(param->subscription.serviceName, LUM_NAME_SIZE, item->valuestring, length) != 0) {
            LUMORA_LOG_AS(lumora::LOG_ERROR, PARSE_JSON_CMD, "strncpy_s serviceName failed, len = %d\n",
                          static_cast<int>(length));
            return -1;
        }
        return 0;
    }
    if (strncpy_s(param->text, COMMAND_PARAM_SIZE, item->valuestring, length) != 0) {
        LUMORA_LOG_AS(lumora::LOG_ERROR, PARSE_JSON_CMD, "strncpy_s param failed, len = %d\n",
                      static_cast<int>(length));
        return -1;
    }
    return 0;
}

}  // namespace

int ParseJsonCmd(const std::string& value, int* clientID, std::string* cmd, CommandParam* param) {
    const lumora::JsonTree root = lumora::ParseJson(value);
    if (root == nullptr) {
        LUMORA_ERROR("cJSON_Parse failed!\n");
        return -1;
    }
    const cJSON* cmdItem = cJSON_GetObjectItem(root.get(), "cmd");
    const cJSON* clientItem = cJSON_GetObjectItem(root.get(), "clientID");
    if (!cJSON_IsString(cmdItem) || !cJSON_IsNumber(clientItem)) {
        return -1;
    }
    *clientID = clientItem->valueint;
    *cmd = cmdItem->valuestring;
    if (*cmd == SUBSCRIBE_COMMAND) {
        return ParseSubscribeJson(root.get(), *cmd, &param->subscription);
    }
    return CopyParam(root.get(), *cmd, param);
}

int GetServiceInfoString(const std::string& devServiceType, const std::vector<LUM_SERVICE_INFO_S>& services,
                         std::string& document) {
    const lumora::JsonTree root(cJSON_CreateObject());
    if (root == nullptr ||
        cJSON_AddStringToObject(root.get(), "DevServiceType", devServiceType.c_str()) == nullptr ||
        cJSON_AddNumberToObject(root.get(), "ServiceNum", static_cast<double>(services.size())) == nullptr) {
        return -1;
    }
    unsigned int index = 0;
    for (const LUM_SERVICE_INFO_S& service : services) {
        cJSON* object = lumora::AddJsonObject(root.get(), ServiceKey(index++));
        const std::string name = lumora::NameText(service.serviceName);
        if (object == nullptr || cJSON_AddStringToObject(object, "Name", name.c_str()) == nullptr ||
            cJSON_AddNumberToObject(object, "transport", lumora::TransportKind(service)) == nullptr ||
            cJSON_AddNumberToObject(object, "output-len-bytes", service.outputLenBytes) == nullptr) {
            return -1;
        }
    }
    return lumora::PrintJson(root.get(), document) ? 0 : -1;
}

// The text comes from any host that says it is a device. A negative count becomes a large one and is refused
// with the others.
int ParseServiceInfoString(const std::string& document, LUM_DEVICE_INFO_S* devInfo) {
    const lumora::JsonTree root = lumora::ParseJson(document);
    if (root == nullptr) {
        LUMORA_ERROR("cJSON_Parse failed, serInfoString = %s\n", document.c_str());
        return -1;
    }
    const cJSON* type = cJSON_GetObjectItem(root.get(), "DevServiceType");
    if (!cJSON_IsString(type)) {
        LUMORA_ERROR("cJSON_GetObjectItem DevServiceType failed\n");
        return -1;
    }
    if (strncpy_s(devInfo->devServiceType, sizeof(devInfo->devServiceType), type->valuestring,
                  std::strlen(type->valuestring)) != 0) {
        LUMORA_ERROR("strncpy_s failed\n");
        return -1;
    }
    const cJSON* count = cJSON_GetObjectItem(root.get(), "ServiceNum");
    if (!cJSON_IsNumber(count)) {
        LUMORA_ERROR("cJSON_GetObjectItem ServiceNum failed\n");
        return -1;
    }
    devInfo->serviceNum = static_cast<unsigned int>(count->valueint);
    if (devInfo->serviceNum > LUM_MAX_SERVICES) {
        LUMORA_ERROR("devInfo->serviceNum = %d is illegal!\n", count->valueint);
        return -1;
    }
    if (GetServiceString(root.get(), devInfo) != 0) {
        LUMORA_ERROR("GetServiceString failed\n");
        return -1;
    }
    return 0;
}

// "name" here and "Name" in GetServiceInfoString are the same member, as with the client ID.
int GetServiceString(const cJSON* root, LUM_DEVICE_INFO_S* devInfo) {
    for (unsigned int i = 0; i < devInfo->serviceNum; ++i) {
        const cJSON* object = cJSON_GetObjectItem(root, ServiceKey(i).c_str());
        if (!cJSON_IsObject(object)) {
            LUMORA_ERROR("cJSON_GetObjectItem service failed\n");
            return -1;
        }
        const cJSON* name = cJSON_GetObjectItem(object, "name");
        const cJSON* transport = cJSON_GetObjectItem(object, "transport");
        const cJSON* outputLength = cJSON_GetObjectItem(object, "output-len-bytes");
        if (!cJSON_IsString(name) || !cJSON_IsNumber(transport) || !cJSON_IsNumber(outputLength)) {
            LUMORA_ERROR("cJSON_GetObjectItem  failed\n");
            return -1;
        }
        LUM_SERVICE_INFO_S& service = devInfo->serviceInfo[i];
        if (strncpy_s(service.serviceName, sizeof(service.serviceName), name->valuestring,
                      std::strlen(name->valuestring)) != 0) {
            LUMORA_ERROR("strncpy_s failed\n");
            return -1;
        }
        if (!IsTransport(transport->valueint)) {
            LUMORA_ERROR("ERROR:transport illegal.\n");
            return -1;
        }
        service.transport = static_cast<LUM_TRANSPORT_E>(transport->valueint);
        service.outputLenBytes = static_cast<unsigned int>(outputLength->valueint);
    }
    return 0;
}

}  // namespace lumoraAiModule
