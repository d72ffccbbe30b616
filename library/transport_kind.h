// The transport kind in a record of the application's.
#pragma once

#include <cstring>

#include "lumora.h"

namespace lumora {

// An application in C may store any number in the field. Loading a value outside the enumeration's range is
// undefined in C++, so the bytes are copied into an int.
inline int TransportKind(const LUM_SERVICE_INFO_S& service) {
    int kind = 0;
    static_assert(sizeof(kind) == sizeof(service.transport), "enumerations are 32 bits wide");
    std::memcpy(&kind, &service.transport, sizeof(kind));
    return kind;
}

}  // namespace lumora
