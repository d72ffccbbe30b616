#include "hub/mqtt/mqtt_face.h"

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <array>
#include <stdexcept>

#include "hub/mqtt/mqtt_bridge.h"

namespace lumora_hub {

namespace {

std::string HostName() {
    std::array<char, 256> name = {};
    const bool isKnown = gethostname(name.data(), name.size() - 1) == 0 && name[0] != '\0';
    return isKnown ? name.data() : "hub";
}

class MqttFace : public Face {
public:
    void AddOptions(CLI::App& app) override {
        const char* group = "MQTT";
        mSettings.name = HostName();
        mSettings.version = LUMORA_VERSION;
        app.add_option("--mqtt", mBroker, "Hand devices to this broker")
            ->type_name("HOST[:PORT]")
            ->group(group);
        app.add_option("--mqtt-services", mSettings.services,
                       "Publish the blocks of the services that match, e.g. camera@*/picture; repeatable")
            ->type_name("DEVICE/SERVICE")
            ->capture_default_str()
            ->group(group);
        app.add_option("--mqtt-prefix", mSettings.prefix, "What the topics begin with")
            ->capture_default_str()
            ->group(group);
        app.add_option("--mqtt-name", mSettings.name, "The name of this hub; each hub needs another")
            ->capture_default_str()
            ->group(group);
        app.add_option("--mqtt-qos", mSettings.qos,
                       "Of blocks: 1 repeats what is not acknowledged, 0 does not")
            ->check(CLI::Range(0, 1))
            ->capture_default_str()
            ->group(group);
        AddSecurity(app, group);
        app.add_option("--mqtt-home-assistant", mSettings.homeAssistant,
                       "Announce devices to Home Assistant, at topics that begin with this")
            ->expected(0, 1)
            ->default_str("homeassistant")
            ->type_name("PREFIX")
            ->group(group);
    }

    void Start(DeviceHub& hub) override {
        if (mBroker.empty()) {
            return;
        }
        if (!SetBroker(mBroker, mSettings)) {
            throw std::runtime_error("--mqtt needs HOST or HOST:PORT, not \"" + mBroker + '"');
        }
        mSettings.tls = mSettings.tls || !mSettings.caFile.empty() || !mSettings.certificate.empty();
        const std::string problem = ProblemOf(mSettings);
        if (!problem.empty()) {
            throw std::runtime_error(problem);
        }
        mBridge = std::make_unique<MqttBridge>(hub, mSettings);
    }

private:
    void AddSecurity(CLI::App& app, const char* group) {
        app.add_flag("--mqtt-tls", mSettings.tls, "Use TLS, with the certificates that this host trusts")
            ->group(group);
        app.add_option("--mqtt-tls-ca", mSettings.caFile, "Use TLS, and trust the certificates in this file")
            ->type_name("FILE")
            ->group(group);
        app.add_option("--mqtt-certificate", mSettings.certificate, "The hub's own certificate")
            ->type_name("FILE")
            ->group(group);
        app.add_option("--mqtt-key", mSettings.key, "The key of that certificate")
            ->type_name("FILE")
            ->group(group);
        app.add_option("--mqtt-user", mSettings.user, "The hub's name at the broker")->group(group);
        app.add_option("--mqtt-password-file", mSettings.passwordFile,
                       "A file with the password, which only its owner may read")
            ->type_name("FILE")
            ->group(group);
    }

    MqttSettings mSettings;
    std::string mBroker;
    std::unique_ptr<MqttBridge> mBridge;
};

}  // namespace

std::unique_ptr<Face> MakeMqttFace() { return std::make_unique<MqttFace>(); }

}  // namespace lumora_hub
