// Keys and protected connections of a platform library, in the process. Linking this defines GetLinkSecurity.
// A protected connection scrambles its bytes and cuts them into pieces; its handshake is 8 bytes each way.
#pragma once

#include <atomic>
#include <string>

#include "link_security.h"

namespace lumora_test {

// While none lives, the platform library holds no keys.
class FakeSecurity {
public:
    FakeSecurity();
    ~FakeSecurity();
    FakeSecurity(const FakeSecurity&) = delete;
    FakeSecurity& operator=(const FakeSecurity&) = delete;

    // ---- What the platform does when it is called ----
    LinkSecurity table;  // each operation can be replaced
    LinkChannelMode mode = LINK_CHANNEL_PREFER;
    unsigned char requesterNode = 0;  // that the next requests come from; 0: one that has proven nothing
    bool makesChannels = true;
    bool completes = true;
    std::atomic<bool> opensConnections{true};
    std::atomic<bool> readsFail{false};
    // The next so many reads and writes want the opposite.
    std::atomic<int> readsThatWantToWrite{0};
    std::atomic<int> writesThatWantToRead{0};

    // ---- What has been called ----
    std::string completedWith;  // "ANSWER from ADDRESS:PORT"
    std::atomic<int> liveChannels{0};
    std::atomic<int> liveConnections{0};
    std::atomic<int> shutdowns{0};
};

// What a protected connection writes for these bytes.
std::string Scrambled(const std::string& bytes);

}  // namespace lumora_test
