#include "tests/hub/support/broker.h"

#include <arpa/inet.h>
#include <mqtt_protocol.h>
#include <netinet/in.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "base/unique_fd.h"
#include "tests/support/eventually.h"

namespace lumora_hub_test {

using lumora::MutexLock;
using lumora_test::Eventually;

namespace {

void Require(int result, const char* what) {
    if (result != MOSQ_ERR_SUCCESS) {
        throw std::runtime_error(std::string(what) + ": " + mosquitto_strerror(result));
    }
}

pid_t Spawn(const std::vector<std::string>& arguments) {
    std::vector<char*> pointers;
    pointers.reserve(arguments.size() + 1);
    for (const std::string& argument : arguments) {
        pointers.push_back(const_cast<char*>(argument.c_str()));
    }
    pointers.push_back(nullptr);
    pid_t process = -1;
    if (posix_spawnp(&process, pointers[0], nullptr, nullptr, pointers.data(), environ) != 0) {
        throw std::runtime_error("cannot be run: " + arguments[0]);
    }
    return process;
}

bool IsListening() {
    const lumora::UniqueFd probe(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(Broker::PORT);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return connect(probe.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
}

std::string TextOf(const mosquitto_property* properties, int identifier) {
    char* text = nullptr;
    mosquitto_property_read_string(properties, identifier, &text, false);
    const std::unique_ptr<char, decltype(&std::free)> owner(text, &std::free);
    return text != nullptr ? text : "";
}

std::string BytesOf(const mosquitto_property* properties, int identifier) {
    void* bytes = nullptr;
    std::uint16_t length = 0;
    mosquitto_property_read_binary(properties, identifier, &bytes, &length, false);
    const std::unique_ptr<void, decltype(&std::free)> owner(bytes, &std::free);
    return bytes != nullptr ? std::string(static_cast<const char*>(bytes), length) : "";
}

std::map<std::string, std::string> UserOf(const mosquitto_property* properties) {
    std::map<std::string, std::string> user;
    char* name = nullptr;
    char* value = nullptr;
    bool isFurther = false;
    while ((properties = mosquitto_property_read_string_pair(properties, MQTT_PROP_USER_PROPERTY, &name,
                                                             &value, isFurther)) != nullptr) {
        user[name] = value;
        std::free(name);
        std::free(value);
        isFurther = true;
    }
    return user;
}

}  // namespace

TemporaryFolder::TemporaryFolder() {
    const char* parent = std::getenv("TMPDIR");
    std::string path = std::string(parent != nullptr ? parent : "/tmp") + "/lumora-broker-XXXXXX";
    if (mkdtemp(path.data()) == nullptr) {
        throw std::runtime_error("no temporary folder");
    }
    mPath = path;
}

TemporaryFolder::~TemporaryFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(mPath, ignored);
}

std::string TemporaryFolder::Write(const std::string& name, const std::string& text) const {
    const std::string path = Path(name);
    std::ofstream(path) << text;
    chmod(path.c_str(), S_IRUSR | S_IWUSR);
    return path;
}

Broker::Broker(const std::string& settings) {
    const std::string port = std::to_string(PORT);
    // It would become another user, who may not read the test's files.
    mConfiguration = mFolder.Write("broker.conf",
                                   "user root\nlog_type error\nlistener " + port + " 127.0.0.1\n" + settings);
    Start();
}

Broker::~Broker() { Kill(); }

void Broker::Start() {
    mProcess = Spawn({"/usr/sbin/mosquitto", "-c", mConfiguration});
    if (!Eventually(IsListening)) {
        throw std::runtime_error("the broker does not start");
    }
}

void Broker::Kill() {
    if (mProcess > 0) {
        kill(mProcess, SIGKILL);
        waitpid(mProcess, nullptr, 0);
        mProcess = -1;
    }
}

void Broker::Freeze() const { kill(mProcess, SIGSTOP); }
void Broker::Thaw() const { kill(mProcess, SIGCONT); }

bool RunProgram(const std::vector<std::string>& arguments) {
    int status = 0;
    return waitpid(Spawn(arguments), &status, 0) > 0 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

BrokerClient::BrokerClient() {
    static const int initialized = mosquitto_lib_init();
    Require(initialized, "initialization");
    mClient.reset(mosquitto_new(nullptr, true, this));
    mosquitto* client = mClient.get();
    mosquitto_int_option(client, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
    mosquitto_message_v5_callback_set(
        client, [](mosquitto*, void* self, const mosquitto_message* message, const mosquitto_property* list) {
            static_cast<BrokerClient*>(self)->Keep(*message, list);
        });
    mosquitto_connect_callback_set(client, [](mosquitto*, void* self, int) {
        auto& own = *static_cast<BrokerClient*>(self);
        const MutexLock lock(own.mMutex);
        own.mIsConnected = true;
    });
    mosquitto_subscribe_callback_set(client, [](mosquitto*, void* self, int number, int, const int*) {
        auto& own = *static_cast<BrokerClient*>(self);
        const MutexLock lock(own.mMutex);
        own.mSubscribed = number;
    });
    Require(mosquitto_connect(client, "127.0.0.1", Broker::PORT, 60), "connecting");
    Require(mosquitto_loop_start(client), "the thread");
    if (!Eventually([&] {
            const MutexLock lock(mMutex);
            return mIsConnected;
        })) {
        throw std::runtime_error("the broker does not answer");
    }
}

BrokerClient::~BrokerClient() {
    // The thread ends by itself after that. If it is cancelled, its locks may stay taken.
    mosquitto_disconnect(mClient.get());
    mosquitto_loop_stop(mClient.get(), false);
}

void BrokerClient::Subscribe(const std::string& filter, int qos) {
    int number = 0;
    Require(mosquitto_subscribe(mClient.get(), &number, filter.c_str(), qos), "subscribing");
    if (!Eventually([&] {
            const MutexLock lock(mMutex);
            return mSubscribed == number;
        })) {
        throw std::runtime_error("the broker does not answer a subscription");
    }
}

void BrokerClient::Publish(const std::string& topic, const std::string& payload, const Options& options) {
    mosquitto_property* list = nullptr;
    if (!options.replyTopic.empty()) {
        mosquitto_property_add_string(&list, MQTT_PROP_RESPONSE_TOPIC, options.replyTopic.c_str());
    }
    if (!options.correlation.empty()) {
        mosquitto_property_add_binary(&list, MQTT_PROP_CORRELATION_DATA, options.correlation.data(),
                                      static_cast<std::uint16_t>(options.correlation.size()));
    }
    const int result =
        mosquitto_publish_v5(mClient.get(), nullptr, topic.c_str(), static_cast<int>(payload.size()),
                             payload.data(), 1, options.isRetained, list);
    mosquitto_property_free_all(&list);
    Require(result, "publishing");
}

std::vector<Received> BrokerClient::All() const {
    const MutexLock lock(mMutex);
    return mReceived;
}

std::vector<Received> BrokerClient::At(const std::string& topic) const {
    const MutexLock lock(mMutex);
    std::vector<Received> found;
    std::copy_if(mReceived.begin(), mReceived.end(), std::back_inserter(found),
                 [&](const Received& message) { return message.topic == topic; });
    return found;
}

std::optional<std::string> BrokerClient::Last(const std::string& topic) const {
    const auto found = At(topic);
    return found.empty() ? std::nullopt : std::make_optional(found.back().payload);
}

bool BrokerClient::WaitForLast(const std::string& topic, const std::string& payload) const {
    return Eventually([&] { return Last(topic) == payload; });
}

void BrokerClient::Forget() {
    const MutexLock lock(mMutex);
    mReceived.clear();
}

void BrokerClient::Keep(const mosquitto_message& message, const mosquitto_property* properties) {
    Received received;
    received.topic = message.topic;
    received.payload.assign(static_cast<const char*>(message.payload),
                            static_cast<std::size_t>(message.payloadlen));
    received.isRetained = message.retain;
    received.contentType = TextOf(properties, MQTT_PROP_CONTENT_TYPE);
    received.correlation = BytesOf(properties, MQTT_PROP_CORRELATION_DATA);
    received.user = UserOf(properties);
    const MutexLock lock(mMutex);
    mReceived.push_back(std::move(received));
}

}  // namespace lumora_hub_test
