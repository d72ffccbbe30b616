// The faces that this program was built with.
#include "hub/core/face.h"

namespace lumora_hub {

std::vector<std::unique_ptr<Face>> MakeFaces() {
    std::vector<std::unique_ptr<Face>> faces;
    return faces;
}

}  // namespace lumora_hub
