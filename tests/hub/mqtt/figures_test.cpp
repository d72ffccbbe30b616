// The counts of the MQTT face under the names that Prometheus shows.
#include "hub/mqtt/figures.h"

#include <gtest/gtest.h>

#include <map>
#include <string>

namespace lumora_hub {
namespace {

MqttCounts DistinctCounts() {
    MqttCounts counts;
    counts.isConnected = true;
    counts.lost = 2;
    counts.waiting = 3;
    counts.session.connections = 5;
    counts.session.failures = 6;
    counts.session.published = 7;
    counts.session.publishedBytes = 8;
    counts.requests.commands = 9;
    counts.requests.blocks = 10;
    counts.requests.refused = 11;
    counts.requests.waiting = 12;
    return counts;
}

TEST(MqttFiguresTest, EachCountHasItsName) {
    std::map<std::string, std::uint64_t> values;
    for (const Figure& figure : FiguresOf(DistinctCounts())) {
        EXPECT_TRUE(values.emplace(figure.name, figure.value).second) << figure.name;
    }
    const std::map<std::string, std::uint64_t> wanted = {
        {"lumora_hub_mqtt_connected", 1},
        {"lumora_hub_mqtt_connections_total", 5},
        {"lumora_hub_mqtt_reconnects_total", 4},
        {"lumora_hub_mqtt_failed_connections_total", 6},
        {"lumora_hub_mqtt_blocks_total", 7},
        {"lumora_hub_mqtt_bytes_total", 8},
        {"lumora_hub_mqtt_lost_blocks_total", 2},
        {"lumora_hub_mqtt_waiting_blocks", 3},
        {"lumora_hub_mqtt_commands_total", 9},
        {"lumora_hub_mqtt_received_blocks_total", 10},
        {"lumora_hub_mqtt_refused_requests_total", 11},
        {"lumora_hub_mqtt_waiting_requests", 12},
    };
    EXPECT_EQ(values, wanted);
}

TEST(MqttFiguresTest, CountersAndOnlyTheyEndInTotal) {
    for (const Figure& figure : FiguresOf({})) {
        const bool isTotal = figure.name.find("_total") != std::string::npos;
        EXPECT_EQ(figure.kind == Figure::Kind::COUNTER, isTotal) << figure.name;
        EXPECT_EQ(figure.value, 0U) << figure.name;
        EXPECT_EQ(figure.help.back(), '.') << figure.name;
        EXPECT_EQ(figure.help.find('\n'), std::string::npos) << figure.name;
    }
}

}  // namespace
}  // namespace lumora_hub
