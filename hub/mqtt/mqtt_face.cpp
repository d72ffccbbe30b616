#include "hub/mqtt/mqtt_face.h"

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <array>

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
        mSettings.name = HostName();
        mSettings.version = LUMORA_VERSION;
        CLI::Option* const broker = app.add_option("--mqtt", mBroker, "hands devices to this MQTT broker")
                                        ->type_name("HOST[:PORT]")
                                        ->group(GROUP);
        AddTopics(app);
        AddSecurity(app);
        AddHomeAssistant(app);
        // Without a broker they would do nothing, and their user would not know. A flag may be false in the
        // file.
        for (CLI::Option* const option : app.get_options()) {
            const bool isFlag = option->get_items_expected_max() == 0;
            if (option->get_group() == GROUP && option != broker && !isFlag) {
                option->needs(broker);
            }
        }
    }

    void Start(DeviceHub& hub, FigureBoard& figures) override {
        if (mBroker.empty()) {
            RequireNoFlag();
            return;
        }
        if (!SetBroker(mBroker, mSettings)) {
            throw OptionError("--mqtt needs HOST or HOST:PORT, not \"" + mBroker + '"');
        }
        mSettings.tls = mSettings.tls || !mSettings.caFile.empty() || !mSettings.certificate.empty();
        mSettings.homeAssistant = mHomeAssistant ? mHomeAssistantPrefix : "";
        const std::string problem = ProblemOf(mSettings);
        if (!problem.empty()) {
            throw OptionError(problem);
        }
        mBridge = std::make_unique<MqttBridge>(hub, figures, mSettings);
    }

private:
    static constexpr const char* GROUP = "MQTT";

    void RequireNoFlag() const {
        if (mSettings.tls || mHomeAssistant) {
            throw OptionError(std::string(mSettings.tls ? "--mqtt-tls" : "--mqtt-home-assistant") +
                              " requires --mqtt");
        }
    }

    void AddTopics(CLI::App& app) {
        app.add_option("--mqtt-services", mSettings.services,
                       "only blocks of services that match, such as camera@*/picture; may be repeated")
            ->type_name("DEVICE/SERVICE")
            ->capture_default_str()
            ->group(GROUP);
        app.add_option("--mqtt-prefix", mSettings.prefix, "what the topics begin with")
            ->type_name("TOPIC")
            ->capture_default_str()
            ->group(GROUP);
        app.add_option("--mqtt-name", mSettings.name, "the name of this hub; each hub needs one of its own")
            ->type_name("NAME")
            ->capture_default_str()
            ->group(GROUP);
        app.add_option("--mqtt-qos", mSettings.qos,
                       "of blocks: 1 repeats those that a broken connection took with it, 0 does not")
            ->type_name("NUMBER")
            ->check(CLI::Range(0, 1))
            ->capture_default_str()
            ->group(GROUP);
    }

    void AddSecurity(CLI::App& app) {
        app.add_flag("--mqtt-tls", mSettings.tls, "uses TLS, with the certificates that this host trusts")
            ->group(GROUP);
        app.add_option("--mqtt-tls-ca", mSettings.caFile,
                       "uses TLS, and trusts the certificates of this file only")
            ->type_name("FILE")
            ->group(GROUP);
        app.add_option("--mqtt-certificate", mSettings.certificate,
                       "the certificate that the hub shows to the broker")
            ->type_name("FILE")
            ->group(GROUP);
        app.add_option("--mqtt-key", mSettings.key, "the key of that certificate")
            ->type_name("FILE")
            ->group(GROUP);
        app.add_option("--mqtt-user", mSettings.user, "the user that the hub is at the broker")
            ->type_name("NAME")
            ->group(GROUP);
        app.add_option("--mqtt-password-file", mSettings.passwordFile,
                       "a file with the password; only its owner may be able to read it")
            ->type_name("FILE")
            ->group(GROUP);
    }

    void AddHomeAssistant(CLI::App& app) {
        CLI::Option* const announces =
            app.add_flag("--mqtt-home-assistant", mHomeAssistant, "announces devices to Home Assistant")
                ->group(GROUP);
        app.add_option("--mqtt-home-assistant-prefix", mHomeAssistantPrefix,
                       "what the topics of that begin with")
            ->type_name("TOPIC")
            ->capture_default_str()
            ->needs(announces)
            ->group(GROUP);
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
