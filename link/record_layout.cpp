// Holds the layout of the platform's records at compile time: the library behind them may be another one
// than ours. Fields are counted in pointers; on a 32-bit host a pointer is as wide as an int.
#include <cstddef>

#include "link_platform.h"

namespace {

constexpr std::size_t POINTER = sizeof(void*);

static_assert(offsetof(LinkPlatform, Init) == 0 * POINTER, "layout");
static_assert(offsetof(LinkPlatform, SetDebugLevel) == 2 * POINTER, "layout");
static_assert(offsetof(LinkPlatform, RegisterResource) == 3 * POINTER, "layout");
static_assert(offsetof(LinkPlatform, Run) == 5 * POINTER, "layout");
static_assert(offsetof(LinkPlatform, Exit) == 6 * POINTER, "layout");
static_assert(offsetof(LinkPlatform, FindResource) == 7 * POINTER, "layout");

static_assert(offsetof(AppResourceProxy, Get) == 0 * POINTER, "layout");
static_assert(offsetof(AppResourceProxy, Put) == 1 * POINTER, "layout");
static_assert(offsetof(AppResourceProxy, Post) == 2 * POINTER, "layout");
static_assert(offsetof(AppResourceProxy, Delete) == 3 * POINTER, "layout");
static_assert(offsetof(AppResourceProxy, GetAddress) == 5 * POINTER, "layout");
static_assert(offsetof(AppResourceProxy, GetPort) == 6 * POINTER, "layout");

static_assert(offsetof(AppResource, DoGET) == 0 * POINTER, "layout");
static_assert(offsetof(AppResource, DoPUT) == 1 * POINTER, "layout");
static_assert(offsetof(AppResource, DoPOST) == 2 * POINTER, "layout");
static_assert(offsetof(AppResource, DoDELETE) == 3 * POINTER, "layout");
static_assert(offsetof(AppResource, DoGetDescriptor) == 4 * POINTER, "layout");
static_assert(sizeof(AppResource) == 5 * POINTER, "layout");

static_assert(offsetof(RemoteEndpoint, address) == 0, "layout");
static_assert(sizeof(in_addr) == 4, "layout");
static_assert(offsetof(RemoteEndpoint, port) == 4, "layout");
static_assert(sizeof(RemoteEndpoint) == 8, "layout");

static_assert(offsetof(NotifyDeviceInfo, event) == 0, "layout");
static_assert(offsetof(NotifyDeviceInfo, id) == 4, "layout");
static_assert(offsetof(NotifyDeviceInfo, addr) == 8, "layout");
static_assert(offsetof(NotifyDeviceInfo, port) == 8 + POINTER, "layout");
static_assert(offsetof(NotifyDeviceInfo, devType) == 8 + 2 * POINTER, "layout");
static_assert(sizeof(NotifyDeviceInfo) == 8 + 3 * POINTER, "layout");

// The same in numbers, for the hosts that all this was first made for.
constexpr bool NARROW = POINTER == 4;
static_assert(!NARROW || offsetof(LinkPlatform, SetDebugLevel) == 8, "layout");
static_assert(!NARROW || offsetof(LinkPlatform, RegisterResource) == 12, "layout");
static_assert(!NARROW || offsetof(LinkPlatform, Run) == 20, "layout");
static_assert(!NARROW || offsetof(LinkPlatform, Exit) == 24, "layout");
static_assert(!NARROW || offsetof(LinkPlatform, FindResource) == 28, "layout");
static_assert(!NARROW || offsetof(AppResourceProxy, Put) == 4, "layout");
static_assert(!NARROW || offsetof(AppResourceProxy, Post) == 8, "layout");
static_assert(!NARROW || offsetof(AppResourceProxy, Delete) == 12, "layout");
static_assert(!NARROW || offsetof(AppResourceProxy, GetAddress) == 20, "layout");
static_assert(!NARROW || offsetof(AppResourceProxy, GetPort) == 24, "layout");
static_assert(!NARROW || offsetof(AppResource, DoGetDescriptor) == 16, "layout");
static_assert(!NARROW || sizeof(AppResource) == 20, "layout");
static_assert(!NARROW || offsetof(NotifyDeviceInfo, port) == 12, "layout");
static_assert(!NARROW || offsetof(NotifyDeviceInfo, devType) == 16, "layout");

}  // namespace
