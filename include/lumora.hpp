/// @file
/// Lumora for C++17: lumora::Client uses a device, lumora::Device is one.
///
///     lumora::Client client("viewer");
///     client.OnData([](std::string_view service, lumora::Bytes data) { Show(data.Text()); });
///     client.Connect("camera");
///     client.Subscribe("faces");
///     client.Send(picture);
///
///     lumora::Device device("camera");
///     device.Offer("faces");
///     device.OnData([&](int client, lumora::Bytes picture) { device.Send("faces", FacesIn(picture)); });
///     device.Start();
///
/// All of it is inline and calls the functions of lumora.h, whose limits hold here, too. A program links with
/// liblumora_cpp as one in C does.
///
/// ### Errors
/// A function that fails throws a lumora::Error. Its overload with a std::error_code as the last argument
/// sets or clears that instead. If the function has no other result, the overload returns true for success.
/// The codes are lumora::Errc; the log says more. Only lack of memory throws from both. Without exceptions
/// (-fno-exceptions) use the overloads: the first form ends the program.
///
/// ### Threads and callbacks
/// Any thread may call any function. An object must not be moved or destroyed while another thread uses it.
/// Calls of one side (clients or device) run one after the other. A call to a device that does not answer
/// takes seconds, or up to a minute if its handler does not return; docs/guide.md has the table.
///
/// Handlers run on threads of the library, and delay everything else that their thread does. Long work
/// belongs on a thread of the application. Of one side, one handler runs at a time. Device::OnData,
/// Client::OnConnectionLost and Client::OnReconnected may run beside others.
///
/// | handler                                 | runs on                          | may call of its own side |
/// |-----------------------------------------|----------------------------------|--------------------------|
/// | Client::OnData                          | the connection's receive thread  | nothing                  |
/// | Client::OnDeviceLeft                    | the platform's event thread      | nothing                  |
/// | Client::OnConnectionLost, OnReconnected | a thread of the Client           | all, but not destroy it  |
/// | Device::OnCommand                       | a request thread of the platform | nothing                  |
/// | Device::OnSubscribe, OnUnsubscribe      | a request thread of the platform | nothing                  |
/// | Device::OnData                          | the connection's receive thread  | Device::Send             |
///
/// Setting handlers is allowed everywhere. A call that is not allowed would deadlock, so it fails. In
/// particular, no handler may destroy an object of its side.
///
/// The bytes of a block are read-only: several clients of a process may be given the same memory. Texts and
/// bytes that a handler is given are valid until it returns. A handler may be set or replaced at any time;
/// the one before may still be running for a moment. No handler runs once its Client or Device is destroyed,
/// so declare what handlers refer to before it.
///
/// ### Exceptions out of handlers
/// The library is C, so an exception does not pass through it. It is given to the handler set by
/// OnException, on the same thread. Without such a handler its text is written to standard error.
#ifndef LUMORA_HPP
#define LUMORA_HPP

#if __cplusplus < 201703L
#error "lumora.hpp needs C++17 (-std=c++17); lumora.h is for all others"
#endif

#include <dlfcn.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "lumora.h"

namespace lumora {

// ---- Errors

/// Why a call failed, as far as the library tells.
enum class Errc {
    NOT_JOINED = 1,    ///< the network cannot be joined, a Client was moved from, or a Device is not started
    TOO_MANY_CLIENTS,  ///< the process has 20 clients
    DEVICE_EXISTS,     ///< the process is a device already
    BAD_NAME,          ///< a type or a service has 1 to 39 characters, and none of them is NUL
    BAD_SERVICES,      ///< a device offers 1 to 8 services, whose description fits into 1,024 characters
    BAD_COMMAND,       ///< a command has 1 to 400 characters with its parameter; "subscribe" is none
    BAD_SIZE,          ///< a block has 1 to 5,242,880 bytes; one that a device sends, 1 to 1,024,000
    NO_DEVICE,         ///< no device of this type answered
    NOT_CONNECTED,     ///< the client is connected to no device
    CONNECT_FAILED,    ///< the device was found, but there is no data channel to it
    REFUSED,           ///< the device refused, or did not answer
    SEND_FAILED,       ///< no peer is connected, or the connection has ended; the block is lost
    INCOMPLETE,        ///< a part was sent; then half a second passed without progress, or the channel ended
    STOP_FAILED        ///< the network cannot be left
};

/// The category of Errc, named "lumora".
const std::error_category& ErrorCategory() noexcept;

/// Makes a std::error_code of an Errc.
inline std::error_code make_error_code(Errc code) noexcept {
    return {static_cast<int>(code), ErrorCategory()};
}

}  // namespace lumora

// Doxygen misreads a specialization in std.
/// @cond
template <>
struct std::is_error_code_enum<lumora::Errc> : std::true_type {};
/// @endcond

namespace lumora {

/// The exception of this header. code() is an Errc, what() names the function.
class Error : public std::system_error {
public:
    using std::system_error::system_error;
};

// ---- What is sent and found

/// A view of bytes that another object owns, as std::span is in C++20. Valid as long as those bytes.
/// Converts from texts (of a char pointer, up to its NUL) and from objects that have data() and size(), such
/// as a std::vector of std::uint16_t, whose memory it then shows.
class Bytes {
public:
    constexpr Bytes() = default;
    /// size bytes from data on.
    Bytes(const void* data, std::size_t size) : mData(static_cast<const char*>(data)), mSize(size) {}
    /// A text, up to its NUL.
    Bytes(const char* text) : Bytes(std::string_view(text)) {}  // NOLINT(google-explicit-constructor)
    /// What a container holds.
    template <typename Container,
              typename Element = std::remove_pointer_t<decltype(std::declval<const Container&>().data())>,
              typename = decltype(std::declval<const Container&>().size()),
              typename = std::enable_if_t<!std::is_base_of_v<Bytes, Container> &&
                                          std::is_trivially_copyable_v<Element>>>
    Bytes(const Container& container)  // NOLINT(google-explicit-constructor): as std::span
        : Bytes(container.data(), container.size() * sizeof(Element)) {}

    constexpr const char* data() const { return mData; }                ///< the first byte
    constexpr std::size_t size() const { return mSize; }                ///< how many
    constexpr bool empty() const { return mSize == 0; }                 ///< whether there are none
    constexpr const char* begin() const { return mData; }               ///< the first byte
    constexpr const char* end() const { return mData + mSize; }         ///< behind the last one
    constexpr std::string_view Text() const { return {mData, mSize}; }  ///< the bytes as a text

private:
    const char* mData = nullptr;
    std::size_t mSize = 0;
};

/// The kind of a service's data channel. Today every kind is carried over TCP; 4 and 5 are reserved.
enum class Transport : int { NONE = 0, UDP = 1, TCP = 2, RTP = 3 };

/// A service of a device.
struct Service {
    std::string name;                      ///< 1 to 39 characters
    unsigned int outputBytes = 0;          ///< the length of what it produces, as the device tells it
    Transport transport = Transport::TCP;  ///< as the device tells it
};

/// A device that a search found.
struct DeviceInfo {
    std::string name;  ///< its type; with a number behind it if others of this type answered first
    std::vector<Service> services;  ///< what clients may subscribe to
    std::string type = {};          ///< the type that was searched for

    /// Whether it has a service of this name.
    bool Offers(std::string_view service) const {
        return std::any_of(services.begin(), services.end(),
                           [&](const Service& offered) { return offered.name == service; });
    }
};

/// Options of a subscription.
struct SubscribeOptions {
    int source = 0;                        ///< 0 or 1; only the device's application uses it
    Transport transport = Transport::TCP;  ///< only the device's application uses it
};

/// A client's subscription, as a device is told of it. If the subscription ends, source and transport are 0.
struct Subscription {
    int client;                ///< as the peer wrote it; clients of different processes use the same numbers
    std::string_view service;  ///< valid until the handler returns
    int source;                ///< 0 or 1, the client's option
    Transport transport;       ///< the client's option
};

/// Who is at the other end of a data channel.
struct Peer {
    bool isPrivate = false;  ///< the channel is encrypted, and the peer has proven that it holds a key
    std::string identity;    ///< the name of that key; empty if the channel is not private
};

// ---- Not for applications

namespace detail {

// As link_security.h of the platform has it, which applications need not have.
struct PlatformRequester {
    char identity[65];
    unsigned char node[16];
};
struct PlatformSecurity {
    unsigned int size;
    void (*others[13])();
    int (*GetChannelPeer)(int asDevice, PlatformRequester* peer);
};

// Found while the program runs: a vendor's platform library need not have it.
inline Peer PeerOf(bool asDevice) {
    using Function = const PlatformSecurity* (*)();
    static const auto find = reinterpret_cast<Function>(dlsym(RTLD_DEFAULT, "GetLinkSecurity"));
    const PlatformSecurity* security = find != nullptr ? find() : nullptr;
    PlatformRequester record = {};
    const bool known = security != nullptr && security->size >= sizeof(PlatformSecurity) &&
                       security->GetChannelPeer(asDevice ? 1 : 0, &record) == 1;
    return known ? Peer{true, record.identity} : Peer();
}

class Category final : public std::error_category {
public:
    const char* name() const noexcept override { return "lumora"; }
    std::string message(int value) const override {
        static constexpr std::array<const char*, 15> MESSAGES = {
            "success",
            "not in the network",
            "this process has 20 clients already",
            "this process is a device already",
            "a name has 1 to 39 characters",
            "a device offers 1 to 8 services, described in up to 1,024 characters",
            "a command has 1 to 400 characters with its parameter",
            "a block has 1 to 5,242,880 bytes, or 1,024,000 from a device",
            "no device of this type answers",
            "the client is connected to no device",
            "the device cannot be connected",
            "the device refuses, or does not answer",
            "no peer is connected, or the connection has ended",
            "the other end has stopped reading",
            "the network cannot be left"};
        const auto index = static_cast<std::size_t>(value);
        return index < MESSAGES.size() ? MESSAGES[index] : "unknown error";
    }
};

// The one place that throws.
template <typename Call>
auto OrThrow(const char* function, const Call& call) {
    std::error_code error;
    auto result = call(error);
    if (error) {
#ifdef __cpp_exceptions
        throw Error(error, function);
#else
        std::fprintf(stderr, "%s: %s\n", function, error.message().c_str());
        std::abort();
#endif
    }
    return result;
}

// Sets or clears the error. True if there is none.
inline bool Outcome(bool good, Errc otherwise, std::error_code& error) {
    error = good ? std::error_code() : make_error_code(otherwise);
    return good;
}

// A send that wrote nothing has failed, whatever its result: the peer has closed the connection.
inline bool SendOutcome(int result, std::size_t sent, std::size_t size, std::error_code& error) {
    return Outcome(result == 0 && sent != 0, Errc::SEND_FAILED, error) &&
           Outcome(sent == size, Errc::INCOMPLETE, error);
}

inline bool IsName(std::string_view name) {
    return !name.empty() && name.size() < LUM_NAME_SIZE && name.find('\0') == std::string_view::npos;
}

inline bool IsCommand(std::string_view name, std::string_view parameter) {
    constexpr std::size_t LIMIT = LUM_MAX_CMD_LENGTH;
    const auto isText = [](std::string_view text) { return text.find('\0') == std::string_view::npos; };
    return !name.empty() && name.size() <= LIMIT && parameter.size() <= LIMIT - name.size() && isText(name) &&
           isText(parameter) && name != "subscribe";  // whose parameter is a record
}

inline void SetField(char (&field)[LUM_NAME_SIZE], std::string_view name) {
    std::memset(field, 0, sizeof(field));
    name.copy(field, sizeof(field) - 1);
}

inline std::string_view TextOf(const char (&field)[LUM_NAME_SIZE]) {
    const std::string_view whole(field, sizeof(field));
    return whole.substr(0, whole.find('\0'));
}

// A function that threads of the library call. The application may replace it during a call.
template <typename... Arguments>
class Handler {
public:
    using Function = std::function<void(Arguments...)>;

    void Set(Function function) {
        auto latest = std::make_shared<const Function>(std::move(function));
        const std::lock_guard<std::mutex> lock(mMutex);
        mFunction.swap(latest);
    }

    // False if no function is set.
    bool Call(Arguments... arguments) const {
        const std::shared_ptr<const Function> function = Current();
        if (function == nullptr || *function == nullptr) {
            return false;
        }
        (*function)(arguments...);
        return true;
    }

private:
    std::shared_ptr<const Function> Current() const {
        const std::lock_guard<std::mutex> lock(mMutex);
        return mFunction;
    }

    mutable std::mutex mMutex;
    std::shared_ptr<const Function> mFunction;
};

enum class Side : std::size_t { CLIENT = 0, DEVICE = 1 };

// How many handlers of a side are running on this thread. Calls of this thread to that side would deadlock.
inline int& RunningHandlers(Side side) {
    thread_local std::array<int, 2> running = {};
    return running[static_cast<std::size_t>(side)];
}

// Runs the handlers of a side, and catches the exceptions out of them.
class Boundary {
public:
    explicit Boundary(Side side) : mSide(side) {}

    Handler<std::exception_ptr> onException;

    // Runs a handler on a thread of the library.
    template <typename Call>
    void RunHandler(const Call& call) const noexcept {
        ++RunningHandlers(mSide);
        Contain(call);
        --RunningHandlers(mSide);
    }

    bool IsInHandler() const { return RunningHandlers(mSide) != 0; }

    template <typename Call>
    void Contain(const Call& call) const noexcept {
#ifdef __cpp_exceptions
        try {
            call();
        } catch (const std::exception& exception) {
            Report(exception.what());
        } catch (...) {
            Report("an exception that is no std::exception");
        }
#else
        call();
#endif
    }

private:
    // Only inside a catch block: passes std::current_exception on.
    void Report(const char* what) const {
        if (!onException.Call(std::current_exception())) {
            std::fprintf(stderr, "lumora: a handler threw: %s\n", what);
        }
    }

    const Side mSide;
};

// A client and its connection. The calls of its Client and its watching thread share it.
//
// mChange serializes changes of the connection. Without it, two threads could leave the network under the
// same ID: thread A leaves, another client gets the ID, thread B ends that client. It is held while a device
// is asked, so no handler on a thread of the library takes it.
class ClientState : public Boundary, public std::enable_shared_from_this<ClientState> {
public:
    explicit ClientState(std::string_view clientType) : Boundary(Side::CLIENT), mOwnType(clientType) {}

    Handler<std::string_view, Bytes> onData;
    Handler<> onDeviceLeft;
    Handler<> onConnectionLost;
    Handler<> onReconnected;

    int Id() const { return mId; }
    unsigned int Handle() const { return mHandle; }

    bool Join(std::error_code& error);
    void Leave();
    bool Connect(const std::string& type, std::chrono::milliseconds patience, std::error_code& error);
    bool Connect(const DeviceInfo& device, std::error_code& error);
    void Disconnect();
    bool Subscribe(const std::string& service, const SubscribeOptions& options, std::error_code& error);
    bool Unsubscribe(const std::string& service, std::error_code& error);
    bool Order(const char* name, const char* parameter, std::error_code& error) const;
    bool Send(Bytes block, std::error_code& error);

    bool IsJoined(std::error_code& error) const { return Outcome(mId != 0, Errc::NOT_JOINED, error); }
    bool IsConnected(std::error_code& error) const {
        return IsJoined(error) && Outcome(mHandle != 0, Errc::NOT_CONNECTED, error);
    }

    // Starts the thread that notices the end of a connection. It runs until StopWatching.
    void Watch();
    void StopWatching();
    void StayConnected(bool wanted);

    void OnDeviceRemoved();
    // The watching thread looks at the connection now.
    void LookNow();
    // Another client of the process has closed this one's channel.
    void OnChannelTaken() {
        mBroken = true;
        Lose();
    }

private:
    using Subscriptions = std::map<std::string, SubscribeOptions>;

    bool LeaveNetwork();
    bool JoinAgain(std::error_code& error);
    bool Open(const DeviceInfo& device, std::error_code& error);
    void End();
    unsigned int SayGoodbye();
    bool SendSubscription(const std::string& service, const SubscribeOptions& options,
                          std::error_code& error) const;

    void RunWatch();
    void Lose();
    void CheckDevice(bool asks);
    bool Knows(unsigned int handle) const;
    bool Answers(unsigned int handle) const;
    void ConnectAgain();
    bool WantsConnection() const;
    bool TryToConnectAgain();

    // The name of the connected device, or none.
    std::string Device() const {
        const std::lock_guard<std::mutex> lock(mMutex);
        return mHandle != 0 ? mDevice.name : std::string();
    }

    const std::string mOwnType;
    std::mutex mChange;
    std::atomic<int> mId{0};               // 0: not in the network
    std::atomic<unsigned int> mHandle{0};  // 0: not connected
    std::atomic<bool> mBroken{false};      // this side has closed the channel, or must close it
    std::atomic<unsigned int> mRemovals{0};

    mutable std::mutex mMutex;  // guards what follows; held for moments only
    std::condition_variable mWake;
    DeviceInfo mDevice;            // the connected one, or the one to connect to again; no type: none
    Subscriptions mSubscriptions;  // of this connection
    bool mMayBeLost = false;       // connected, and no end of it was reported yet
    bool mLost = false;            // an end that the watching thread has to report
    bool mStayConnected = false;
    bool mLook = false;  // the watching thread must look before its next turn
    bool mStop = false;
    std::thread mThread;
};

struct DeviceState : Boundary {
    DeviceState() : Boundary(Side::DEVICE) {}

    Handler<std::string_view, std::string_view> onCommand;
    Handler<const Subscription&> onSubscribe;
    Handler<const Subscription&> onUnsubscribe;
    Handler<int, Bytes> onData;

    void SetSubscriber(std::string_view service, int client, bool subscribed) {
        const std::lock_guard<std::mutex> lock(mMutex);
        std::vector<int>& clients = mSubscribers[std::string(service)];
        clients.erase(std::remove(clients.begin(), clients.end(), client), clients.end());
        if (subscribed) {
            clients.push_back(client);
        }
    }

    void ForgetSubscribers() {
        const std::lock_guard<std::mutex> lock(mMutex);
        mSubscribers.clear();
    }

    std::vector<int> Subscribers(std::string_view service) const {
        const std::lock_guard<std::mutex> lock(mMutex);
        const auto found = mSubscribers.find(service);
        return found != mSubscribers.end() ? found->second : std::vector<int>();
    }

private:
    mutable std::mutex mMutex;
    std::map<std::string, std::vector<int>, std::less<>> mSubscribers;
};

// Finds the object that a callback of the library is for: the library passes the number of a client, and of a
// device nothing.
class Directory {
public:
    // Never destroyed: threads of the library may outlive main.
    static Directory& Instance() {
        alignas(Directory) static unsigned char memory[sizeof(Directory)];
        static auto* const instance = new (memory) Directory();
        return *instance;
    }

    void SetClient(int id, std::shared_ptr<ClientState> client) {
        const std::lock_guard<std::mutex> lock(mMutex);
        mClients.at(static_cast<std::size_t>(id)).swap(client);
    }

    std::shared_ptr<ClientState> Client(int id) const {
        const std::lock_guard<std::mutex> lock(mMutex);
        const auto index = static_cast<std::size_t>(id);
        return index < mClients.size() ? mClients[index] : nullptr;
    }

    bool AnyoneUses(unsigned int handle) const {
        const std::lock_guard<std::mutex> lock(mMutex);
        return std::any_of(mClients.begin(), mClients.end(),
                           [&](const auto& client) { return client && client->Handle() == handle; });
    }

    // The clients that are connected to another device.
    std::vector<std::shared_ptr<ClientState>> UsersOfOthers(unsigned int handle) const {
        std::vector<std::shared_ptr<ClientState>> users;
        const std::lock_guard<std::mutex> lock(mMutex);
        std::copy_if(mClients.begin(), mClients.end(), std::back_inserter(users), [&](const auto& client) {
            return client && client->Handle() != 0 && client->Handle() != handle;
        });
        return users;
    }

    // Fails if the process's device is another object.
    bool BecomeDevice(const std::shared_ptr<DeviceState>& device) {
        const std::lock_guard<std::mutex> lock(mMutex);
        if (mDevice == nullptr) {
            mDevice = device;
        }
        return mDevice == device;
    }

    bool IsDevice(const std::shared_ptr<DeviceState>& device) const {
        const std::lock_guard<std::mutex> lock(mMutex);
        return mDevice == device;
    }

    void ForgetDevice(const std::shared_ptr<DeviceState>& device) {
        const std::lock_guard<std::mutex> lock(mMutex);
        if (mDevice == device) {
            mDevice = nullptr;
        }
    }

    std::shared_ptr<DeviceState> Device() const {
        const std::lock_guard<std::mutex> lock(mMutex);
        return mDevice;
    }

    // The library has opened or lost a connection. Clients need not look for that by themselves from now on.
    void OnConnectionsChanged() {
        mIsTold = true;
        std::array<std::shared_ptr<ClientState>, LUM_MAX_CLIENTS + 1> clients;
        {
            const std::lock_guard<std::mutex> lock(mMutex);
            clients = mClients;
        }
        for (const std::shared_ptr<ClientState>& client : clients) {
            if (client != nullptr) {
                client->LookNow();
            }
        }
    }

    // An older library tells of no connection that ends.
    bool IsTold() const { return mIsTold; }

    // Ends the library's server. A server that failed to start, or to stop, keeps its type for the next
    // start.
    bool StopServer() {
        const bool stopped = LUM_DeInitServer() == 0;
        mKeepsType = !stopped;
        return stopped;
    }

    void LeaveServerRunning() { mKeepsType = true; }

    // Starts the library's server under the type of this record.
    bool StartServer(const LUM_DEVICE_INFO_S& record) {
        if (mKeepsType && !StopServer()) {
            LUM_RegisterAiDevInfo(&record);  // this changes the type, too
        }
        const std::string type(TextOf(record.devServiceType));
        mKeepsType = false;
        return LUM_InitServer(type.c_str()) == 0;
    }

private:
    mutable std::mutex mMutex;
    std::array<std::shared_ptr<ClientState>, LUM_MAX_CLIENTS + 1> mClients;
    std::shared_ptr<DeviceState> mDevice;
    std::atomic<bool> mKeepsType{false};
    std::atomic<bool> mIsTold{false};
};

// The callbacks of the library. Their results are not used.

inline int OnClientEvent(int id, LUM_EVENT_E event) noexcept {
    const std::shared_ptr<ClientState> client = Directory::Instance().Client(id);
    if (client != nullptr && event == LUM_EVENT_DEVICE_REMOVED) {
        client->OnDeviceRemoved();
    }
    return 0;
}

inline int OnDeviceEvent(LUM_DEVICE_EVENT_S event) noexcept {
    const std::shared_ptr<ClientState> client = Directory::Instance().Client(event.clientID);
    if (client != nullptr && event.eventType == LUM_DEVICE_EVENT_DATA) {
        client->RunHandler([&] {
            client->onData.Call(TextOf(event.serviceName), {event.data, event.dataLen});
        });
    }
    return 0;
}

inline int OnCommand(const char* name, const char* parameter) noexcept {
    if (const std::shared_ptr<DeviceState> device = Directory::Instance().Device()) {
        device->RunHandler([&] { device->onCommand.Call(name, parameter); });
    }
    return 0;
}

inline int OnNotify(int client, int event, LUM_SUBSCRIBE_SERVICE_S record) noexcept {
    if (const std::shared_ptr<DeviceState> device = Directory::Instance().Device()) {
        const Subscription subscription = {client, TextOf(record.serviceName), record.dataSource,
                                           static_cast<Transport>(record.transport)};
        const bool subscribed = event == LUM_NOTIFY_SUBSCRIBED;
        const auto& handler = subscribed ? device->onSubscribe : device->onUnsubscribe;
        device->RunHandler([&] {
            device->SetSubscriber(subscription.service, client, subscribed);
            handler.Call(subscription);
        });
    }
    return 0;
}

inline int OnData(int client, const char* data, unsigned int length) noexcept {
    if (const std::shared_ptr<DeviceState> device = Directory::Instance().Device()) {
        device->RunHandler([&] { device->onData.Call(client, {data, length}); });
    }
    return 0;
}

// The library finds it by its name, and calls it when it has opened or lost a connection.
extern "C" __attribute__((used, visibility("default"))) inline void LumoraConnectionsChanged() noexcept {
    Directory::Instance().OnConnectionsChanged();
}

inline std::vector<DeviceInfo> DevicesOf(const LUM_DEVICES_INFO_S& found, const std::string& type) {
    std::vector<DeviceInfo> devices;
    for (const LUM_DEVICE_INFO_S* device = found.devInfo; device != found.devInfo + found.devNum; ++device) {
        devices.push_back({std::string(TextOf(device->devServiceType)), {}, type});
        for (const LUM_SERVICE_INFO_S* service = device->serviceInfo;
             service != device->serviceInfo + device->serviceNum; ++service) {
            devices.back().services.push_back({std::string(TextOf(service->serviceName)),
                                               service->outputLenBytes,
                                               static_cast<Transport>(service->transport)});
        }
    }
    return devices;
}

inline std::vector<DeviceInfo> Search(const std::string& type) {
    LUM_DEVICES_INFO_S found = {};
    const bool answered = LUM_GetAiDeviceList(type.c_str(), &found) == 0;
    return answered ? DevicesOf(found, type) : std::vector<DeviceInfo>();
}

constexpr std::chrono::milliseconds SEARCH_PAUSE{100};

// Attempts at least once, and again until patience has passed. True if an attempt succeeded.
template <typename Attempt>
bool Repeat(std::chrono::milliseconds patience, std::chrono::milliseconds pause, const Attempt& attempt) {
    const auto begin = std::chrono::steady_clock::now();
    while (!attempt()) {
        const auto passed = std::chrono::steady_clock::now() - begin;
        if (std::chrono::duration_cast<std::chrono::milliseconds>(passed) + pause > patience) {
            return false;
        }
        std::this_thread::sleep_for(pause);
    }
    return true;
}

// A new thread inherits the signal mask. Threads that are started while this object lives block all signals,
// so that signals go to threads of the application.
class SignalsBlocked {
public:
    SignalsBlocked() {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &mBefore);
    }
    ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &mBefore, nullptr); }
    SignalsBlocked(const SignalsBlocked&) = delete;
    SignalsBlocked& operator=(const SignalsBlocked&) = delete;

private:
    sigset_t mBefore = {};
};

// ---- ClientState: in the network

inline bool ClientState::Join(std::error_code& error) {
    int id = -1;
    if (LUM_InitClient(&id, mOwnType.c_str()) != 0 || LUM_RegisterEvent(id, OnClientEvent) != 0) {
        if (id > 0) {
            LUM_DeInitClient(id);  // otherwise the ID would stay taken
        }
        return Outcome(false, id == 0 ? Errc::TOO_MANY_CLIENTS : Errc::NOT_JOINED, error);
    }
    mId = id;
    Directory::Instance().SetClient(id, shared_from_this());
    return Outcome(true, Errc::NOT_JOINED, error);
}

// Fails, and changes nothing, in a handler.
inline bool ClientState::LeaveNetwork() {
    const int id = mId;
    if (id == 0) {
        return true;
    }
    Directory::Instance().SetClient(id, nullptr);
    if (LUM_DeInitClient(id) != 0) {
        Directory::Instance().SetClient(id, shared_from_this());
        return false;
    }
    mId = 0;
    return true;
}

inline void ClientState::Leave() {
    StopWatching();
    SayGoodbye();
    if (!LeaveNetwork()) {
        Directory::Instance().SetClient(mId, nullptr);
    }
}

inline bool ClientState::JoinAgain(std::error_code& error) {
    SayGoodbye();
    if (!Outcome(LeaveNetwork(), Errc::CONNECT_FAILED, error)) {
        return false;
    }
    mBroken = false;
    return Join(error);
}

// ---- ClientState: the connection

inline bool ClientState::Connect(const std::string& type, std::chrono::milliseconds patience,
                                 std::error_code& error) {
    if (!Outcome(!IsInHandler(), Errc::CONNECT_FAILED, error)) {
        return false;
    }
    const std::lock_guard<std::mutex> change(mChange);
    if (!IsJoined(error) || (mBroken && !JoinAgain(error))) {
        return false;
    }
    if (Device() != type) {
        End();
    }
    return Repeat(patience, SEARCH_PAUSE, [&] {
        const std::vector<DeviceInfo> devices = Search(type);
        return Outcome(!devices.empty(), Errc::NO_DEVICE, error) && Open(devices.front(), error);
    });
}

inline bool ClientState::Connect(const DeviceInfo& device, std::error_code& error) {
    if (!Outcome(!IsInHandler(), Errc::CONNECT_FAILED, error)) {
        return false;
    }
    const std::lock_guard<std::mutex> change(mChange);
    if (!IsJoined(error)) {
        return false;
    }
    if (Device() != device.name) {
        End();
    }
    return Open(device, error);
}

inline bool ClientState::Open(const DeviceInfo& device, std::error_code& error) {
    unsigned int handle = 0;
    const unsigned int removals = mRemovals;
    bool connected = LUM_CreateAiDevice(mId, device.name.c_str(), &handle) == 0 &&
                     LUM_RegisterAiDeviceEvent(mId, handle, OnDeviceEvent) == 0 &&
                     LUM_ConnectAiDevice(mId, handle) == 0;
    if (handle != 0) {
        for (const std::shared_ptr<ClientState>& other : Directory::Instance().UsersOfOthers(handle)) {
            other->OnChannelTaken();
        }
    }
    if (connected) {
        const std::lock_guard<std::mutex> lock(mMutex);
        if (mHandle == 0) {
            mSubscriptions.clear();
        }
        mDevice = device;
        mDevice.type = device.type.empty() ? device.name : device.type;
        mLost = false;
        mMayBeLost = true;
        mHandle = handle;
    }
    // The removal, or the end of the channel, may be told before the handle is known here.
    if (connected && (mRemovals != removals || !Knows(handle))) {
        connected = false;
        mHandle = 0;
    }
    return Outcome(connected, Errc::CONNECT_FAILED, error);
}

inline void ClientState::Disconnect() {
    if (!IsInHandler()) {
        const std::lock_guard<std::mutex> change(mChange);
        End();
    }
}

inline void ClientState::End() {
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        mDevice = {};
        mSubscriptions.clear();
        mLost = mMayBeLost = false;
    }
    const unsigned int handle = SayGoodbye();
    if (handle == 0) {
        return;
    }
    LUM_DisconnectAiDevice(mId, handle);
    // The device closes a channel that has no clients left. Wait until this side has noticed: a client that
    // connects before that would lose its connection again.
    Repeat(std::chrono::seconds(1), std::chrono::milliseconds(1), [&] {
        return mBroken || Directory::Instance().AnyoneUses(handle) ||
               LUM_RegisterAiDeviceEvent(mId, handle, OnDeviceEvent) != 0;
    });
}

// Gives the handle of the connection that has ended, or 0.
inline unsigned int ClientState::SayGoodbye() {
    const unsigned int handle = mHandle.exchange(0);
    if (handle != 0) {
        LUM_DestoryAiDevice(mId, handle);
    }
    return handle;
}

// ---- ClientState: requests to the device

inline bool ClientState::Order(const char* name, const char* parameter, std::error_code& error) const {
    return IsConnected(error) &&
           Outcome(LUM_SendCmd(mId, mHandle, name, parameter) == 0, Errc::REFUSED, error);
}

inline bool ClientState::SendSubscription(const std::string& service, const SubscribeOptions& options,
                                          std::error_code& error) const {
    LUM_SUBSCRIBE_SERVICE_S record = {};
    SetField(record.serviceName, service);
    record.dataSource = options.source;
    record.transport = static_cast<int>(options.transport);
    return Order("subscribe", reinterpret_cast<const char*>(&record), error);
}

inline bool ClientState::Subscribe(const std::string& service, const SubscribeOptions& options,
                                   std::error_code& error) {
    if (!SendSubscription(service, options, error)) {
        return false;
    }
    const std::lock_guard<std::mutex> lock(mMutex);
    mSubscriptions[service] = options;
    return true;
}

inline bool ClientState::Unsubscribe(const std::string& service, std::error_code& error) {
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        mSubscriptions.erase(service);
    }
    return Order("unsubscribe", service.c_str(), error);
}

inline bool ClientState::Send(Bytes block, std::error_code& error) {
    unsigned int sent = 0;
    const int result = LUM_SendData(mId, mHandle, block.data(), static_cast<unsigned int>(block.size()),
                                    &sent, LUM_MAX_CLIENT_TIMEOUT_MS);
    if (SendOutcome(result, sent, block.size(), error)) {
        return true;
    }
    if (!IsInHandler()) {  // a call in a handler is refused whether the connection works or not
        mBroken = true;
        Lose();
    }
    return false;
}

// ---- ClientState: the end of the connection

inline void ClientState::OnDeviceRemoved() {
    ++mRemovals;
    mHandle = 0;
    RunHandler([this] { onDeviceLeft.Call(); });
    Lose();
}

inline void ClientState::Lose() {
    const std::lock_guard<std::mutex> lock(mMutex);
    mLost = mLost || mMayBeLost;
    mMayBeLost = false;
    mWake.notify_all();
}

inline void ClientState::LookNow() {
    const std::lock_guard<std::mutex> lock(mMutex);
    if (mThread.joinable()) {
        mLook = true;
        mWake.notify_all();
    }
}

inline void ClientState::StayConnected(bool wanted) {
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        mStayConnected = wanted;
    }
    if (wanted) {
        Watch();
    }
}

inline void ClientState::Watch() {
    const std::lock_guard<std::mutex> lock(mMutex);
    if (!mThread.joinable() && !mStop) {
        const SignalsBlocked blocked;
        mLook = true;  // what was told before the thread runs is missed
        mThread = std::thread([self = shared_from_this()] { self->RunWatch(); });
    }
}

inline void ClientState::StopWatching() {
    std::thread thread;
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        mStop = true;
        mWake.notify_all();
        thread.swap(mThread);
    }
    if (!thread.joinable()) {
        return;
    }
    if (thread.get_id() == std::this_thread::get_id() || IsInHandler()) {
        thread.detach();  // joining would deadlock
    } else {
        thread.join();
    }
}

// A device that has left is told by an event, and a connection that ends by LumoraConnectionsChanged, if the
// library is new enough. A device that is silent is told by nothing, so it is asked now and then: that wakes
// up both processes.
inline void ClientState::RunWatch() {
    constexpr std::chrono::seconds LOOK_INTERVAL{2};
    constexpr std::chrono::seconds QUESTION_INTERVAL{10};
    auto nextQuestion = std::chrono::steady_clock::now() + QUESTION_INTERVAL;
    std::unique_lock<std::mutex> lock(mMutex);
    while (!mStop) {
        const auto nextLook = std::chrono::steady_clock::now() + LOOK_INTERVAL;
        const auto end = Directory::Instance().IsTold() ? nextQuestion : std::min(nextLook, nextQuestion);
        mWake.wait_until(lock, end, [this] { return mStop || mLost || mLook; });
        const bool stops = mStop;
        const bool lost = !stops && std::exchange(mLost, false);
        mLook = false;
        lock.unlock();
        const bool asks = std::chrono::steady_clock::now() >= nextQuestion;
        if (lost) {
            Contain([this] { onConnectionLost.Call(); });
            ConnectAgain();
        } else if (!stops) {
            CheckDevice(asks);
        }
        if (asks) {
            nextQuestion = std::chrono::steady_clock::now() + QUESTION_INTERVAL;
        }
        lock.lock();
    }
}

// The library forgets the handle when the channel ends.
inline void ClientState::CheckDevice(bool asks) {
    const unsigned int handle = mHandle;
    if (handle == 0 || mBroken) {
        return;
    }
    const bool isFine = Knows(handle) && (!asks || Answers(handle));
    if (isFine || mHandle != handle) {
        return;
    }
    // If the library still knows the handle, the device is silent, and the next Connect has to give up the
    // channel.
    if (Knows(handle)) {
        mBroken = true;
    } else {
        unsigned int ended = handle;
        mHandle.compare_exchange_strong(ended, 0);
    }
    Lose();
}

inline bool ClientState::Knows(unsigned int handle) const {
    return LUM_RegisterAiDeviceEvent(mId, handle, OnDeviceEvent) == 0;
}

// Asks twice, because one answer may get lost.
inline bool ClientState::Answers(unsigned int handle) const {
    std::array<char, LUM_MIN_VERSION_BUFFER_LENGTH> text = {};
    for (int attempt = 0; attempt < 2; ++attempt) {
        if (LUM_GetServerVersion(mId, handle, text.data(), text.size()) == 0) {
            return true;
        }
    }
    return false;
}

inline void ClientState::ConnectAgain() {
    constexpr std::chrono::milliseconds PAUSE{500};
    while (WantsConnection()) {
        if (TryToConnectAgain()) {
            Contain([this] { onReconnected.Call(); });
            return;
        }
        std::unique_lock<std::mutex> lock(mMutex);
        mWake.wait_for(lock, PAUSE, [this] { return mStop; });
    }
}

inline bool ClientState::WantsConnection() const {
    const std::lock_guard<std::mutex> lock(mMutex);
    return !mStop && mStayConnected && !mDevice.type.empty() && (mHandle == 0 || mBroken);
}

// The number behind a type may be another one each time, so the services decide which device it is.
inline bool ClientState::TryToConnectAgain() {
    const std::lock_guard<std::mutex> change(mChange);
    std::error_code error;
    if (!WantsConnection() || (mBroken && !JoinAgain(error))) {
        return false;
    }
    std::unique_lock<std::mutex> lock(mMutex);
    const std::string type = mDevice.type;
    const Subscriptions subscriptions = mSubscriptions;
    lock.unlock();
    const auto hasAll = [&](const DeviceInfo& device) {
        return std::all_of(subscriptions.begin(), subscriptions.end(),
                           [&](const auto& one) { return device.Offers(one.first); });
    };
    const std::vector<DeviceInfo> devices = Search(type);
    const auto device = std::find_if(devices.begin(), devices.end(), hasAll);
    // An attempt that failed may have left a channel that this side has closed: the next one begins anew.
    mBroken = device != devices.end() && !Open(*device, error);
    const bool connected = device != devices.end() && !mBroken &&
                           std::all_of(subscriptions.begin(), subscriptions.end(), [&](const auto& one) {
                               return SendSubscription(one.first, one.second, error);
                           });
    lock.lock();
    mSubscriptions = subscriptions;
    if (!connected) {
        mHandle = 0;
        mMayBeLost = mLost = false;
    }
    return connected;
}

// ---- The device's description

// The length of a text in JSON as the library writes it.
inline std::size_t JsonLength(std::string_view text) {
    constexpr unsigned char FIRST_PLAIN = 0x20;
    std::size_t length = 2;
    for (const char character : text) {
        const bool isShort = std::string_view("\"\\\b\f\n\r\t").find(character) != std::string_view::npos;
        const bool isControl = static_cast<unsigned char>(character) < FIRST_PLAIN;
        length += isShort ? 2 : isControl ? 6 : 1;
    }
    return length;
}

// The length of the document that describes a device.
inline std::size_t DescriptionLength(const LUM_DEVICE_INFO_S& record) {
    constexpr std::string_view HEAD = R"({"DevServiceType":,"ServiceNum":0})";
    constexpr std::string_view ENTRY = R"(,"service0":{"Name":,"transport":0,"output-len-bytes":})";
    std::size_t length = HEAD.size() + JsonLength(TextOf(record.devServiceType));
    for (const LUM_SERVICE_INFO_S* service = record.serviceInfo;
         service != record.serviceInfo + record.serviceNum; ++service) {
        length += ENTRY.size() + JsonLength(TextOf(service->serviceName)) +
                  std::to_string(service->outputLenBytes).size();
    }
    return length;
}

// The library refuses a description that is too long only after it has dropped the one before, so it is
// measured here first.
inline bool DescriptionFits(const LUM_DEVICE_INFO_S& record) {
    constexpr std::size_t LIMIT = 1024;
    return DescriptionLength(record) <= LIMIT;
}

}  // namespace detail

inline const std::error_category& ErrorCategory() noexcept {
    static const detail::Category category;
    return category;
}

// ---- Client

/// An application that uses a device. Searches of other nodes find it under the type of the process's first
/// client.
///
/// A process may have up to 20 clients. Each has its own subscriptions and handlers. They share one data
/// channel: a client that connects to another device ends the connections of all others. A move takes
/// handlers and connection along. A moved-from client can be assigned to and destroyed; everything else
/// fails with Errc::NOT_JOINED.
class Client {
public:
    /// How long a device is searched for unless told otherwise.
    static constexpr std::chrono::milliseconds PATIENCE{2000};

    /// The first client of the process joins the network as a device of this type (1 to 39 characters).
    /// Errors: BAD_NAME, TOO_MANY_CLIENTS, NOT_JOINED. After a failure the object is as one moved from.
    explicit Client(std::string_view type) {
        detail::OrThrow("lumora::Client", [&](std::error_code& error) { return Join(type, error); });
    }
    /// The same; sets or clears error instead of throwing.
    Client(std::string_view type, std::error_code& error) { Join(type, error); }

    /// Takes handlers and connection along.
    Client(Client&& other) noexcept : mState(std::move(other.mState)) {}
    /// Ends the former client, and takes the other one's handlers and connection.
    Client& operator=(Client&& other) noexcept {
        Client moved(std::move(other));
        mState.swap(moved.mState);
        return *this;
    }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    /// Tells the device that this client is gone. The last client leaves the network. Waits for handlers in
    /// progress.
    ~Client() {
        if (mState != nullptr) {
            mState->Leave();
        }
    }

    /// The number, 1 to 20, by which a device tells the clients of a process apart. 0: not in the network.
    int Id() const { return mState != nullptr ? mState->Id() : 0; }

    // ---- Handlers. Without a handler, its events are dropped.

    /// Called for each block that the device sends on a subscribed service. Set it before Subscribe.
    void OnData(std::function<void(std::string_view service, Bytes data)> handler) {
        if (mState != nullptr) {
            mState->onData.Set(std::move(handler));
        }
    }

    /// Called when the connected device leaves the network. Not called when only the connection ends, for
    /// example because the device's process is killed; OnConnectionLost is called then.
    void OnDeviceLeft(std::function<void()> handler) {
        if (mState != nullptr) {
            mState->onDeviceLeft.Set(std::move(handler));
        }
    }

    /// Called once for each connection that ends without a Disconnect: the device left or died, another
    /// client process has taken its place, or a block could not be sent. The end of the data channel is
    /// noticed at once, and a device that leaves the network without a word within three seconds. A thread of
    /// this client asks the device every ten seconds, so one that answers no more is noticed later. From then
    /// on calls fail, until Connect begins anew. The handler runs on that thread and may call this client.
    void OnConnectionLost(std::function<void()> handler) {
        if (mState != nullptr) {
            mState->onConnectionLost.Set(std::move(handler));
            mState->Watch();
        }
    }

    /// Called after StayConnected has connected and subscribed again, on the thread of OnConnectionLost.
    void OnReconnected(std::function<void()> handler) {
        if (mState != nullptr) {
            mState->onReconnected.Set(std::move(handler));
        }
    }

    /// Called for an exception out of another handler of this client. An exception out of this one ends the
    /// program.
    void OnException(std::function<void(std::exception_ptr exception)> handler) {
        if (mState != nullptr) {
            mState->onException.Set(std::move(handler));
        }
    }

    // ---- Devices

    /// Searches for devices of a type. Returns at most the four that answer first, or none if none answers
    /// in time. A search takes some hundred milliseconds, and is repeated until a device answers or patience
    /// has passed. While the client is connected, search for its device's type only: otherwise the library
    /// forgets the connected device. Errors: BAD_NAME, NOT_JOINED.
    std::vector<DeviceInfo> Find(std::string_view type, std::chrono::milliseconds patience = PATIENCE) {
        return detail::OrThrow("lumora::Client::Find",
                               [&](std::error_code& error) { return Find(type, patience, error); });
    }
    /// The same; sets or clears error instead of throwing.
    std::vector<DeviceInfo> Find(std::string_view type, std::chrono::milliseconds patience,
                                 std::error_code& error) {
        std::vector<DeviceInfo> devices;
        if (MayUse(type, error)) {
            detail::Repeat(patience, detail::SEARCH_PAUSE, [&] {
                devices = detail::Search(std::string(type));
                return !devices.empty();
            });
        }
        return devices;
    }

    /// Connects to the first device of a type that answers, and tries again until patience has passed. A
    /// connection to another device ends; one to this device stays as it is. A new connection has no
    /// subscriptions. Errors: BAD_NAME, NOT_JOINED, NO_DEVICE, CONNECT_FAILED.
    ///
    /// If a Send has failed before, the client first leaves the network and joins it again, maybe under
    /// another ID: the library cannot open a channel again that this side has closed before the last client
    /// of the process has ended. Other clients of the process must end for that, too.
    void Connect(std::string_view type, std::chrono::milliseconds patience = PATIENCE) {
        detail::OrThrow("lumora::Client::Connect",
                        [&](std::error_code& error) { return Connect(type, patience, error); });
    }
    /// The same; sets or clears error instead of throwing.
    bool Connect(std::string_view type, std::chrono::milliseconds patience, std::error_code& error) {
        return MayConnect(type, error) && mState->Connect(std::string(type), patience, error);
    }

    /// Connects to a device of the last search. Tries once. Errors: NOT_JOINED, CONNECT_FAILED.
    void Connect(const DeviceInfo& device) {
        detail::OrThrow("lumora::Client::Connect",
                        [&](std::error_code& error) { return Connect(device, error); });
    }
    /// The same; sets or clears error instead of throwing.
    bool Connect(const DeviceInfo& device, std::error_code& error) {
        return MayConnect(device.name, error) && mState->Connect(device, error);
    }

    /// Opens a lost connection again from now on, or no longer if wanted is false. The client searches for a
    /// device of the same type that offers the services it was subscribed to, connects, and repeats its
    /// subscriptions. It tries until it succeeds, or until Disconnect, Connect, StayConnected(false) or its
    /// end. Blocks that are sent in between are lost. Nothing happens before the first Connect has succeeded.
    void StayConnected(bool wanted = true) {
        if (mState != nullptr) {
            mState->StayConnected(wanted);
        }
    }

    /// Ends the connection: the device ends this client's subscriptions. Does nothing without a connection.
    void Disconnect() {
        if (mState != nullptr) {
            mState->Disconnect();
        }
    }

    // ---- Requests to the connected device. Errors of all: NOT_JOINED, NOT_CONNECTED.

    /// From now on OnData is called for the blocks of this service (1 to 39 characters). Waits for the
    /// device's OnSubscribe. Errors: BAD_NAME, REFUSED.
    void Subscribe(std::string_view service, const SubscribeOptions& options = {}) {
        detail::OrThrow("lumora::Client::Subscribe",
                        [&](std::error_code& error) { return Subscribe(service, options, error); });
    }
    /// The same; sets or clears error instead of throwing.
    bool Subscribe(std::string_view service, std::error_code& error) { return Subscribe(service, {}, error); }
    /// The same, with options; sets or clears error instead of throwing.
    bool Subscribe(std::string_view service, const SubscribeOptions& options, std::error_code& error) {
        return MayUse(service, error) && mState->Subscribe(std::string(service), options, error);
    }

    /// Ends a subscription. Errors: BAD_NAME, REFUSED (not subscribed).
    void Unsubscribe(std::string_view service) {
        detail::OrThrow("lumora::Client::Unsubscribe",
                        [&](std::error_code& error) { return Unsubscribe(service, error); });
    }
    /// The same; sets or clears error instead of throwing.
    bool Unsubscribe(std::string_view service, std::error_code& error) {
        return MayUse(service, error) && mState->Unsubscribe(std::string(service), error);
    }

    /// Runs the device's OnCommand once, and waits for it. A command has no result; the device answers by
    /// data. Name and parameter have up to 400 characters together. Errors: BAD_COMMAND, REFUSED.
    void Command(std::string_view name, std::string_view parameter = {}) {
        detail::OrThrow("lumora::Client::Command",
                        [&](std::error_code& error) { return Command(name, parameter, error); });
    }
    /// The same; sets or clears error instead of throwing.
    bool Command(std::string_view name, std::string_view parameter, std::error_code& error) {
        return detail::Outcome(detail::IsCommand(name, parameter), Errc::BAD_COMMAND, error) &&
               IsJoined(error) &&
               mState->Order(std::string(name).c_str(), std::string(parameter).c_str(), error);
    }

    /// Sends a block of 1 to 5,242,880 bytes, which the device's OnData is given in one piece. Returns when
    /// the system has taken all of it. Fails when half a second passes without any progress; that limit is
    /// fixed. Errors: BAD_SIZE, SEND_FAILED, INCOMPLETE (Connect then begins anew).
    void Send(Bytes block) {
        detail::OrThrow("lumora::Client::Send", [&](std::error_code& error) { return Send(block, error); });
    }
    /// The same; sets or clears error instead of throwing.
    bool Send(Bytes block, std::error_code& error) {
        const bool fits = !block.empty() && block.size() <= LUM_MAX_CLIENT_DATA_LENGTH;
        return IsConnected(error) && detail::Outcome(fits, Errc::BAD_SIZE, error) &&
               mState->Send(block, error);
    }

    /// Whether the data channel is private, and with whom. The clients of a process share one channel. Not
    /// private if the client is not connected, or if its channel has ended.
    lumora::Peer Peer() const {
        std::error_code error;
        return IsConnected(error) ? detail::PeerOf(false) : lumora::Peer();
    }

    /// The version of the device's library; asks the device. Errors: REFUSED.
    std::string DeviceVersion() {
        return detail::OrThrow("lumora::Client::DeviceVersion",
                               [&](std::error_code& error) { return DeviceVersion(error); });
    }
    /// The same; sets or clears error instead of throwing.
    std::string DeviceVersion(std::error_code& error) {
        std::array<char, LUM_MIN_VERSION_BUFFER_LENGTH> text = {};
        if (IsConnected(error)) {
            const int result = LUM_GetServerVersion(Id(), mState->Handle(), text.data(), text.size());
            detail::Outcome(result == 0, Errc::REFUSED, error);
        }
        return text.data();
    }

    /// The version of this library; needs no device. Errors: NOT_JOINED, REFUSED (called from a handler).
    std::string LibraryVersion() {
        return detail::OrThrow("lumora::Client::LibraryVersion",
                               [&](std::error_code& error) { return LibraryVersion(error); });
    }
    /// The same; sets or clears error instead of throwing.
    std::string LibraryVersion(std::error_code& error) {
        std::array<char, LUM_MIN_VERSION_BUFFER_LENGTH> text = {};
        if (IsJoined(error)) {
            const int result = LUM_GetClientVersion(Id(), text.data(), text.size());
            detail::Outcome(result == 0, Errc::REFUSED, error);
        }
        return text.data();
    }

private:
    bool Join(std::string_view type, std::error_code& error) {
        if (!detail::Outcome(detail::IsName(type), Errc::BAD_NAME, error)) {
            return false;
        }
        mState = std::make_shared<detail::ClientState>(type);
        return mState->Join(error);
    }

    bool IsJoined(std::error_code& error) const {
        return detail::Outcome(mState != nullptr, Errc::NOT_JOINED, error) && mState->IsJoined(error);
    }

    bool IsConnected(std::error_code& error) const { return IsJoined(error) && mState->IsConnected(error); }

    // Does not check whether the client is in the network: Connect does so under mChange.
    bool MayConnect(std::string_view name, std::error_code& error) const {
        return detail::Outcome(mState != nullptr, Errc::NOT_JOINED, error) &&
               detail::Outcome(detail::IsName(name), Errc::BAD_NAME, error);
    }

    bool MayUse(std::string_view name, std::error_code& error) const {
        return IsJoined(error) && detail::Outcome(detail::IsName(name), Errc::BAD_NAME, error);
    }

    std::shared_ptr<detail::ClientState> mState;
};

// ---- Device

/// A device that clients find by its type. It can be neither copied nor moved: handlers usually refer to it.
///
/// A process can be one device: Start of a second one fails with Errc::DEVICE_EXISTS as long as the first is
/// started. A device serves the clients of one process at a time.
class Device {
public:
    /// Clients cannot find it before Start. A type has 1 to 39 characters.
    explicit Device(std::string type) : mType(std::move(type)) {}
    Device(const Device&) = delete;
    Device& operator=(const Device&) = delete;

    /// Leaves the network. Waits for handlers in progress.
    ~Device() {
        std::error_code error;
        if (!Stop(error)) {
            detail::Directory::Instance().LeaveServerRunning();
        }
        detail::Directory::Instance().ForgetDevice(mState);
    }

    /// Adds a service (1 to 39 characters) to those that Start registers. Clients are told outputBytes, the
    /// length of its output.
    Device& Offer(std::string service, unsigned int outputBytes = LUM_MAX_SERVER_DATA_LENGTH,
                  Transport transport = Transport::TCP) {
        const std::lock_guard<std::mutex> lock(mMutex);
        mServices.push_back({std::move(service), outputBytes, transport});
        return *this;
    }

    // ---- Handlers. Without a handler, its events are dropped. They may run before Start returns.

    /// Called for each command of a client. The library does not tell which client sent it.
    void OnCommand(std::function<void(std::string_view name, std::string_view parameter)> handler) {
        mState->onCommand.Set(std::move(handler));
    }

    /// Called for each client that subscribes to a service.
    void OnSubscribe(std::function<void(const Subscription& subscription)> handler) {
        mState->onSubscribe.Set(std::move(handler));
    }

    /// Called for each subscription that ends, because the client ended it or has left.
    void OnUnsubscribe(std::function<void(const Subscription& subscription)> handler) {
        mState->onUnsubscribe.Set(std::move(handler));
    }

    /// Called for each block that a client sends. May call Send.
    void OnData(std::function<void(int client, Bytes data)> handler) {
        mState->onData.Set(std::move(handler));
    }

    /// Called for an exception out of another handler of this device. An exception out of this one ends the
    /// program.
    void OnException(std::function<void(std::exception_ptr exception)> handler) {
        mState->onException.Set(std::move(handler));
    }

    // ---- In the network

    /// Joins the network and registers the services, at least one. A second call registers those that were
    /// added since, and drops all subscriptions. If it fails, a running device goes on as it was, and a
    /// device that did not run leaves nothing behind. Errors: BAD_NAME, BAD_SERVICES, DEVICE_EXISTS,
    /// NOT_JOINED (for example if a handler calls it).
    void Start() {
        detail::OrThrow("lumora::Device::Start", [&](std::error_code& error) { return Start(error); });
    }
    /// The same; sets or clears error instead of throwing.
    bool Start(std::error_code& error) {
        LUM_DEVICE_INFO_S record = {};
        if (!Describe(record, error) || !detail::Outcome(!mState->IsInHandler(), Errc::NOT_JOINED, error)) {
            return false;
        }
        const std::lock_guard<std::mutex> lock(mLifeMutex);
        detail::Directory& directory = detail::Directory::Instance();
        const bool again = directory.IsDevice(mState);
        return detail::Outcome(directory.BecomeDevice(mState), Errc::DEVICE_EXISTS, error) &&
               (again ? Register(record, error) : Begin(record, error));
    }

    /// Leaves the network: subscriptions and connections end. Waits for handlers in progress. Start may
    /// follow. Errors: STOP_FAILED (for example if a handler calls it).
    void Stop() {
        detail::OrThrow("lumora::Device::Stop", [&](std::error_code& error) { return Stop(error); });
    }
    /// The same; sets or clears error instead of throwing.
    bool Stop(std::error_code& error) {
        if (!detail::Outcome(!mState->IsInHandler(), Errc::STOP_FAILED, error)) {
            return false;
        }
        const std::lock_guard<std::mutex> lock(mLifeMutex);
        detail::Directory& directory = detail::Directory::Instance();
        const bool running = directory.IsDevice(mState);
        if (!detail::Outcome(!running || directory.StopServer(), Errc::STOP_FAILED, error)) {
            return false;
        }
        directory.ForgetDevice(mState);
        mState->ForgetSubscribers();
        return true;
    }

    /// The clients that are subscribed to a service now, in no particular order. A device can skip the work
    /// for a service without subscribers.
    std::vector<int> Subscribers(std::string_view service) const { return mState->Subscribers(service); }

    /// Whether the data channel is private, and with whom. Not private if there is none.
    lumora::Peer Peer() const { return detail::PeerOf(true); }

    /// Sends a block of 1 to 1,024,000 bytes to every client that subscribed to the service, if any did.
    /// Returns when the system has taken all of it. Fails when half a second passes without any progress;
    /// that limit is fixed. Errors: NOT_JOINED, BAD_NAME, BAD_SIZE, SEND_FAILED (also if the service is not
    /// offered), INCOMPLETE.
    void Send(std::string_view service, Bytes block) {
        detail::OrThrow("lumora::Device::Send",
                        [&](std::error_code& error) { return Send(service, block, error); });
    }
    /// The same; sets or clears error instead of throwing.
    bool Send(std::string_view service, Bytes block, std::error_code& error) {
        const bool fits = !block.empty() && block.size() <= LUM_MAX_SERVER_DATA_LENGTH;
        const bool running = detail::Directory::Instance().IsDevice(mState);
        if (!detail::Outcome(running, Errc::NOT_JOINED, error) ||
            !detail::Outcome(detail::IsName(service), Errc::BAD_NAME, error) ||
            !detail::Outcome(fits, Errc::BAD_SIZE, error)) {
            return false;
        }
        unsigned int sent = 0;
        const int result =
            LUM_SendDataToClient(std::string(service).c_str(), block.data(),
                                 static_cast<unsigned int>(block.size()), &sent, LUM_MAX_SERVER_TIMEOUT_MS);
        return detail::SendOutcome(result, sent, block.size(), error);
    }

private:
    bool Begin(const LUM_DEVICE_INFO_S& record, std::error_code& error) {
        detail::Directory& directory = detail::Directory::Instance();
        if (detail::Outcome(directory.StartServer(record), Errc::NOT_JOINED, error) &&
            Register(record, error)) {
            return true;
        }
        directory.StopServer();
        directory.ForgetDevice(mState);
        return false;
    }

    bool Register(const LUM_DEVICE_INFO_S& record, std::error_code& error) {
        mState->ForgetSubscribers();  // first: new ones may come before the next call returns
        return detail::Outcome(LUM_RegisterAiDevInfo(&record) == 0, Errc::BAD_SERVICES, error);
    }

    bool Describe(LUM_DEVICE_INFO_S& record, std::error_code& error) const {
        const std::lock_guard<std::mutex> lock(mMutex);
        const bool named = detail::IsName(mType) &&
                           std::all_of(mServices.begin(), mServices.end(),
                                       [](const Service& service) { return detail::IsName(service.name); });
        const bool fits = !mServices.empty() && mServices.size() <= LUM_MAX_SERVICES;
        if (!detail::Outcome(named, Errc::BAD_NAME, error) ||
            !detail::Outcome(fits, Errc::BAD_SERVICES, error)) {
            return false;
        }
        detail::SetField(record.devServiceType, mType);
        for (const Service& service : mServices) {
            LUM_SERVICE_INFO_S& entry = record.serviceInfo[record.serviceNum++];
            entry.outputLenBytes = service.outputBytes;
            detail::SetField(entry.serviceName, service.name);
            entry.transport = static_cast<LUM_TRANSPORT_E>(service.transport);
        }
        record.OnCommand = detail::OnCommand;
        record.OnEventNotify = detail::OnNotify;
        record.OnData = detail::OnData;
        return detail::Outcome(detail::DescriptionFits(record), Errc::BAD_SERVICES, error);
    }

    const std::string mType;
    // Serializes Start and Stop: another thread's Start must not run between the end of the library's server
    // and ForgetDevice. No handler takes it.
    std::mutex mLifeMutex;
    mutable std::mutex mMutex;  // guards mServices
    std::vector<Service> mServices;
    const std::shared_ptr<detail::DeviceState> mState = std::make_shared<detail::DeviceState>();
};

}  // namespace lumora

#endif
