// The two sides of the library, which one process may have at the same time.
#pragma once

namespace lumora {

enum class Side { CLIENT, SERVER };

}  // namespace lumora
