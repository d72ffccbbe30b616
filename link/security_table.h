// What the platform library that holds keys offers besides link_platform.h.
#pragma once

#include "link_security.h"

namespace lumora {

// Null if the platform library has no such table: a vendor's need not have it.
const LinkSecurity* SecurityTable();

}  // namespace lumora
