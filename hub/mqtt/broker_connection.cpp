#include "hub/mqtt/broker_connection.h"

#include <fcntl.h>
#include <mqtt_protocol.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <system_error>

#include "base/unique_fd.h"
#include "hub/mqtt/request_limits.h"

namespace lumora_hub {

namespace {

constexpr int KEEPALIVE_S = 30;
constexpr int PLAIN_PORT = 1883;
constexpr int TLS_PORT = 8883;
constexpr int VERIFY_PEER = 1;
constexpr std::size_t MOST_PASSWORD_BYTES = 4096;
constexpr std::size_t MOST_CORRELATION_BYTES = 1024;

struct FreeProperties {
    void operator()(mosquitto_property* list) const { mosquitto_property_free_all(&list); }
};
using PropertyList = std::unique_ptr<mosquitto_property, FreeProperties>;

// Adds one property; what the library cannot add for want of memory ends the work.
template <typename Function, typename... Arguments>
void AddProperty(PropertyList& list, Function add, Arguments... arguments) {
    mosquitto_property* head = list.release();
    const int result = add(&head, arguments...);
    list.reset(head);
    if (result != MOSQ_ERR_SUCCESS) {
        throw std::runtime_error(mosquitto_strerror(result));
    }
}

PropertyList ListOf(const MqttProperties& properties) {
    PropertyList list;
    if (properties.contentType != nullptr) {
        AddProperty(list, mosquitto_property_add_string, MQTT_PROP_CONTENT_TYPE, properties.contentType);
    }
    if (properties.isText) {
        AddProperty(list, mosquitto_property_add_byte, MQTT_PROP_PAYLOAD_FORMAT_INDICATOR, std::uint8_t{1});
    }
    if (!properties.correlation.empty()) {
        AddProperty(list, mosquitto_property_add_binary, MQTT_PROP_CORRELATION_DATA,
                    properties.correlation.data(), static_cast<std::uint16_t>(properties.correlation.size()));
    }
    for (const auto& [name, value] : properties.user) {
        AddProperty(list, mosquitto_property_add_string_pair, MQTT_PROP_USER_PROPERTY, name, value.c_str());
    }
    return list;
}

const char* OrNull(const std::string& text) { return text.empty() ? nullptr : text.c_str(); }

// The first line of a file that only its owner may read.
std::string ReadPassword(const std::string& path) {
    const lumora::UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat about = {};
    if (!file || fstat(file.Get(), &about) != 0) {
        throw std::runtime_error("the password file cannot be read: " +
                                 std::generic_category().message(errno));
    }
    if ((about.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
        throw std::runtime_error("others may read the password file: chmod 600 " + path);
    }
    std::array<char, MOST_PASSWORD_BYTES> text = {};
    const ssize_t length = read(file.Get(), text.data(), text.size());
    std::string password(text.data(), length > 0 ? static_cast<std::size_t>(length) : 0);
    return password.substr(0, password.find_first_of("\r\n"));
}

// libmosquitto does not tell which file it could not open, nor why.
void RequireReadable(const std::string& path) {
    if (!path.empty() && access(path.c_str(), R_OK) != 0) {
        throw std::runtime_error(path + " cannot be read: " + std::generic_category().message(errno));
    }
}

std::string ErrorText(int result) {
    return result == MOSQ_ERR_ERRNO ? std::generic_category().message(errno) : mosquitto_strerror(result);
}

// libmosquitto's initialisation is not safe against threads, and never needs to be undone.
void InitializeLibrary() {
    static const int result = mosquitto_lib_init();
    if (result != MOSQ_ERR_SUCCESS) {
        throw std::runtime_error("libmosquitto cannot be used: " + ErrorText(result));
    }
}

constexpr int FAILURES = 0x80;  // reason codes from here on are refusals

const char* RefusalOf(int reason) { return reason >= FAILURES ? mosquitto_reason_string(reason) : nullptr; }

std::string ReadText(const mosquitto_property* properties, int identifier) {
    char* text = nullptr;
    if (mosquitto_property_read_string(properties, identifier, &text, false) == nullptr) {
        return "";
    }
    const std::unique_ptr<char, decltype(&std::free)> owner(text, &std::free);
    return text;
}

std::string ReadBytes(const mosquitto_property* properties, int identifier) {
    void* bytes = nullptr;
    std::uint16_t length = 0;
    if (mosquitto_property_read_binary(properties, identifier, &bytes, &length, false) == nullptr) {
        return "";
    }
    const std::unique_ptr<void, decltype(&std::free)> owner(bytes, &std::free);
    return length <= MOST_CORRELATION_BYTES ? std::string(static_cast<const char*>(bytes), length) : "";
}

}  // namespace

BrokerConnection::BrokerConnection(const MqttSettings& settings, const std::string& willTopic,
                                   Listener& listener)
    : mSettings(settings), mListener(listener) {
    InitializeLibrary();
    mClient.reset(mosquitto_new(("lumora-hub-" + settings.name).c_str(), true, this));
    if (mClient == nullptr) {
        throw std::runtime_error("no MQTT client can be made: " + ErrorText(MOSQ_ERR_ERRNO));
    }
    Require(mosquitto_int_option(mClient.get(), MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5), "MQTT 5");
    Require(mosquitto_int_option(mClient.get(), MOSQ_OPT_TCP_NODELAY, 1), "an option");
    SetSecurity();
    SetCredentials();
    SetWill(willTopic);
    SetLimits();
    SetCallbacks();
}

BrokerConnection::~BrokerConnection() = default;

bool BrokerConnection::Open() {
    const int port = mSettings.port != 0 ? mSettings.port : mSettings.tls ? TLS_PORT : PLAIN_PORT;
    return Handle(
        mosquitto_connect_bind_async(mClient.get(), mSettings.host.c_str(), port, KEEPALIVE_S, nullptr));
}

bool BrokerConnection::Read() {
    int error = 0;
    socklen_t length = sizeof(error);
    if (getsockopt(Socket(), SOL_SOCKET, SO_ERROR, &error, &length) == 0 && error != 0) {
        mReason = std::generic_category().message(error);
        return false;
    }
    return Handle(mosquitto_loop_read(mClient.get(), 1));
}

bool BrokerConnection::Write() { return Handle(mosquitto_loop_write(mClient.get(), 1)); }

bool BrokerConnection::CheckTimes() { return Handle(mosquitto_loop_misc(mClient.get())); }

BrokerConnection::Result BrokerConnection::Publish(const MqttPublication& publication, int& number) {
    const PropertyList properties = ListOf(publication.properties);
    const int result = mosquitto_publish_v5(
        mClient.get(), &number, publication.topic.c_str(), static_cast<int>(publication.payload.size()),
        publication.payload.data(), publication.qos, publication.isRetained, properties.get());
    switch (result) {
        case MOSQ_ERR_INVAL:
        case MOSQ_ERR_MALFORMED_UTF8:
        case MOSQ_ERR_OVERSIZE_PACKET:
        case MOSQ_ERR_PAYLOAD_SIZE:
        case MOSQ_ERR_QOS_NOT_SUPPORTED:
        case MOSQ_ERR_RETAIN_NOT_SUPPORTED:
            mReason = mosquitto_strerror(result);
            return Result::IMPOSSIBLE;
        default:
            return Handle(result) ? Result::DONE : Result::LOST;
    }
}

bool BrokerConnection::Subscribe(const std::string& filter, int options, int& number) {
    return Handle(mosquitto_subscribe_v5(mClient.get(), &number, filter.c_str(), 1, options, nullptr));
}

void BrokerConnection::Disconnect() { mosquitto_disconnect(mClient.get()); }

void BrokerConnection::SetSecurity() {
    if (!mSettings.tls) {
        return;
    }
    if (mSettings.caFile.empty()) {
        Require(mosquitto_int_option(mClient.get(), MOSQ_OPT_TLS_USE_OS_CERTS, 1),
                "the system's certificates");
    }
    if (!mSettings.caFile.empty() || !mSettings.certificate.empty()) {
        for (const std::string& file : {mSettings.caFile, mSettings.certificate, mSettings.key}) {
            RequireReadable(file);
        }
        // A key with a pass phrase would be asked for on the terminal; there is none.
        const auto noPhrase = [](char*, int, int, void*) { return 0; };
        Require(mosquitto_tls_set(mClient.get(), OrNull(mSettings.caFile), nullptr,
                                  OrNull(mSettings.certificate), OrNull(mSettings.key), noPhrase),
                "a file of certificates or keys");
    }
    Require(mosquitto_tls_opts_set(mClient.get(), VERIFY_PEER, nullptr, nullptr), "TLS");
}

void BrokerConnection::SetCredentials() {
    if (mSettings.user.empty()) {
        return;
    }
    // Read each time, so that a changed password needs no restart.
    const std::string password = mSettings.passwordFile.empty() ? "" : ReadPassword(mSettings.passwordFile);
    Require(mosquitto_username_pw_set(mClient.get(), mSettings.user.c_str(), OrNull(password)), "the user");
}

void BrokerConnection::SetWill(const std::string& topic) {
    const std::string word = "false";
    Require(mosquitto_will_set_v5(mClient.get(), topic.c_str(), static_cast<int>(word.size()), word.data(), 1,
                                  true, nullptr),
            "the last will");
}

// Tells the broker how large a packet may be, and how many unanswered ones. The function that takes these
// properties also connects, and waits for that. Without a host it only keeps the properties: the connection
// itself is opened by the other function, which does not wait.
void BrokerConnection::SetLimits() {
    PropertyList list;
    AddProperty(list, mosquitto_property_add_int32, MQTT_PROP_MAXIMUM_PACKET_SIZE,
                static_cast<std::uint32_t>(MOST_BLOCK_BYTES + MOST_OVERHEAD_BYTES));
    AddProperty(list, mosquitto_property_add_int16, MQTT_PROP_RECEIVE_MAXIMUM,
                static_cast<std::uint16_t>(MOST_REQUESTS));
    const int result =
        mosquitto_connect_bind_v5(mClient.get(), nullptr, PLAIN_PORT, KEEPALIVE_S, nullptr, list.get());
    Require(result == MOSQ_ERR_INVAL ? MOSQ_ERR_SUCCESS : result, "limits");
}

void BrokerConnection::SetCallbacks() {
    mosquitto* client = mClient.get();
    mosquitto_connect_v5_callback_set(client,
                                      [](mosquitto*, void* self, int reason, int, const mosquitto_property*) {
                                          static_cast<BrokerConnection*>(self)->OnConnect(reason);
                                      });
    mosquitto_disconnect_v5_callback_set(client,
                                         [](mosquitto*, void* self, int reason, const mosquitto_property*) {
                                             static_cast<BrokerConnection*>(self)->OnDisconnect(reason);
                                         });
    mosquitto_publish_v5_callback_set(
        client, [](mosquitto*, void* self, int number, int reason, const mosquitto_property*) {
            auto& connection = *static_cast<BrokerConnection*>(self);
            connection.Guard([&] { connection.mListener.OnPublished(number, RefusalOf(reason)); });
        });
    mosquitto_subscribe_v5_callback_set(client, [](mosquitto*, void* self, int number, int count,
                                                   const int* granted, const mosquitto_property*) {
        auto& connection = *static_cast<BrokerConnection*>(self);
        const int reason = count > 0 ? granted[0] : 0;
        connection.Guard([&] { connection.mListener.OnSubscribed(number, RefusalOf(reason)); });
    });
    mosquitto_message_v5_callback_set(client, [](mosquitto*, void* self, const mosquitto_message* message,
                                                 const mosquitto_property* properties) {
        static_cast<BrokerConnection*>(self)->OnMessageCallback(*message, properties);
    });
    mosquitto_log_callback_set(client, [](mosquitto*, void* self, int level, const char* text) {
        auto& connection = *static_cast<BrokerConnection*>(self);
        if (level == MOSQ_LOG_ERR) {
            connection.Guard([&] { connection.mLibraryWord = text; });
        }
    });
}

// False if the connection is lost.
bool BrokerConnection::Handle(int result) {
    if (result == MOSQ_ERR_SUCCESS && !mIsFailed && Socket() >= 0) {
        return true;
    }
    if (mReason.empty()) {
        mReason = mIsFailed ? "out of memory" : result == MOSQ_ERR_SUCCESS ? "closed" : ErrorText(result);
    }
    if (!mLibraryWord.empty()) {
        mReason += " (" + mLibraryWord + ")";
        mLibraryWord.clear();
    }
    return false;
}

void BrokerConnection::Require(int result, const char* what) const {
    if (result != MOSQ_ERR_SUCCESS) {
        throw std::runtime_error(std::string(what) + ": " + ErrorText(result));
    }
}

// No exception may pass through libmosquitto.
template <typename Function>
void BrokerConnection::Guard(Function function) noexcept {
    try {
        function();
    } catch (const std::exception&) {
        mIsFailed = true;
    }
}

void BrokerConnection::OnConnect(int reason) {
    Guard([&] {
        if (reason == 0) {
            mListener.OnConnected();
        } else {
            mReason = mosquitto_reason_string(reason);
        }
    });
}

// Reasons below FAILURES are errors of libmosquitto, which the call in progress returns as well.
void BrokerConnection::OnDisconnect(int reason) {
    Guard([&] {
        if (mReason.empty() && reason >= FAILURES) {
            mReason = mosquitto_reason_string(reason);
        }
    });
}

void BrokerConnection::OnMessageCallback(const mosquitto_message& message,
                                         const mosquitto_property* properties) {
    Guard([&] {
        MqttMessage copy;
        copy.topic = message.topic;
        copy.payload.assign(static_cast<const char*>(message.payload),
                            static_cast<std::size_t>(message.payloadlen));
        copy.isRetained = message.retain;
        copy.replyTopic = ReadText(properties, MQTT_PROP_RESPONSE_TOPIC);
        copy.correlation = ReadBytes(properties, MQTT_PROP_CORRELATION_DATA);
        mListener.OnMessage(std::move(copy));
    });
}

}  // namespace lumora_hub
