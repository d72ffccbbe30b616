// A client of one device, from the search to the end.
#pragma once

#include <lumora.h>

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

#include "tools/lumora/manual/command.h"
#include "tools/lumora/os/waiting.h"
#include "tools/lumora/terminal/text.h"

namespace lumora_cli {

// What the device sent to a subscriber.
struct Block {
    WallTime time;
    std::string service;
    std::string data;
};

struct SessionOptions {
    std::string type;
    std::chrono::milliseconds find{2000};
};

void AddSessionOptions(Command& command, SessionOptions& options);

// One at a time: the library's callbacks do not say for whom they are. Whatever fails is thrown as a Failure.
class ClientSession {
public:
    // Joins the network.
    ClientSession();
    ~ClientSession();
    ClientSession(const ClientSession&) = delete;
    ClientSession& operator=(const ClientSession&) = delete;

    // Takes the first device that answers, among those with the service where one is named.
    void Find(const SessionOptions& options, const std::string& service = "");
    void Connect();
    void Subscribe(const std::string& service);
    void SendCommand(const std::string& name, const std::string& parameter);
    void Send(std::string_view bytes);

    std::string LibraryVersion() const;
    std::string DeviceVersion() const;

    // The next block; nothing when none came in time or a signal did. Notices when the device has left.
    std::optional<Block> Take(Deadline deadline);

private:
    std::string Chosen(const LUM_DEVICES_INFO_S& devices, const std::string& type,
                       const std::string& service) const;
    void RequireDevice() const;

    int mClient = 0;
    unsigned mHandle = 0;
    bool mConnected = false;
};

// Ends the program where a name cannot be one; what is "TYPE" or "SERVICE".
void CheckName(const std::string& what, const std::string& name);

}  // namespace lumora_cli
