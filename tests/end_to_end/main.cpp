#include <gmock/gmock.h>
#include <signal.h>
#include <stdlib.h>

#include "tests/support/own_network.h"

int main(int argc, char** argv) {
    lumora_test::EnterOwnNetwork();
    signal(SIGPIPE, SIG_IGN);
    // For the programs under test. Nothing leaves this machine, even if it has no network of its own.
    setenv("LUMORA_LINK_INTERFACE", "lo", 1);
    unsetenv("LUMORA_LINK_PEERS");
    unsetenv("LUMORA_LINK_PORT");
    unsetenv("LUMORA_LOG_FILE");
    // One core for recognition: its helper threads cost more than they bring on a busy machine.
    setenv("OMP_THREAD_LIMIT", "1", 1);
    testing::InitGoogleMock(&argc, argv);
    return RUN_ALL_TESTS();
}
