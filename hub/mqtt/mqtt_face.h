// The MQTT face and its options.
#pragma once

#include <memory>

#include "hub/core/face.h"

namespace lumora_hub {

std::unique_ptr<Face> MakeMqttFace();

}  // namespace lumora_hub
