#include "hub/mqtt/settings.h"

#include <mosquitto.h>

#include <cstdlib>

#include "hub/mqtt/topics.h"

namespace lumora_hub {

namespace {

constexpr int MOST_PORT = 65535;

// 0 if text is not a port.
int PortOf(const std::string& text) {
    if (text.empty() || text.size() > 5 || text.find_first_not_of("0123456789") != std::string::npos) {
        return 0;
    }
    const int port = std::atoi(text.c_str());
    return port <= MOST_PORT ? port : 0;
}

bool IsTopic(const std::string& prefix) {
    return !prefix.empty() && prefix.front() != '/' && prefix.back() != '/' && prefix.front() != '$' &&
           IsMqttText(prefix) && mosquitto_pub_topic_check(prefix.c_str()) == MOSQ_ERR_SUCCESS;
}

}  // namespace

bool SetBroker(const std::string& text, MqttSettings& settings) {
    const bool isBracketed = !text.empty() && text.front() == '[';
    const std::size_t end = isBracketed ? text.find(']') : text.find(':');
    if (isBracketed && end == std::string::npos) {
        return false;
    }
    const std::string host = isBracketed ? text.substr(1, end - 1) : text.substr(0, end);
    const std::size_t rest = isBracketed ? end + 1 : end;
    int port = 0;
    if (rest < text.size()) {
        port = text[rest] == ':' ? PortOf(text.substr(rest + 1)) : 0;
        if (port == 0) {
            return false;
        }
    }
    if (host.empty()) {
        return false;
    }
    settings.host = host;
    settings.port = port;
    return true;
}

std::string ProblemOf(const MqttSettings& settings) {
    if (!IsTopic(settings.prefix)) {
        return "the MQTT prefix must be a topic without '+', '#', and '$' or '/' at its ends";
    }
    if (!settings.homeAssistant.empty() && !IsTopic(settings.homeAssistant)) {
        return "the prefix of Home Assistant's discovery is no topic";
    }
    if (settings.name.empty() || !IsMqttText(settings.name)) {
        return "the MQTT name of the hub must be a text of one line";
    }
    if (settings.qos != 0 && settings.qos != 1) {
        return "the MQTT QoS must be 0 or 1";
    }
    if (settings.certificate.empty() != settings.key.empty()) {
        return "an MQTT certificate needs its key, and a key its certificate";
    }
    if (!settings.passwordFile.empty() && settings.user.empty()) {
        return "an MQTT password needs a user";
    }
    return "";
}

}  // namespace lumora_hub
