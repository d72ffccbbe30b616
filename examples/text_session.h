// A client of the library, and its conversation with one text-reading device.
#pragma once

#include <lumora.h>

#include <stdexcept>
#include <string>

#include "options.h"
#include "text_answer.h"

namespace text_reader {

enum ExitCode {
    SUCCESS = 0,
    LIBRARY_FAILED = 1,
    WRONG_USAGE = USAGE_ERROR,
    BAD_PICTURE = 3,
    NO_DEVICE = 4,
    NO_ANSWER = 5,
    DEVICE_REFUSED = 6
};

// A failure with what to do about it. Every operation below may end with one.
class Failure : public std::runtime_error {
public:
    Failure(ExitCode code, const std::string& message) : std::runtime_error(message), mCode(code) {}
    ExitCode Code() const { return mCode; }

private:
    ExitCode mCode;
};

// One at a time: the library's callbacks are given no context.
class TextSession {
public:
    TextSession();
    ~TextSession();
    TextSession(const TextSession&) = delete;
    TextSession& operator=(const TextSession&) = delete;

    // The devices of a type. The first one may only be starting, so it is searched for so many seconds.
    LUM_DEVICES_INFO_S Find(const std::string& deviceType, int seconds) const;

    // The name is that of a device which Find returned.
    void Connect(const std::string& device);
    std::string Versions() const;
    void Subscribe();
    void SendCommand(const char* command, const char* parameter);
    void Send(const std::string& picture);

    // The next answer of this kind. One that is an error is a failure.
    Answer Await(Answer::Kind kind, int seconds) const;

private:
    void RequireDevice() const;

    int mClient = 0;
    unsigned int mHandle = 0;
    bool mConnected = false;
};

}  // namespace text_reader
