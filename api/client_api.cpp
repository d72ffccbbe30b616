// The client side's exported functions: checks, messages, and a call of the module.
#include <pthread.h>

#include <cstring>
#include <memory>
#include <string>

#include "api/api_guard.h"
#include "base/never_destroyed.h"
#include "client/client_module.h"
#include "library/bounded_text.h"
#include "lumora.h"
#include "protocol/control_documents.h"
#include "securec.h"

using lumora::ApiLock;
using lumora::FailedByException;
using lumora::LengthUpTo;
using lumora::Side;
using lumoraAiModule::LumoraClientModule;

namespace {

lumora::NeverDestroyed<lumora::ApiMutex> g_lumoraClientMutex;

// Changed under the API mutex, by SetClient. The version queries read it without, by HoldClient: their copy
// keeps the module alive while another thread removes the last client.
lumora::NeverDestroyed<std::shared_ptr<LumoraClientModule>> g_lumoraClient;

std::shared_ptr<LumoraClientModule> HoldClient() { return std::atomic_load(&*g_lumoraClient); }
void SetClient(std::shared_ptr<LumoraClientModule> client) {
    std::atomic_store(&*g_lumoraClient, std::move(client));
}

// Runs in the child, which has one thread: the receive thread and the platform's threads are gone, and their
// locks stay locked. The pointer is read as it is. If another thread of the parent was changing it, that
// thread held the API mutex, and atomic_load might wait for it.
void RefuseInChildOfClient() {
    if (!g_lumoraClientMutex->IsFree() || *g_lumoraClient != nullptr) {
        lumora::RefuseAllCalls();
    }
}
[[maybe_unused]] const int g_clientForkHandler = pthread_atfork(nullptr, nullptr, RefuseInChildOfClient);

// 0 passes here, though it is never given out: the module finds no client of that number, and the application
// gets the same message as for any other unknown client.
bool IsClientId(int clientID) { return clientID >= 0 && clientID <= LUM_MAX_CLIENTS; }

// A subscription is a record: no terminator needs to follow, so nothing behind it may be looked at.
std::size_t ParamLength(const char* cmd, const char* param) {
    const bool isRecord = std::strcmp(cmd, lumoraAiModule::SUBSCRIBE_COMMAND) == 0;
    return isRecord ? strnlen(param, sizeof(LUM_SUBSCRIBE_SERVICE_S)) : LengthUpTo(param, LUM_MAX_CMD_LENGTH);
}

// Hands a version text to the caller's buffer, terminated.
// The version of a device is text from the network: its length is checked, and it is copied whole or not at
// all.
int CopyVersion(const char* function, const std::string& version, char* buff, unsigned int buffLen) {
    if (version.length() >= buffLen) {
        LUMORA_LOG_AS(lumora::LOG_ERROR, function, "buff is too short!\n");
        return -1;
    }
    if (memset_s(buff, buffLen, 0, buffLen) != 0) {
        LUMORA_LOG_AS(lumora::LOG_ERROR, function, "memset_s failed!\n");
        return -1;
    }
    if (!version.empty() && memcpy_s(buff, buffLen, version.data(), version.length()) != 0) {
        LUMORA_LOG_AS(lumora::LOG_ERROR, function, "memcpy_s failed!\n");
        return -1;
    }
    return 0;
}

}  // namespace

// Takes the client API mutex for the rest of the function.
#define LOCK_CLIENT_API()                                                       \
    const ApiLock lock(*g_lumoraClientMutex, Side::CLIENT, __func__, __LINE__); \
    if (!lock.IsHeld()) {                                                       \
        return -1;                                                              \
    }                                                                           \
    [[maybe_unused]] LumoraClientModule* const module = g_lumoraClient->get()

// After a failed start the ID stays in use, so DestoryInstance refuses as long as it is: LUM_DeInitClient
// gives the ID back. The same way a 21st client, whose ID is 0, fails without disturbing the others.
int LUM_InitClient(int* clientID, const char* devType) try {
    LUMORA_TRACE("Enter\n");
    LOCK_CLIENT_API();
    LUMORA_REQUIRE(clientID != nullptr && devType != nullptr, "invalid input paramers !\n");
    const std::size_t length = LengthUpTo(devType, LUM_MAX_DEV_TYPE_LENGTH);
    LUMORA_REQUIRE(length != 0, "devType is empty\n");
    LUMORA_REQUIRE(length <= LUM_MAX_DEV_TYPE_LENGTH, "devType's length exceeding the limit length: %d\n",
                   LUM_MAX_DEV_TYPE_LENGTH);
    const std::shared_ptr<LumoraClientModule> created = LumoraClientModule::CreateInstance(clientID, devType);
    LUMORA_REQUIRE(created != nullptr, "LumoraClientModule CreateInstance failed!\n");
    SetClient(created);
    if (created->InitLumoraModule(*clientID) != 0) {
        LUMORA_DETAIL("InitLumoraModule failed!\n");
        LUMORA_REQUIRE(LumoraClientModule::DestoryInstance() == 0, "DestoryInstance failed!\n");
        SetClient(nullptr);
        return -1;
    }
    LUMORA_TRACE("Out\n");
    return 0;
} catch (...) {
    return FailedByException(__func__, __LINE__);
}

// The instance is destroyed after the module has released its last client. A version query of another thread
// may hold a reference; the destructor then runs on that thread.
int LUM_DeInitClient(int clientID) try {
    LUMORA_TRACE("Enter\n");
    LOCK_CLIENT_API();
    LUMORA_REQUIRE(module != nullptr, "lumora is null, please call InitClient first.\n");
    LUMORA_REQUIRE(IsClientId(clientID), "clientID is illegal\n");
    unsigned int count = 0;
    LUMORA_REQUIRE(module->DeInitLumoraModule(clientID, &count) == 0, "LUM_DeInitClient failed!\n");
    if (count != 0) {
        LUMORA_STATE("There are already %d clients use Lumora. \n", static_cast<int>(count));
    } else {
        LUMORA_STATE("No client use Lumora, the lumora server resource will be released.\n");
        LUMORA_REQUIRE(LumoraClientModule::DestoryInstance() == 0, "DestoryInstance failed!\n");
        SetClient(nullptr);
    }
    LUMORA_STATE("Deinit Lumora client[%d] success.\n", clientID);
    LUMORA_TRACE("Out\n");
    return 0;
} catch (...) {
    return FailedByException(__func__, __LINE__);
}

int LUM_RegisterEvent(int clientID, LUM_EVENT_CALLBACK callback) try {
    LOCK_CLIENT_API();
    LUMORA_REQUIRE(callback != nullptr, "callback is null!\n");
    LUMORA_REQUIRE(module != nullptr, "lumora is null, please call LUM_InitModule first.\n");
    LUMORA_REQUIRE(IsClientId(clientID), "clientID is illegal\n");
    LUMORA_REQUIRE(module->RegisterEvent(clientID, callback) == 0, "LUM_RegisterEvent failed!\n");
    LUMORA_STATE("Client[%d] register event success. \n", clientID);
    return 0;
} catch (...) {
    return FailedByException(__func__, __LINE__);
}

// The list is cleared first, so that after a failure it holds nothing that looks like a device.
int LUM_GetAiDeviceList(const char* devType, LUM_DEVICES_INFO_S* devsInfo) try {
    LOCK_CLIENT_API();
    LUMORA_REQUIRE(module != nullptr, "please call LUM_InitModule first.\n");
    LUMORA_REQUIRE(devType != nullptr, "devType is null!\n");
    LUMORA_REQUIRE(devsInfo != nullptr, "devsInfo is null!\n");
    const std::size_t length = LengthUpTo(devType, LUM_MAX_DEV_TYPE_LENGTH);
    LUMORA_REQUIRE(length != 0, "devType is empty\n");
    LUMORA_REQUIRE(length <= LUM_MAX_DEV_TYPE_LENGTH, "devType's length exceeding the limit length: %d\n",
                   LUM_MAX_DEV_TYPE_LENGTH);
    LUMORA_REQUIRE(memset_s(devsInfo, sizeof(*devsInfo), 0, sizeof(*devsInfo)) == 0, "memset_s failed\n");
    std::string type = devType;
    return module->GetNetDeviceList(type, devsInfo);
} catch (...) {
    return FailedByException(__func__, __LINE__);
}

int LUM_CreateAiDevice(int clientID, const char* devType, unsigned int* handle) try {
    LOCK_CLIENT_API();
    LUMORA_REQUIRE(module != nullptr, "please call LUM_InitModule first.\n");
    LUMORA_REQUIRE(devType != nullptr, "devType is null!\n");
    LUMORA_REQUIRE(handle != nullptr, "handle is null!\n");
    const std::size_t length = LengthUpTo(devType, LUM_MAX_DEV_TYPE_LENGTH);
    LUMORA_REQUIRE(length != 0, "devType is empty\n");
    LUMORA_REQUIRE(length <= LUM_MAX_DEV_TYPE_LENGTH, "devType's length exceeding the limit length: %d\n",
                   LUM_MAX_DEV_TYPE_LENGTH);
    LUMORA_REQUIRE(IsClientId(clientID), "clientID is illegal\n");
    std::string type = devType;
    LUMORA_REQUIRE(module->CreateAiDevice(clientID, type, handle) == 0, "CreateAiDevice failed!\n");
    LUMORA_STATE("Client[%d] create resouce for remote device[%s] success. \n", clientID, devType);
    return 0;
} catch (...) {
    return FailedByException(__func__, __LINE__);
}

int LUM_RegisterAiDeviceEvent(int clientID, unsigned int handle, LUM_DEVICE_EVENT_CALLBACK callback) try {
    LOCK_CLIENT_API();
    LUMORA_REQUIRE(module != nullptr, "please call LUM_InitModule first.\n");
    LUMORA_REQUIRE(callback != nullptr, "callback is nullptr.\n");
    LUMORA_REQUIRE(IsClientId(clientID), "clientID is illegal\n");
    LUMORA_REQUIRE(module->RegisterAiDeviceEvent(clientID, handle, callback) == 0,
                   "RegisterAiDeviceEvent failed!\n");
    LUMORA_STATE("Client[%d] regester event callback function success. \n", clientID);
    return 0;
} catch (...) {
    return FailedByException(__func__, __LINE__);
}

int LUM_ConnectAiDevice(int clientID, unsigned int handle) try {
    LUMORA_TRACE("Enter\n");
    LOCK_CLIENT_API();
    LUMORA_REQUIRE(module != nullptr, "please call LUM_InitModule first.\n");
    LUMORA_REQUIRE(IsClientId(clientID), "clientID is illegal\n");
    LUMORA_REQUIRE(module->ConnectAiDevice(clientID, handle) == 0, "ConnectAiDevice failed!\n");
    LUMORA_STATE("Client[%d] connect to remote device success. \n", clientID);
    LUMORA_TRACE("Out\n");
    return 0;
} catch (...) {
    return FailedByException(__func__, __LINE__);
}

int LUM_DisconnectAiDevice(int clientID, unsigned int handle) try {
    LOCK_CLIENT_API();
    LUMORA_REQUIRE(module != nullptr, "please call LUM_InitModule first.\n");
    LUMORA_REQUIRE(IsClientId(clientID), "clientID is illegal\n");
    LUMORA_REQUIRE(module->DisconnectAiDevice(clientID, handle) == 0, "LUM_DisconnectAiDevice failed!\n");
    LUMORA_STATE("Client[%d] disconnect from remote device. \n", clientID);
    return 0;
} catch (...) {
    return FailedByException(__func__, __LINE__);
}

int LUM_DestoryAiDevice(int clientID, unsigned int handle) try {
    LOCK_CLIENT_API();
    LUMORA_REQUIRE(IsClientId(clientID), "clientID is illegal\n");
    LUMORA_REQUIRE(module != nullptr, "please call LUM_ConnectAiDevice first.\n");
    LUMORA_REQUIRE(module->DestoryAiDevice(clientID, handle) == 0, "LUM_DestoryAiDevice failed!\n");
    LUMORA_STATE("Client[%d] destory resouce for remote device success. \n", clientID);
    return 0;
} catch (...) {
    return FailedByException(__func__, __LINE__);
}

// The bounded look at cmd and param reads no more than the limit of bytes: a text without a terminator, of a
// faulty application, ends the call and not the process.
int LUM_SendCmd(int clientID, unsigned int handle, const char* cmd, const char* param) try {
    LOCK_CLIENT_API();
    LUMORA_REQUIRE(IsClientId(clientID), "clientID is illegal\n");
    LUMORA_REQUIRE(module != nullptr, "please call LUM_ConnectAiDevice first.\n");
    LUMORA_REQUIRE(cmd != nullptr, "cmd can't be nullptr.\n");
    LUMORA_REQUIRE(param != nullptr, "param can't be nullptr.\n");
    const std::size_t cmdLength = LengthUpTo(cmd, LUM_MAX_CMD_LENGTH);
    LUMORA_REQUIRE(cmdLength != 0 && cmdLength <= LUM_MAX_CMD_LENGTH, "cmd is illegal\n");
    const std::size_t paramLength = ParamLength(cmd, param);
    LUMORA_REQUIRE(paramLength <= LUM_MAX_CMD_LENGTH, "param is illegal\n");
    LUMORA_REQUIRE(cmdLength + paramLength <= LUM_MAX_CMD_LENGTH,
                   "Total length of param and cmd exceeding the limit length: %d\n", LUM_MAX_CMD_LENGTH);
    LUMORA_REQUIRE(module->SendCmd(clientID, handle, cmd, param) == 0, "LUM_SendCmd failed!\n");
    return 0;
} catch (...) {
    return FailedByException(__func__, __LINE__);
}

int LUM_SendData(int clientID, unsigned int handle, const void* data, unsigned int length,
                 unsigned int* sendLength, unsigned int timeoutMs) try {
    LOCK_CLIENT_API();
    LUMORA_REQUIRE(IsClientId(clientID), "clientID is illegal\n");
    LUMORA_REQUIRE(module != nullptr, "please call LUM_ConnectAiDevice first.\n");
    LUMORA_REQUIRE(data != nullptr, "input data buffer is nullptr.\n");
    LUMORA_REQUIRE(sendLength != nullptr, "sendLength is nullptr.\n");
    LUMORA_REQUIRE(length != 0, "payload length is 0.\n");
    LUMORA_REQUIRE(length <= LUM_MAX_CLIENT_DATA_LENGTH, "data length = %d is exceed the max length : %d.\n",
                   static_cast<int>(length), LUM_MAX_CLIENT_DATA_LENGTH);
    LUMORA_REQUIRE(timeoutMs <= LUM_MAX_CLIENT_TIMEOUT_MS, "timeoutMs is illegal.\n");
    lumoraAiModule::SendDataInfo info(data, length, timeoutMs);
    LUMORA_REQUIRE(module->SendData(clientID, handle, info, *sendLength) == 0, "LUM_SendData failed!\n");
    return 0;
} catch (...) {
    return FailedByException(__func__, __LINE__);
}

// Takes no API mutex, so that it can be called while another thread waits in a search or a connect. Its
// message names LUM_SendData; scripts that watch the log know it so.
int LUM_GetClientVersion(int clientID, char* buff, unsigned int buffLen) try {
    if (lumora::IsForkedChild(__func__, __LINE__) ||
        lumora::RejectReentrantCall(Side::CLIENT, __func__, __LINE__)) {
        return -1;
    }
    const std::shared_ptr<LumoraClientModule> module = HoldClient();
    LUMORA_REQUIRE(clientID >= 0, "clientID is illegal.\n");
    LUMORA_REQUIRE(module != nullptr, "please call LUM_ConnectAiDevice first.\n");
    LUMORA_REQUIRE(buff != nullptr, "input data buffer is nullptr.\n");
    LUMORA_REQUIRE(buffLen >= LUM_MIN_VERSION_BUFFER_LENGTH, "buffLen is too short.\n");
    std::string version;
    LUMORA_REQUIRE(module->GetClientVersion(clientID, version) == 0, "LUM_SendData failed!\n");
    return CopyVersion(__func__, version, buff, buffLen);
} catch (...) {
    return FailedByException(__func__, __LINE__);
}

// Takes no API mutex either, though it asks the device: only another request to the same device delays it.
int LUM_GetServerVersion(int clientID, unsigned int handle, char* buff, unsigned int buffLen) try {
    if (lumora::IsForkedChild(__func__, __LINE__) ||
        lumora::RejectReentrantCall(Side::CLIENT, __func__, __LINE__)) {
        return -1;
    }
    const std::shared_ptr<LumoraClientModule> module = HoldClient();
    LUMORA_REQUIRE(clientID >= 0, "clientID is illegal.\n");
    LUMORA_REQUIRE(module != nullptr, "please call LUM_ConnectAiDevice first.\n");
    LUMORA_REQUIRE(buff != nullptr, "input data buffer is nullptr.\n");
    LUMORA_REQUIRE(buffLen >= LUM_MIN_VERSION_BUFFER_LENGTH, "buffLen is too short.\n");
    std::string version;
    LUMORA_REQUIRE(module->GetServerVersion(clientID, handle, version) == 0, "LUM_SendData failed!\n");
    return CopyVersion(__func__, version, buff, buffLen);
} catch (...) {
    return FailedByException(__func__, __LINE__);
}
