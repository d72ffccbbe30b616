#include <gtest/gtest.h>

#include "server/server_module.h"
#include "tests/support/virtual_slot.h"

namespace {

using lumora_test::SlotOf;
using lumoraAiModule::LumoraServerModule;

TEST(SlotOrder, OfTheServerModule) {
    EXPECT_EQ(2U, SlotOf(&LumoraServerModule::OnCoapGet));
    EXPECT_EQ(3U, SlotOf(&LumoraServerModule::OnCoapPut));
    EXPECT_EQ(4U, SlotOf(&LumoraServerModule::OnCoapPost));
    EXPECT_EQ(5U, SlotOf(&LumoraServerModule::OnCoapDelete));
    EXPECT_EQ(6U, SlotOf(&LumoraServerModule::OnSetupMediaService));
    EXPECT_EQ(7U, SlotOf(&LumoraServerModule::OnAddDevice));
    EXPECT_EQ(8U, SlotOf(&LumoraServerModule::OnRemoveDevice));
}

}  // namespace
