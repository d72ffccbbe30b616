#include <gtest/gtest.h>

#include "client/client_module.h"
#include "tests/support/virtual_slot.h"

namespace {

using lumora_test::SlotOf;
using lumoraAiModule::LumoraClientModule;

TEST(SlotOrder, OfTheClientModule) {
    EXPECT_EQ(2U, SlotOf(&LumoraClientModule::OnRecvData));
    EXPECT_EQ(3U, SlotOf(&LumoraClientModule::OnDisconnect));
    EXPECT_EQ(4U, SlotOf(&LumoraClientModule::OnAddDevice));
    EXPECT_EQ(5U, SlotOf(&LumoraClientModule::OnRemoveDevice));
}

}  // namespace
