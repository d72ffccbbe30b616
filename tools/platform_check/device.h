// A device in a process of its own, on the library that is looked at. What its handlers see, it tells by
// their answers.
#pragma once

#include <sys/types.h>

#include <string>

#include "base/unique_fd.h"
#include "tools/platform_check/library.h"

namespace platform_check {

// The keys that it understands. A GET takes the request's value, and gives a reply:
namespace key {
constexpr char REVERSE[] = "reverse";    // the value backwards
constexpr char FILL[] = "fill";          // so many characters
constexpr char SIZE[] = "size";          // the size of the buffer
constexpr char WHO[] = "who";            // the requester's address
constexpr char RESOURCE[] = "resource";  // "same" if the handler got the registered record
constexpr char SIGNALS[] = "signals";    // the number of signals that the handler's thread does not block
constexpr char SLEEP[] = "sleep";        // nothing, after so many milliseconds
constexpr char RELAY[] = "relay";        // what the first device of this type has for "reverse"
constexpr char LAST[] = "last";          // the last request that was no GET, see Described
constexpr char COUNT[] = "count";        // how many requests to "once" there were
// PUT, POST and DELETE:
constexpr char ONCE[] = "once";
constexpr char NOTED[] = "noted";
// All four:
constexpr char REFUSE[] = "refuse";  // is refused
}  // namespace key

// "POST noted 3 3 616263": verb, key, length as given, length up to the terminator, a checksum.
std::string Described(const std::string& verb, const std::string& key, const std::string& value,
                      unsigned length);

class Device {
public:
    // Makes the process, which waits. Call it before anything is loaded.
    Device(const Files& files, std::string type);
    ~Device();
    Device(const Device&) = delete;
    Device& operator=(const Device&) = delete;

    // What went wrong, or nothing.
    std::string Start();
    // Exit and FreeLinkPlatform. What went wrong, or nothing.
    std::string Stop();
    // Kills the process, so that it sends no goodbye.
    void Kill();

private:
    std::string Order(char letter);

    pid_t mId = -1;
    lumora::UniqueFd mOrders;
    lumora::UniqueFd mAnswers;
};

}  // namespace platform_check
