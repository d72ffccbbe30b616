// Holds the layout of the public records at compile time: applications are compiled against it. Offsets
// behind a pointer are counted in pointers, so that the numbers hold on hosts of either width.
#include <cstddef>

#include "client/client_module.h"
#include "lumora.h"

namespace {

using lumoraAiModule::SendDataInfo;

constexpr std::size_t POINTER = sizeof(void*);

// 4 bytes and a pointer share a record on 64-bit hosts: the pointer begins at its own alignment.
constexpr std::size_t Aligned(std::size_t offset) { return (offset + POINTER - 1) / POINTER * POINTER; }

static_assert(sizeof(int) == 4 && sizeof(unsigned int) == 4, "integers are 32 bits wide");
static_assert(sizeof(LUM_TRANSPORT_E) == 4, "enumerations are 32 bits wide");
static_assert(sizeof(LUM_TRANSPORT_STATUS_E) == 4, "enumerations are 32 bits wide");
static_assert(sizeof(LUM_EVENT_E) == 4, "enumerations are 32 bits wide");

static_assert(offsetof(LUM_SERVICE_INFO_S, outputLenBytes) == 0, "layout");
static_assert(offsetof(LUM_SERVICE_INFO_S, serviceName) == 4, "layout");
static_assert(offsetof(LUM_SERVICE_INFO_S, transport) == 44, "layout");
static_assert(sizeof(LUM_SERVICE_INFO_S) == 48, "layout");

static_assert(offsetof(LUM_SUBSCRIBE_SERVICE_S, serviceName) == 0, "layout");
static_assert(offsetof(LUM_SUBSCRIBE_SERVICE_S, dataSource) == 40, "layout");
static_assert(offsetof(LUM_SUBSCRIBE_SERVICE_S, transport) == 44, "layout");
static_assert(sizeof(LUM_SUBSCRIBE_SERVICE_S) == 48, "layout");

constexpr std::size_t CALLBACKS = Aligned(428);
static_assert(offsetof(LUM_DEVICE_INFO_S, serviceNum) == 0, "layout");
static_assert(offsetof(LUM_DEVICE_INFO_S, devServiceType) == 4, "layout");
static_assert(offsetof(LUM_DEVICE_INFO_S, serviceInfo) == 44, "layout");
static_assert(offsetof(LUM_DEVICE_INFO_S, OnCommand) == CALLBACKS, "layout");
static_assert(offsetof(LUM_DEVICE_INFO_S, OnEventNotify) == CALLBACKS + POINTER, "layout");
static_assert(offsetof(LUM_DEVICE_INFO_S, OnData) == CALLBACKS + 2 * POINTER, "layout");
static_assert(sizeof(LUM_DEVICE_INFO_S) == CALLBACKS + 3 * POINTER, "layout");

static_assert(offsetof(LUM_DEVICES_INFO_S, devInfo) == 0, "layout");
static_assert(offsetof(LUM_DEVICES_INFO_S, devNum) == 4 * sizeof(LUM_DEVICE_INFO_S), "layout");
static_assert(sizeof(LUM_DEVICES_INFO_S) == Aligned(4 * sizeof(LUM_DEVICE_INFO_S) + 4), "layout");

constexpr std::size_t EVENT_DATA = Aligned(60);
static_assert(offsetof(LUM_DEVICE_EVENT_S, clientID) == 0, "layout");
static_assert(offsetof(LUM_DEVICE_EVENT_S, handle) == 4, "layout");
static_assert(offsetof(LUM_DEVICE_EVENT_S, serviceName) == 8, "layout");
static_assert(offsetof(LUM_DEVICE_EVENT_S, eventType) == 48, "layout");
static_assert(offsetof(LUM_DEVICE_EVENT_S, result) == 52, "layout");
static_assert(offsetof(LUM_DEVICE_EVENT_S, dataLen) == 56, "layout");
static_assert(offsetof(LUM_DEVICE_EVENT_S, data) == EVENT_DATA, "layout");
static_assert(sizeof(LUM_DEVICE_EVENT_S) == EVENT_DATA + POINTER, "layout");

static_assert(offsetof(SendDataInfo, data) == 0, "layout");
static_assert(offsetof(SendDataInfo, length) == POINTER, "layout");
static_assert(offsetof(SendDataInfo, timeoutMs) == POINTER + 4, "layout");
static_assert(sizeof(SendDataInfo) == POINTER + 8, "layout");

// The same in numbers, for the hosts that all this was first made for.
constexpr bool NARROW = POINTER == 4;
static_assert(!NARROW || offsetof(LUM_DEVICE_INFO_S, OnCommand) == 428, "layout");
static_assert(!NARROW || offsetof(LUM_DEVICE_INFO_S, OnEventNotify) == 432, "layout");
static_assert(!NARROW || offsetof(LUM_DEVICE_INFO_S, OnData) == 436, "layout");
static_assert(!NARROW || sizeof(LUM_DEVICE_INFO_S) == 440, "layout");
static_assert(!NARROW || offsetof(LUM_DEVICES_INFO_S, devNum) == 1760, "layout");
static_assert(!NARROW || sizeof(LUM_DEVICES_INFO_S) == 1764, "layout");
static_assert(!NARROW || offsetof(LUM_DEVICE_EVENT_S, data) == 60, "layout");
static_assert(!NARROW || sizeof(LUM_DEVICE_EVENT_S) == 64, "layout");
static_assert(!NARROW || sizeof(SendDataInfo) == 12, "layout");

}  // namespace
