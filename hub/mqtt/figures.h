// The counts of the MQTT face as figures.
#pragma once

#include <vector>

#include "hub/core/figures.h"
#include "hub/mqtt/mqtt_bridge.h"

namespace lumora_hub {

std::vector<Figure> FiguresOf(const MqttCounts& counts);

}  // namespace lumora_hub
