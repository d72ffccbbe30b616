// What can be set of the MQTT face.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "hub/core/consumer.h"

namespace lumora_hub {

struct MqttSettings {
    std::string host;
    int port = 0;  // 0: 1883, or 8883 with TLS
    std::string name;
    std::string prefix = "lumora";
    std::string version;  // of the hub, for descriptions

    bool tls = false;
    std::string caFile;       // empty: what the system trusts
    std::string certificate;  // the hub's own, with its key; empty: none
    std::string key;
    std::string user;
    std::string passwordFile;

    int qos = 1;  // of blocks: 0 or 1
    // Patterns (of fnmatch) for DEVICE/SERVICE. A service that one of them matches is published.
    std::vector<std::string> services = {"*"};
    std::string homeAssistant;  // the prefix of its discovery; empty: none

    QueueLimits queue = {MOST_BLOCKS_OF_QUEUE, std::size_t{4} << 20};  // of each service
    std::chrono::milliseconds firstRetry{1000};                        // the pause doubles with each failure
    std::chrono::milliseconds lastRetry{60000};
    std::chrono::milliseconds connectLimit{10000};  // from the first packet to the broker's consent
    // After the start, for devices to be found before what an earlier run left at the broker is cleared.
    std::chrono::milliseconds settleTime{15000};
};

// Takes HOST, HOST:PORT, [IPV6] or [IPV6]:PORT. False, with settings unchanged, if text is none of these.
bool SetBroker(const std::string& text, MqttSettings& settings);

// What is wrong with the settings, as a sentence for people; empty if nothing is.
std::string ProblemOf(const MqttSettings& settings);

}  // namespace lumora_hub
