#include <gtest/gtest.h>

#include "link/callbacks.h"
#include "link/device_descriptor.h"
#include "link/link_device.h"
#include "link/smart_home_link.h"
#include "tests/support/virtual_slot.h"

namespace {

using lumora::LinkDevice;
using lumora::LinkDeviceDescriptor;
using lumora::SmartHomeLink;
using lumora_test::SlotOf;
using lumoraAiModule::LumoraCoapCallback;
using lumoraAiModule::LumoraNotifyCallback;

TEST(SlotOrder, OfARemoteDevice) {
    EXPECT_EQ(2U, SlotOf(&LinkDevice::Put));
    EXPECT_EQ(3U, SlotOf(&LinkDevice::Get));
    EXPECT_EQ(4U, SlotOf(&LinkDevice::Post));
    EXPECT_EQ(5U, SlotOf(&LinkDevice::Delete));
    EXPECT_EQ(6U, SlotOf(&LinkDevice::SetupMediaService));
    EXPECT_EQ(7U, SlotOf(&LinkDevice::Address));
    EXPECT_EQ(8U, SlotOf(&LinkDevice::Port));
}

TEST(SlotOrder, OfADescriptor) {
    EXPECT_EQ(2U, SlotOf(&LinkDeviceDescriptor::GetDescriptor));
    EXPECT_EQ(3U, SlotOf(&LinkDeviceDescriptor::OnGet));
    EXPECT_EQ(4U, SlotOf(&LinkDeviceDescriptor::OnPut));
    EXPECT_EQ(5U, SlotOf(&LinkDeviceDescriptor::OnPost));
    EXPECT_EQ(6U, SlotOf(&LinkDeviceDescriptor::OnDelete));
    EXPECT_EQ(7U, SlotOf(&LinkDeviceDescriptor::OnSetupMediaService));
}

TEST(SlotOrder, OfTheLink) {
    EXPECT_EQ(2U, SlotOf(&SmartHomeLink::RegisterDeviceDescriptor));
    EXPECT_EQ(3U, SlotOf(&SmartHomeLink::FindDevice));
    EXPECT_EQ(4U, SlotOf(&SmartHomeLink::Dbg));
    EXPECT_EQ(5U, SlotOf(&SmartHomeLink::Run));
    EXPECT_EQ(6U, SlotOf(&SmartHomeLink::Exit));
    EXPECT_EQ(7U, SlotOf(&SmartHomeLink::SetConnectDevice));
}

TEST(SlotOrder, OfTheRequestCallback) {
    EXPECT_EQ(2U, SlotOf(&LumoraCoapCallback::OnCoapGet));
    EXPECT_EQ(3U, SlotOf(&LumoraCoapCallback::OnCoapPut));
    EXPECT_EQ(4U, SlotOf(&LumoraCoapCallback::OnCoapPost));
    EXPECT_EQ(5U, SlotOf(&LumoraCoapCallback::OnCoapDelete));
    EXPECT_EQ(6U, SlotOf(&LumoraCoapCallback::OnSetupMediaService));
}

TEST(SlotOrder, OfTheNotifyCallback) {
    EXPECT_EQ(2U, SlotOf(&LumoraNotifyCallback::OnAddDevice));
    EXPECT_EQ(3U, SlotOf(&LumoraNotifyCallback::OnRemoveDevice));
}

}  // namespace
