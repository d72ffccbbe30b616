// The device of a flow. It sends blocks, or answers each out of OnData, as the command "start" says.
#pragma once

namespace lumora_test {

// All devices of flows join the network as this type, so that one search finds them.
constexpr char FLOW_LINK_TYPE[] = "flow";
constexpr char DOWN_SERVICE[] = "down";
constexpr char TALLY_SERVICE[] = "tally";

// Blocks pass from client to device ("up") and from device to client on the service "down".
//   start SIZE PACE_MS    sends blocks of SIZE bytes, one each PACE_MS
//   echo                  answers each block out of OnData
//   sleep MS              OnCommand takes so long
//   stop BLOCKS           ends sending; when BLOCKS have come, or after some seconds, a TallyOf is sent on
//   "tally"
struct DeviceTally {
    unsigned long long sent = 0;
    unsigned long long failed = 0;
    unsigned long long received = 0;
    unsigned long long lost = 0;
    unsigned long long damaged = 0;
    double gapMs = 0;
    double latenessMs = 0;
    double longestSendMs = 0;
    double stallMs = 0;
};

// Runs until standard input ends.
int RunFlowDevice(const char* devServiceType);

}  // namespace lumora_test
