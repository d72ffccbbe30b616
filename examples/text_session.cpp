#include "text_session.h"

#include <chrono>
#include <condition_variable>
#include <deque>
#include <exception>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>

namespace text_reader {

namespace {

void Require(bool done, const std::string& what) {
    if (!done) {
        throw Failure(LIBRARY_FAILED, what + " failed; the log above says why");
    }
}

// What the device sends, on its way from the library's threads to ours.
class Inbox {
public:
    void Add(Answer answer) {
        const std::lock_guard<std::mutex> lock(mMutex);
        mAnswers.push_back(std::move(answer));
        mChanged.notify_one();
    }

    void DeviceHasLeft() {
        const std::lock_guard<std::mutex> lock(mMutex);
        mDeviceLeft = true;
        mChanged.notify_one();
    }

    // Nothing when none comes in time, or when the device has left.
    std::optional<Answer> Take(std::chrono::milliseconds limit) {
        std::unique_lock<std::mutex> lock(mMutex);
        mChanged.wait_for(lock, limit, [this] { return mDeviceLeft || !mAnswers.empty(); });
        if (mAnswers.empty()) {
            return std::nullopt;
        }
        Answer answer = std::move(mAnswers.front());
        mAnswers.pop_front();
        return answer;
    }

    bool HasDeviceLeft() {
        const std::lock_guard<std::mutex> lock(mMutex);
        return mDeviceLeft;
    }

private:
    std::mutex mMutex;  // guards what follows
    std::condition_variable mChanged;
    std::deque<Answer> mAnswers;
    bool mDeviceLeft = false;
};

Inbox g_inbox;

int OnDeviceEvent(LUM_DEVICE_EVENT_S event) try {
    const auto answer = ParseAnswer(std::string(event.data, event.dataLen));
    g_inbox.Add(answer.value_or(Answer{Answer::Kind::ERROR, "the device answers in a way unknown here"}));
    return 0;
} catch (const std::exception&) {
    return -1;
}

int OnClientEvent(int, LUM_EVENT_E event) {
    if (event == LUM_EVENT_DEVICE_REMOVED) {
        g_inbox.DeviceHasLeft();
    }
    return 0;
}

}  // namespace

TextSession::TextSession() { Require(LUM_InitClient(&mClient, "text-client") == 0, "joining the network"); }

TextSession::~TextSession() {
    if (mConnected) {
        LUM_DestoryAiDevice(mClient, mHandle);  // the device need not notice by itself
    }
    LUM_DeInitClient(mClient);
}

LUM_DEVICES_INFO_S TextSession::Find(const std::string& deviceType, int seconds) const {
    constexpr auto PAUSE = std::chrono::milliseconds(200);
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (true) {
        LUM_DEVICES_INFO_S devices;
        if (LUM_GetAiDeviceList(deviceType.c_str(), &devices) == 0 && devices.devNum != 0) {
            return devices;
        }
        if (std::chrono::steady_clock::now() > end) {
            throw Failure(NO_DEVICE, "no device of type \"" + deviceType + "\" was found in " +
                                         std::to_string(seconds) +
                                         " s; is one running in this network, and with this type? "
                                         "LUMORA_LINK_INTERFACE names the network interfaces that are used");
        }
        std::this_thread::sleep_for(PAUSE);  // nothing tells a client of new devices
    }
}

void TextSession::Connect(const std::string& device) {
    Require(LUM_CreateAiDevice(mClient, device.c_str(), &mHandle) == 0, "getting a handle");
    Require(LUM_RegisterEvent(mClient, OnClientEvent) == 0, "asking for client events");
    Require(LUM_RegisterAiDeviceEvent(mClient, mHandle, OnDeviceEvent) == 0, "asking for data");
    if (LUM_ConnectAiDevice(mClient, mHandle) != 0) {
        throw Failure(LIBRARY_FAILED,
                      "connecting failed; the log above says why. TCP port 6666 there and 6667 here must "
                      "be free and open");
    }
    mConnected = true;
}

std::string TextSession::Versions() const {
    char ours[LUM_MIN_VERSION_BUFFER_LENGTH];
    char theirs[LUM_MIN_VERSION_BUFFER_LENGTH];
    Require(LUM_GetClientVersion(mClient, ours, sizeof(ours)) == 0, "asking for our version");
    Require(LUM_GetServerVersion(mClient, mHandle, theirs, sizeof(theirs)) == 0,
            "asking for the device's version");
    return std::string("here ") + ours + ", device " + theirs;
}

void TextSession::Subscribe() {
    LUM_SUBSCRIBE_SERVICE_S subscription = {};
    std::string(SERVICE_NAME).copy(subscription.serviceName, LUM_NAME_SIZE - 1);
    subscription.transport = LUM_TRANSPORT_TCP;
    SendCommand("subscribe", reinterpret_cast<const char*>(&subscription));
}

void TextSession::SendCommand(const char* command, const char* parameter) {
    Require(LUM_SendCmd(mClient, mHandle, command, parameter) == 0, "sending a command");
}

void TextSession::Send(const std::string& picture) {
    const auto length = static_cast<unsigned int>(picture.size());
    unsigned int sent = 0;
    Require(LUM_SendData(mClient, mHandle, picture.data(), length, &sent, LUM_MAX_CLIENT_TIMEOUT_MS) == 0,
            "sending the picture");
    if (sent != length) {
        throw Failure(NO_ANSWER, "the device took only " + std::to_string(sent) + " of " +
                                     std::to_string(length) + " bytes; it or the network hangs");
    }
}

Answer TextSession::Await(Answer::Kind kind, int seconds) const {
    constexpr auto BETWEEN_CHECKS = std::chrono::seconds(1);
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (std::chrono::steady_clock::now() < end) {
        const std::optional<Answer> answer = g_inbox.Take(BETWEEN_CHECKS);
        if (!answer) {
            RequireDevice();
        } else if (answer->kind == Answer::Kind::ERROR) {
            throw Failure(DEVICE_REFUSED, "the device says: " + answer->text);
        } else if (answer->kind == kind) {
            return *answer;
        }
    }
    throw Failure(NO_ANSWER, "no answer within " + std::to_string(seconds) +
                                 " s; the device may be busy: allow more with --timeout");
}

// No event tells of a broken connection, but every call that needs the device fails from then on.
void TextSession::RequireDevice() const {
    char version[LUM_MIN_VERSION_BUFFER_LENGTH];
    if (g_inbox.HasDeviceLeft() || LUM_GetServerVersion(mClient, mHandle, version, sizeof(version)) != 0) {
        throw Failure(NO_ANSWER, "the device has left the network; start it again and repeat");
    }
}

}  // namespace text_reader
