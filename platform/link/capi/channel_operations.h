// The operations of LinkSecurity on private channels.
#pragma once

#include "link_security.h"

namespace lumora_link {

void AddChannelOperations(LinkSecurity& operations);

}  // namespace lumora_link
