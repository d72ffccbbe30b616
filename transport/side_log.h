// The log lines of steps that both sides take and report in different words.
#pragma once

#include <netinet/in.h>

#include "library/side.h"

namespace lumoraAiModule {

using lumora::Side;

// The operation that the receive thread logs as.
const char* ReceiveThreadName(Side side);

void LogBindError(Side side, int error);
void LogBound(Side side, in_port_t networkPort);
void LogListenError(Side side, int error);
void LogWriteError(Side side, int error);

}  // namespace lumoraAiModule
