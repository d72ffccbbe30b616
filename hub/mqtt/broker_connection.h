// One connection to a broker, from the attempt to its end.
#pragma once

#include <mosquitto.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "hub/mqtt/settings.h"

namespace lumora_hub {

// What comes in from the broker.
struct MqttMessage {
    std::string topic;
    std::string payload;
    bool isRetained = false;
    std::string replyTopic;
    std::string correlation;
};

struct MqttProperties {
    const char* contentType = nullptr;
    bool isText = false;
    std::vector<std::pair<const char*, std::string>> user;
    std::string correlation;
};

struct MqttPublication {
    std::string topic;
    const std::string& payload;
    int qos = 1;
    bool isRetained = false;
    MqttProperties properties;
};

// For one thread, which polls its socket. No function waits for the broker; Open waits for the resolver if
// the host is a name. libmosquitto copies what is published, so the caller looks at WantsWrite first: while
// there are bytes that the socket has not taken, it publishes nothing more.
class BrokerConnection {
public:
    // Called from Read, Write, CheckTimes, Publish and Subscribe. It must not call back.
    class Listener {
    public:
        virtual ~Listener() = default;
        virtual void OnConnected() = 0;
        // QoS 1: the broker has answered. QoS 0: the socket has taken the bytes. May come before Publish
        // returns. refusal is null, or why the broker does not take it.
        virtual void OnPublished(int number, const char* refusal) = 0;
        virtual void OnSubscribed(int number, const char* refusal) = 0;
        virtual void OnMessage(MqttMessage message) = 0;
    };

    enum class Result { DONE, IMPOSSIBLE, LOST };

    // The last will is "false" at willTopic, retained.
    BrokerConnection(const MqttSettings& settings, const std::string& willTopic, Listener& listener);
    ~BrokerConnection();
    BrokerConnection(const BrokerConnection&) = delete;
    BrokerConnection& operator=(const BrokerConnection&) = delete;

    // The functions that return a bool return false if the connection is lost; Reason says why.
    bool Open();
    int Socket() const { return mosquitto_socket(mClient.get()); }
    bool WantsWrite() const { return mosquitto_want_write(mClient.get()); }
    bool Read();
    bool Write();
    bool CheckTimes();  // keeps the connection alive; to be called each second

    // number is what OnPublished has. IMPOSSIBLE: this one cannot be published, e.g. because the broker takes
    // no packets of this size; Reason says why.
    Result Publish(const MqttPublication& publication, int& number);
    bool Subscribe(const std::string& filter, int options, int& number);
    // Says goodbye, so that the broker does not publish the last will.
    void Disconnect();

    const std::string& Reason() const { return mReason; }

private:
    struct Deleter {
        void operator()(mosquitto* client) const { mosquitto_destroy(client); }
    };

    void SetSecurity();
    void SetCredentials();
    void SetWill(const std::string& topic);
    void SetLimits();
    void SetCallbacks();
    bool Handle(int result);
    void Require(int result, const char* what) const;
    template <typename Function>
    void Guard(Function function) noexcept;

    void OnConnect(int reason);
    void OnDisconnect(int reason);
    void OnMessageCallback(const mosquitto_message& message, const mosquitto_property* properties);

    const MqttSettings mSettings;
    Listener& mListener;
    std::unique_ptr<mosquitto, Deleter> mClient;
    bool mIsFailed = false;    // a callback ran out of memory
    std::string mReason;       // why the connection is lost
    std::string mLibraryWord;  // the last error that libmosquitto logged: TLS tells its reasons in this way
};

}  // namespace lumora_hub
