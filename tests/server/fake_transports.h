// Transports without sockets, and a version query that fails, for a server module that is made with
// Sources().
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "server/server_module.h"

namespace lumora_test {

using lumoraAiModule::LUM_OBSERVER_S;
using lumoraAiModule::TransType;

// Does what it is told and remembers how it was called.
class FakeTransport : public lumoraAiModule::LumoraTransManager {
public:
    struct Direction {
        TransType type;
        std::string address;
        int port;
        LUM_OBSERVER_S observer;
    };

    int CreateTransports(TransType type, const std::string& address, int port,
                         LUM_OBSERVER_S& observer) override;
    int StopTransports() override;
    int GetTransStatus(LUM_TRANSPORT_STATUS_E& status) override;
    int SendData(const void* data, unsigned int length, unsigned int* written, unsigned int timeout) override;
    int SendFrame(const lumoraAiModule::FrameParts& frame, unsigned int* written,
                  unsigned int timeout) override;

    int receiveResult = 0;  // of CreateTransports for SERVER_RECEIVE
    int sendingResult = 0;  // and for SERVER_SEND
    int stopResult = 0;
    int statusResult = 0;
    LUM_TRANSPORT_STATUS_E status = LUM_TRANSPORT_STATUS_UNKNOWN;
    // How a send ends; by default everything is written.
    std::function<int(unsigned int length, unsigned int* written)> send = [](unsigned int length,
                                                                             unsigned int* written) {
        *written = length;
        return 0;
    };

    // Run inside StopTransports and CreateTransports, so that a test can hold a thread there.
    std::function<void()> onStop = [] {};
    std::function<void(TransType type)> onCreate = [](TransType) {};

    std::vector<Direction> directions;
    std::atomic<int> stops{0};
    std::vector<std::string> sent;
    std::vector<unsigned int> timeouts;
};

// What a server module of a test is made with: the library's own functions, unless one of the objects below
// lives.
lumoraAiModule::ServerSources Sources();

// While one lives, Sources() give `next` instead of a TCP transport.
class FakeTransports {
public:
    FakeTransports();
    ~FakeTransports();
    FakeTransports(const FakeTransports&) = delete;
    FakeTransports& operator=(const FakeTransports&) = delete;

    std::shared_ptr<FakeTransport> next = std::make_shared<FakeTransport>();
    std::vector<LUM_TRANSPORT_E> protocols;  // of the transports that were asked for
};

// While one lives, the version cannot be told.
class VersionFailure {
public:
    VersionFailure();
    ~VersionFailure();
    VersionFailure(const VersionFailure&) = delete;
    VersionFailure& operator=(const VersionFailure&) = delete;
};

}  // namespace lumora_test
