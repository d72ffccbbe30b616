#include <gmock/gmock.h>

#include "tests/support/own_network.h"

int main(int argc, char** argv) {
    lumora_test::EnterOwnNetwork();
    testing::InitGoogleMock(&argc, argv);
    return RUN_ALL_TESTS();
}
