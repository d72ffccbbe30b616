// "Do this, and show me what the device answers": a part of the commands that have something done.
#pragma once

#include <chrono>
#include <string>

#include "tools/lumora/manual/command.h"
#include "tools/lumora/session/block_writer.h"
#include "tools/lumora/session/client_session.h"

namespace lumora_cli {

struct AwaitOptions {
    std::string service;  // empty: nothing is waited for
    std::chrono::milliseconds timeout{10000};
    BlockFormat format;
};

void AddAwaitOptions(Command& command, AwaitOptions& options);

// The services that the device needs for that: one or none.
std::vector<std::string> ServicesFor(const AwaitOptions& options);
// Before the request, so that no answer is missed.
void SubscribeForAnswer(ClientSession& session, const AwaitOptions& options);
// Prints the next block of the service. Throws when none comes in time.
void PrintAnswer(ClientSession& session, const AwaitOptions& options, BlockWriter& writer);

}  // namespace lumora_cli
