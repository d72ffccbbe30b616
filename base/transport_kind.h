// The transport kind in a record of the application's.
#pragma once

#include <cstring>

#include "lumora.h"

namespace lumora {

// An application in C may put any number into the field, and C++ must not load one that its enumeration has
// no room for.
inline int TransportKind(const LUM_SERVICE_INFO_S& service) {
    int kind = 0;
    static_assert(sizeof(kind) == sizeof(service.transport), "enumerations are 32 bits wide");
    std::memcpy(&kind, &service.transport, sizeof(kind));
    return kind;
}

}  // namespace lumora
