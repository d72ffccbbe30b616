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
        app.add_option("--mqtt", mBroker, "hands devices to this MQTT broker")
            ->type_name("HOST[:PORT]")
            ->group(group);
        app.add_option("--mqtt-services", mSettings.services,
                       "only blocks of services that match, such as camera@*/picture; may be repeated")
            ->type_name("DEVICE/SERVICE")
            ->capture_default_str()
            ->group(group);
        app.add_option("--mqtt-prefix", mSettings.prefix, "what the topics begin with")
            ->type_name("TOPIC")
            ->capture_default_str()
            ->group(group);
        app.add_option("--mqtt-name", mSettings.name, "the name of this hub; each hub needs one of its own")
            ->type_name("NAME")
            ->capture_default_str()
            ->group(group);
        app.add_option("--mqtt-qos", mSettings.qos,
                       "of blocks: 1 repeats those that a broken connection took with it, 0 does not")
            ->type_name("NUMBER")
            ->check(CLI::Range(0, 1))
            ->capture_default_str()
            ->group(group);
        AddSecurity(app, group);
        app.add_flag("--mqtt-home-assistant", mHomeAssistant, "announces devices to Home Assistant")
            ->group(group);
        app.add_option("--mqtt-home-assistant-prefix", mHomeAssistantPrefix,
                       "what the topics of that begin with")
            ->type_name("TOPIC")
            ->capture_default_str()
            ->group(group);
    }

    void Start(DeviceHub& hub, FigureBoard& figures) override {
        if (mBroker.empty()) {
            return;
        }
        if (!SetBroker(mBroker, mSettings)) {
            throw std::runtime_error("--mqtt needs HOST or HOST:PORT, not \"" + mBroker + '"');
        }
        mSettings.tls = mSettings.tls || !mSettings.caFile.empty() || !mSettings.certificate.empty();
        mSettings.homeAssistant = mHomeAssistant ? mHomeAssistantPrefix : "";
        const std::string problem = ProblemOf(mSettings);
        if (!problem.empty()) {
            throw std::runtime_error(problem);
        }
        mBridge = std::make_unique<MqttBridge>(hub, figures, mSettings);
    }

private:
    void AddSecurity(CLI::App& app, const char* group) {
        app.add_flag("--mqtt-tls", mSettings.tls, "uses TLS, with the certificates that this host trusts")
            ->group(group);
        app.add_option("--mqtt-tls-ca", mSettings.caFile,
                       "uses TLS, and trusts the certificates of this file only")
            ->type_name("FILE")
            ->group(group);
        app.add_option("--mqtt-certificate", mSettings.certificate,
                       "the certificate that the hub shows to the broker")
            ->type_name("FILE")
            ->group(group);
        app.add_option("--mqtt-key", mSettings.key, "the key of that certificate")
            ->type_name("FILE")
            ->group(group);
        app.add_option("--mqtt-user", mSettings.user, "the user that the hub is at the broker")
            ->type_name("NAME")
            ->group(group);
        app.add_option("--mqtt-password-file", mSettings.passwordFile,
                       "a file with the password; only its owner may be able to read it")
            ->type_name("FILE")
            ->group(group);
    }

    MqttSettings mSettings;
    std::string mBroker;
    bool mHomeAssistant = false;
    std::string mHomeAssistantPrefix = "homeassistant";
    std::unique_ptr<MqttBridge> mBridge;
};

}  // namespace

std::unique_ptr<Face> MakeMqttFace() { return std::make_unique<MqttFace>(); }

}  // namespace lumora_hub
