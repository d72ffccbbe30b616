#include <gtest/gtest.h>

#include "server/server_module.h"
#include "tests/support/virtual_slot.h"

namespace {

using lumora_test::ExpectSlotOrder;
using lumoraAiModule::LumoraServerModule;

TEST(SlotOrder, OfTheServerModule) {
    ExpectSlotOrder(&LumoraServerModule::OnCoapGet, &LumoraServerModule::OnCoapPut,
                    &LumoraServerModule::OnCoapPost, &LumoraServerModule::OnCoapDelete,
                    &LumoraServerModule::OnSetupMediaService, &LumoraServerModule::OnAddDevice,
                    &LumoraServerModule::OnRemoveDevice);
}

}  // namespace
