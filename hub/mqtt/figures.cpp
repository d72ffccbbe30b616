#include "hub/mqtt/figures.h"

#include <string>

namespace lumora_hub {

std::vector<Figure> FiguresOf(const MqttCounts& counts) {
    std::vector<Figure> figures;
    const auto add = [&](const char* name, const char* help, std::uint64_t value) {
        const std::string full = std::string("lumora_hub_mqtt_") + name;
        constexpr std::string_view TOTAL = "_total";
        const bool isTotal = full.size() > TOTAL.size() && full.substr(full.size() - TOTAL.size()) == TOTAL;
        figures.push_back({full, isTotal ? Figure::Kind::COUNTER : Figure::Kind::GAUGE, help, value});
    };
    const SessionCounts& session = counts.session;
    add("connected", "1 while the hub is connected to the MQTT broker.", counts.isConnected ? 1 : 0);
    add("connections_total", "Connections that the MQTT broker accepted.", session.connections);
    add("reconnects_total", "Those that replaced an earlier one.",
        session.connections > 1 ? session.connections - 1 : 0);
    add("failed_connections_total", "Attempts to connect to the MQTT broker that failed.", session.failures);
    add("blocks_total", "Blocks that the MQTT broker has taken.", session.published);
    add("bytes_total", "Bytes of these blocks.", session.publishedBytes);
    add("lost_blocks_total", "Blocks that did not reach the MQTT broker.", counts.lost);
    add("waiting_blocks", "Blocks that wait for the MQTT broker.", counts.waiting);
    add("commands_total", "Commands that came from the MQTT broker.", counts.requests.commands);
    add("received_blocks_total", "Blocks for devices that came from the MQTT broker.",
        counts.requests.blocks);
    add("refused_requests_total", "Commands and blocks from the MQTT broker that were not carried out.",
        counts.requests.refused);
    add("waiting_requests", "Commands and blocks from the MQTT broker that wait for their device.",
        counts.requests.waiting);
    return figures;
}

}  // namespace lumora_hub
