#include <gtest/gtest.h>

#include "tests/support/virtual_slot.h"
#include "transport/transport_manager.h"

namespace {

using lumora_test::SlotOf;
using lumoraAiModule::LumoraTransCallback;
using lumoraAiModule::LumoraTransManager;

TEST(SlotOrder, OfATransportManager) {
    EXPECT_EQ(2U, SlotOf(&LumoraTransManager::CreateTransports));
    EXPECT_EQ(3U, SlotOf(&LumoraTransManager::DestoryTransports));
    EXPECT_EQ(4U, SlotOf(&LumoraTransManager::StartTransports));
    EXPECT_EQ(5U, SlotOf(&LumoraTransManager::StopTransports));
    EXPECT_EQ(6U, SlotOf(&LumoraTransManager::GetTransStatus));
    EXPECT_EQ(7U, SlotOf(&LumoraTransManager::SendData));
}

TEST(SlotOrder, OfTheTransportCallback) {
    EXPECT_EQ(2U, SlotOf(&LumoraTransCallback::OnRecvData));
    EXPECT_EQ(3U, SlotOf(&LumoraTransCallback::OnDisconnect));
}

TEST(SlotOrder, AnOperationThatIsNotVirtualHasNone) {
    EXPECT_EQ(static_cast<std::size_t>(-1),
              SlotOf(&lumoraAiModule::LumoraTransManagerFactory::DestoryTransportsManager));
}

}  // namespace
