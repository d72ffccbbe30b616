#include <gtest/gtest.h>

#include "client/client_module.h"
#include "tests/support/virtual_slot.h"

namespace {

using lumora_test::ExpectSlotOrder;
using lumoraAiModule::LumoraClientModule;

TEST(SlotOrder, OfTheClientModule) {
    ExpectSlotOrder(&LumoraClientModule::OnRecvData, &LumoraClientModule::OnDisconnect,
                    &LumoraClientModule::OnAddDevice, &LumoraClientModule::OnRemoveDevice);
}

}  // namespace
