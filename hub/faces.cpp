// The faces that this program was built with.
#include "hub/core/face.h"

#if defined(LUMORA_HUB_MQTT)
#include "hub/mqtt/mqtt_face.h"
#endif

namespace lumora_hub {

std::vector<std::unique_ptr<Face>> MakeFaces() {
    std::vector<std::unique_ptr<Face>> faces;
#if defined(LUMORA_HUB_MQTT)
    faces.push_back(MakeMqttFace());
#endif
    return faces;
}

}  // namespace lumora_hub
