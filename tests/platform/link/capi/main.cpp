#include <gmock/gmock.h>

#include <cstdlib>

#include "tests/support/own_network.h"

int main(int argc, char** argv) {
    lumora_test::EnterOwnNetwork();
    setenv("LUMORA_LINK_INTERFACE", "lo", 1);
    testing::InitGoogleMock(&argc, argv);
    return RUN_ALL_TESTS();
}
