#include "text_session.h"

#include <utility>

namespace text_reader {

namespace {

void Require(const std::error_code& error, const std::string& what, ExitCode code = LIBRARY_FAILED) {
    if (error) {
        throw Failure(code, what + " failed: " + error.message() + "; the log above says more");
    }
}

}  // namespace

TextSession::TextSession() : mClient("text-client") {
    mClient.OnData([this](std::string_view, lumora::Bytes data) {
        auto answer = ParseAnswer(std::string(data.Text()));
        const std::lock_guard<std::mutex> lock(mMutex);
        mAnswers.push_back(answer ? std::move(*answer)
                                  : Answer{Answer::Kind::ERROR, "the device answers in a way unknown here"});
        mChanged.notify_one();
    });
    mClient.OnConnectionLost([this] {
        const std::lock_guard<std::mutex> lock(mMutex);
        mLost = true;
        mChanged.notify_one();
    });
}

std::vector<lumora::DeviceInfo> TextSession::Find(const std::string& deviceType, int seconds) {
    std::error_code error;
    std::vector<lumora::DeviceInfo> devices = mClient.Find(deviceType, std::chrono::seconds(seconds), error);
    Require(error, "searching");
    if (devices.empty()) {
        throw Failure(NO_DEVICE, "no device of type \"" + deviceType + "\" was found in " +
                                     std::to_string(seconds) +
                                     " s; is one running in this network, and with this type? "
                                     "LUMORA_LINK_INTERFACE names the network interfaces that are used");
    }
    return devices;
}

void TextSession::Connect(const lumora::DeviceInfo& device) {
    std::error_code error;
    if (!mClient.Connect(device, error)) {
        throw Failure(LIBRARY_FAILED,
                      "connecting failed; the log above says why. TCP port 6666 there and 6667 here "
                      "must be free and open");
    }
}

std::string TextSession::Versions() {
    std::error_code error;
    const std::string ours = mClient.LibraryVersion(error);
    Require(error, "asking for our version");
    const std::string theirs = mClient.DeviceVersion(error);
    Require(error, "asking for the device's version");
    return "here " + ours + ", device " + theirs;
}

void TextSession::Subscribe() {
    std::error_code error;
    mClient.Subscribe(SERVICE_NAME, error);
    Require(error, "subscribing");
}

void TextSession::SendCommand(const std::string& command, const std::string& parameter) {
    std::error_code error;
    mClient.Command(command, parameter, error);
    Require(error, "sending a command");
}

void TextSession::Send(const std::string& picture) {
    std::error_code error;
    mClient.Send(picture, error);
    Require(error, "sending the picture", error == lumora::Errc::INCOMPLETE ? NO_ANSWER : LIBRARY_FAILED);
}

Answer TextSession::Await(Answer::Kind kind, int seconds) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (std::optional<Answer> answer = Take(end)) {
        if (answer->kind == Answer::Kind::ERROR) {
            throw Failure(DEVICE_REFUSED, "the device says: " + answer->text);
        }
        if (answer->kind == kind) {
            return *answer;
        }
    }
    throw Failure(NO_ANSWER, "no answer within " + std::to_string(seconds) +
                                 " s; the device may be busy: allow more with --timeout");
}

// The next answer; nothing if none comes in time.
std::optional<Answer> TextSession::Take(std::chrono::steady_clock::time_point end) {
    std::unique_lock<std::mutex> lock(mMutex);
    mChanged.wait_until(lock, end, [this] { return mLost || !mAnswers.empty(); });
    if (!mAnswers.empty()) {
        Answer answer = std::move(mAnswers.front());
        mAnswers.pop_front();
        return answer;
    }
    if (mLost) {
        throw Failure(NO_ANSWER, "the device has left the network; start it again and repeat");
    }
    return std::nullopt;
}

}  // namespace text_reader
