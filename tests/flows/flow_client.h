// The client of a flow: sends and receives blocks for a time while other threads of the process use the
// library.
#pragma once

#include <string>
#include <vector>

namespace lumora_test {

// Options, each in any combination:
//   size=BYTES      of a block (100000); the device's are at most LUM_MAX_SERVER_DATA_LENGTH long
//   pace=MS         one block each way every so often (20); 0 is back to back
//   up, down        only this direction; both without either
//   echo            the device answers each block out of OnData, in place of sending of its own accord
//   search          a search each second
//   command=MS      commands whose OnCommand takes so long, one after the other
//   second          a client that registers, connects, subscribes, disconnects and ends, again and again
//   version         version queries
//   silent          version queries to the device "silent", which may not answer
//   late=MS         the longest pause that is no fault whatever the machine does (100; 300 back to back, when
//   the flow
//                   itself keeps all cores busy)
// Runs for so many seconds. Returns 0 when no block was lost, no channel broke, no call failed and no
// delivery paused for longer.
int RunFlowClient(int duration, const std::vector<std::string>& options);

// Connects to the device "silent" again and again. Ends with standard input.
int RunBystander();

}  // namespace lumora_test
