// A client of the library, and its conversation with one text-reading device.
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <lumora.hpp>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "options.h"
#include "text_answer.h"

namespace text_reader {

enum ExitCode {
    SUCCESS = 0,
    LIBRARY_FAILED = 1,
    WRONG_USAGE = examples::USAGE_ERROR,
    BAD_PICTURE = 3,
    NO_DEVICE = 4,
    NO_ANSWER = 5,
    DEVICE_REFUSED = 6
};

// A failure and its remedy. Every operation below may throw one.
class Failure : public std::runtime_error {
public:
    Failure(ExitCode code, const std::string& message) : std::runtime_error(message), mCode(code) {}
    ExitCode Code() const { return mCode; }

private:
    ExitCode mCode;
};

class TextSession {
public:
    TextSession();

    // The devices of a type. The first one may only be starting, so it is searched for so many seconds.
    std::vector<lumora::DeviceInfo> Find(const std::string& deviceType, int seconds);

    void Connect(const lumora::DeviceInfo& device);
    std::string Versions();
    void Subscribe();
    void SendCommand(const std::string& command, const std::string& parameter);
    void Send(const std::string& picture);

    // The next answer of this kind. An error answer throws.
    Answer Await(Answer::Kind kind, int seconds);

private:
    std::optional<Answer> Take(std::chrono::steady_clock::time_point end);

    std::mutex mMutex;  // guards what follows; the library's threads fill it
    std::condition_variable mChanged;
    std::deque<Answer> mAnswers;
    bool mLost = false;
    lumora::Client mClient;  // the last one: no handler runs once it is gone
};

}  // namespace text_reader
