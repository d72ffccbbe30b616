// A broker of the test's own, and clients of it.
#pragma once

#include <mosquitto.h>
#include <sys/types.h>

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/mutex.h"

namespace lumora_hub_test {

// A folder that goes with its files.
class TemporaryFolder {
public:
    TemporaryFolder();
    ~TemporaryFolder();
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;
    std::string Path(const std::string& name) const { return mPath + "/" + name; }
    // Writes a file that only its owner may read; returns its path.
    std::string Write(const std::string& name, const std::string& text) const;

private:
    std::string mPath;
};

// mosquitto, as a process. Keeps nothing on disk: a broker that is started again knows nothing.
class Broker {
public:
    static constexpr int PORT = 1883;

    // settings are lines of its configuration; without them everyone may do everything.
    explicit Broker(const std::string& settings = "allow_anonymous true\n");
    ~Broker();
    Broker(const Broker&) = delete;
    Broker& operator=(const Broker&) = delete;

    void Start();
    void Kill();  // as by SIGKILL
    // Stops and continues reading, as a broker on a slow host does.
    void Freeze() const;
    void Thaw() const;

private:
    TemporaryFolder mFolder;
    std::string mConfiguration;
    pid_t mProcess = -1;
};

// Waits for a program that is run; its output goes where the test's goes. True if it ends with 0.
bool RunProgram(const std::vector<std::string>& arguments);

struct Received {
    std::string topic;
    std::string payload;
    bool isRetained = false;
    std::string contentType;
    std::string correlation;
    std::map<std::string, std::string> user;
};

// A client with a thread of its own.
class BrokerClient {
public:
    BrokerClient();
    ~BrokerClient();
    BrokerClient(const BrokerClient&) = delete;
    BrokerClient& operator=(const BrokerClient&) = delete;

    // Returns when the broker has answered.
    void Subscribe(const std::string& filter, int qos = 1);
    struct Options {
        bool isRetained = false;
        std::string replyTopic;
        std::string correlation;
    };
    void Publish(const std::string& topic, const std::string& payload, const Options& options);
    void Publish(const std::string& topic, const std::string& payload) { Publish(topic, payload, {}); }

    std::vector<Received> All() const;
    std::vector<Received> At(const std::string& topic) const;
    // The payload of the last message there.
    std::optional<std::string> Last(const std::string& topic) const;
    bool WaitForLast(const std::string& topic, const std::string& payload) const;
    void Forget();

private:
    struct Deleter {
        void operator()(mosquitto* client) const { mosquitto_destroy(client); }
    };

    void Keep(const mosquitto_message& message, const mosquitto_property* properties);

    std::unique_ptr<mosquitto, Deleter> mClient;
    mutable lumora::Mutex mMutex;
    std::vector<Received> mReceived GUARDED_BY(mMutex);
    int mSubscribed GUARDED_BY(mMutex) = 0;  // the last number that the broker has answered
    bool mIsConnected GUARDED_BY(mMutex) = false;
};

}  // namespace lumora_hub_test
