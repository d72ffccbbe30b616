#include "link/security_table.h"

// A vendor's platform library need not have it.
#pragma weak GetLinkSecurity

namespace lumora {

const LinkSecurity* SecurityTable() { return GetLinkSecurity != nullptr ? GetLinkSecurity() : nullptr; }

}  // namespace lumora
