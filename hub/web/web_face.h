// The web page and the interfaces beside it, as a face of the hub.
#pragma once

#include <memory>

#include "hub/core/face.h"

namespace lumora_hub {

std::unique_ptr<Face> MakeWebFace();

}  // namespace lumora_hub
