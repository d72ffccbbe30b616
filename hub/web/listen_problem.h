// Why the page cannot be served. The library tells that in its log only.
#pragma once

#include <string>

#include "hub/web/options.h"

namespace lumora_hub::web {

// After a failed start: the cause, for the end of a sentence. It tries the address and looks at the files
// again.
std::string ListenProblem(const WebOptions& options);

}  // namespace lumora_hub::web
