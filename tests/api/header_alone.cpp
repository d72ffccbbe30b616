// The public header as a C++ program sees it: nothing in front of it, and twice.
#include "lumora.h"

// In C++ as in C the values are the interface's.
static_assert(LUM_TRANSPORT_NONE == 0 && LUM_TRANSPORT_TCP == 2 && LUM_TRANSPORT_RESERVED_5 == 5, "kinds");
static_assert(LUM_EVENT_DEVICE_REMOVED == 1 && LUM_DEVICE_EVENT_DATA == 2, "events");
static_assert(sizeof(LUM_SERVICE_INFO_S) == 48 && sizeof(LUM_SUBSCRIBE_SERVICE_S) == 48, "records");
