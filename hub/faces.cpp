// The faces that this program was built with.
#include "hub/core/face.h"

#ifdef LUMORA_HUB_HAS_MQTT
#include "hub/mqtt/mqtt_face.h"
#endif
#ifdef LUMORA_HUB_HAS_WEB
#include "hub/web/web_face.h"
#endif

namespace lumora_hub {

std::vector<std::unique_ptr<Face>> MakeFaces() {
    std::vector<std::unique_ptr<Face>> faces;
#ifdef LUMORA_HUB_HAS_MQTT
    faces.push_back(MakeMqttFace());
#endif
#ifdef LUMORA_HUB_HAS_WEB
    faces.push_back(MakeWebFace());
#endif
    return faces;
}

}  // namespace lumora_hub
