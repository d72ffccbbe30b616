#include <gtest/gtest.h>

#include "tests/support/virtual_slot.h"
#include "transport/transport_manager.h"

namespace {

using lumora_test::ExpectSlotOrder;
using lumora_test::SlotOf;
using lumoraAiModule::LumoraTransCallback;
using lumoraAiModule::LumoraTransManager;

TEST(SlotOrder, OfATransportManager) {
    ExpectSlotOrder(&LumoraTransManager::CreateTransports, &LumoraTransManager::DestoryTransports,
                    &LumoraTransManager::StartTransports, &LumoraTransManager::StopTransports,
                    &LumoraTransManager::GetTransStatus, &LumoraTransManager::SendData);
}

TEST(SlotOrder, OfTheTransportCallback) {
    ExpectSlotOrder(&LumoraTransCallback::OnRecvData, &LumoraTransCallback::OnDisconnect);
}

TEST(SlotOrder, AnOperationThatIsNotVirtualHasNone) {
    EXPECT_EQ(static_cast<std::size_t>(-1),
              SlotOf(&lumoraAiModule::LumoraTransManagerFactory::DestoryTransportsManager));
}

}  // namespace
