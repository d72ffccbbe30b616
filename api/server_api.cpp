// The server side's exported functions: checks, messages, and a call of the module.
#include <pthread.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <string>

#include "api/api_guard.h"
#include "base/bounded_text.h"
#include "base/never_destroyed.h"
#include "base/transport_kind.h"
#include "lumora.h"
#include "server/server_module.h"

using lumora::ApiLock;
using lumora::FailedByException;
using lumora::FromOnData;
using lumora::NameLength;
using lumora::Side;
using lumoraAiModule::LumoraServerModule;

namespace {

lumora::NeverDestroyed<lumora::ApiMutex> g_lumoraServerMutex;

// Under g_lumoraServerMutex.
LumoraServerModule* g_lumora = nullptr;

// Runs in the child, which has one thread: the threads that answer requests are gone, and their locks stay
// locked.
void RefuseInChildOfDevice() {
    if (!g_lumoraServerMutex->IsFree() || g_lumora != nullptr) {
        lumora::RefuseAllCalls();
    }
}
[[maybe_unused]] const int g_serverForkHandler = pthread_atfork(nullptr, nullptr, RefuseInChildOfDevice);

}  // namespace

// Takes the server API mutex for the rest of the function.
#define LOCK_SERVER_API(fromOnData)                                                         \
    const ApiLock lock(*g_lumoraServerMutex, Side::SERVER, __func__, __LINE__, fromOnData); \
    if (!lock.IsHeld()) {                                                                   \
        return -1;                                                                          \
    }

// The instance stays after a failed start, so that the call can be repeated: requests may already have
// reached it, and must not meet an object that is gone.
int LUM_InitServer(const char* devType) try {
    LUMORA_TRACE("Enter\n");
    LOCK_SERVER_API(FromOnData::REFUSED);
    LUMORA_REQUIRE(devType != nullptr, "devType is nullptr.\n");
    const std::size_t length = std::strlen(devType);
    LUMORA_REQUIRE(length != 0, "devType is empty\n");
    LUMORA_REQUIRE(length <= LUM_MAX_DEV_TYPE_LENGTH,
                   "devType's length = %d ,exceeding the limit length: %d\n", static_cast<int>(length),
                   LUM_MAX_DEV_TYPE_LENGTH);
    g_lumora = LumoraServerModule::CreateInstance(devType);
    LUMORA_REQUIRE(g_lumora != nullptr, "LumoraServerModule CreateInstance failed!\n");
    LUMORA_REQUIRE(g_lumora->InitLumoraModule() != -1, "InitLumoraModule failed!\n");
    LUMORA_STATE("Init Lumora server success. device type: %s.\n", devType);
    LUMORA_TRACE("Out\n");
    return 0;
} catch (...) {
    return FailedByException(__func__, __LINE__);
}

// A name may fill its field without a terminator, so no byte behind the field is read. A negative transport
// kind passes here; clients refuse the description with it, and the device is not listed. The message about
// the number of services names 5, though the limit is 8: scripts that watch the log know it so.
int LUM_RegisterAiDevInfo(const LUM_DEVICE_INFO_S* devInfo) try {
    LOCK_SERVER_API(FromOnData::REFUSED);
    LUMORA_REQUIRE(devInfo != nullptr, "devInfo is nullptr.\n");
    LUMORA_REQUIRE(g_lumora != nullptr, "please call LUM_ConnectAiDevice first.\n");
    LUMORA_REQUIRE(devInfo->serviceNum >= 1 && devInfo->serviceNum <= LUM_MAX_SERVICES,
                   "devInfo->serviceNum must in range of 1-5, %d is illegal.\n",
                   static_cast<int>(devInfo->serviceNum));
    LUMORA_REQUIRE(
        NameLength(devInfo, offsetof(LUM_DEVICE_INFO_S, devServiceType)) <= LUM_MAX_DEV_TYPE_LENGTH,
        "devServiceType 's length illegal\n");
    LUMORA_REQUIRE(devInfo->OnCommand != nullptr, "OnCommand is nullptr.\n");
    LUMORA_REQUIRE(devInfo->OnData != nullptr, "OnData is nullptr.\n");
    LUMORA_REQUIRE(devInfo->OnEventNotify != nullptr, "OnEventNotify is nullptr.\n");
    for (unsigned int i = 0; i < devInfo->serviceNum; ++i) {
        const LUM_SERVICE_INFO_S& service = devInfo->serviceInfo[i];
        const std::size_t length = NameLength(&service, offsetof(LUM_SERVICE_INFO_S, serviceName));
        const int transport = lumora::TransportKind(service);  // signed: negative values pass
        LUMORA_REQUIRE(length != 0, "service name is empty\n");
        LUMORA_REQUIRE(length <= LUM_MAX_SERVICE_NAME_LENGTH, "service name 's length illegal\n");
        LUMORA_REQUIRE(transport <= LUM_TRANSPORT_RESERVED_5, "transport :%d is illegal\n", transport);
    }
    LUMORA_REQUIRE(g_lumora->RegisterLocalDeviceInfo(devInfo) != -1, "RegisterLocalDeviceInfo failed!\n");
    LUMORA_STATE("Create lumora services succss. services number:%d. \n",
                 static_cast<int>(devInfo->serviceNum));
    return 0;
} catch (...) {
    return FailedByException(__func__, __LINE__);
}

// The one function that OnData may call. A time-out above the limit is reduced and not refused as in
// LUM_SendData; lumora.h promises both.
int LUM_SendDataToClient(const char* serviceName, const void* data, unsigned int dataLen,
                         unsigned int* sendLength, unsigned int timeoutMs) try {
    LUMORA_TRACE("Enter\n");
    LOCK_SERVER_API(FromOnData::ALLOWED);
    LUMORA_REQUIRE(g_lumora != nullptr, "please call LUM_ConnectAiDevice first.\n");
    LUMORA_REQUIRE(serviceName != nullptr, "input serviceName is nullptr.\n");
    LUMORA_REQUIRE(data != nullptr, "input data buffer is nullptr.\n");
    LUMORA_REQUIRE(sendLength != nullptr, "sendLength is nullptr.\n");
    LUMORA_REQUIRE(dataLen <= LUM_MAX_SERVER_DATA_LENGTH,
                   "user data length = %d exceed the max send length = %d.\n", static_cast<int>(dataLen),
                   LUM_MAX_SERVER_DATA_LENGTH);
    const std::size_t length = std::strlen(serviceName);
    LUMORA_REQUIRE(length != 0, "service name is empty\n");
    LUMORA_REQUIRE(length <= LUM_MAX_SERVICE_NAME_LENGTH, "serviceName's length = %d illegal\n",
                   static_cast<int>(length));
    const unsigned int timeout = std::min<unsigned int>(timeoutMs, LUM_MAX_SERVER_TIMEOUT_MS);
    LUMORA_REQUIRE(g_lumora->SendDataToClient(serviceName, static_cast<const char*>(data), dataLen,
                                              sendLength, timeout) != -1,
                   "SendDataToClient failed!\n");
    LUMORA_TRACE("Out\n");
    return 0;
} catch (...) {
    return FailedByException(__func__, __LINE__);
}

// Success without a device: applications call it in their clean-up, whether they got so far or not. After a
// failure the instance stays, because the platform may still call it.
int LUM_DeInitServer(void) try {
    LUMORA_TRACE("Enter\n");
    LOCK_SERVER_API(FromOnData::REFUSED);
    if (g_lumora == nullptr) {
        LUMORA_ERROR("g_lumora is nullptr, we can't deinit it ,but will return succ.\n");
        return 0;
    }
    LUMORA_REQUIRE(g_lumora->DeInitLumoraModule() != -1, "DeInitLumoraModule failed!\n");
    LUMORA_REQUIRE(LumoraServerModule::DestoryInstance() != -1, "DestoryInstance failed!\n");
    g_lumora = nullptr;
    LUMORA_STATE("DeInit Lumora server success. \n");
    LUMORA_TRACE("Out\n");
    return 0;
} catch (...) {
    return FailedByException(__func__, __LINE__);
}
