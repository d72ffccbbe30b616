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
using lumora_test::ExpectSlotOrder;
using lumoraAiModule::LumoraCoapCallback;
using lumoraAiModule::LumoraNotifyCallback;

TEST(SlotOrder, OfARemoteDevice) {
    ExpectSlotOrder(&LinkDevice::Put, &LinkDevice::Get, &LinkDevice::Post, &LinkDevice::Delete,
                    &LinkDevice::SetupMediaService, &LinkDevice::Address, &LinkDevice::Port);
}

TEST(SlotOrder, OfADescriptor) {
    ExpectSlotOrder(&LinkDeviceDescriptor::GetDescriptor, &LinkDeviceDescriptor::OnGet,
                    &LinkDeviceDescriptor::OnPut, &LinkDeviceDescriptor::OnPost,
                    &LinkDeviceDescriptor::OnDelete, &LinkDeviceDescriptor::OnSetupMediaService);
}

TEST(SlotOrder, OfTheLink) {
    ExpectSlotOrder(&SmartHomeLink::RegisterDeviceDescriptor, &SmartHomeLink::FindDevice, &SmartHomeLink::Dbg,
                    &SmartHomeLink::Run, &SmartHomeLink::Exit, &SmartHomeLink::SetConnectDevice);
}

TEST(SlotOrder, OfTheRequestCallback) {
    ExpectSlotOrder(&LumoraCoapCallback::OnCoapGet, &LumoraCoapCallback::OnCoapPut,
                    &LumoraCoapCallback::OnCoapPost, &LumoraCoapCallback::OnCoapDelete,
                    &LumoraCoapCallback::OnSetupMediaService);
}

TEST(SlotOrder, OfTheNotifyCallback) {
    ExpectSlotOrder(&LumoraNotifyCallback::OnAddDevice, &LumoraNotifyCallback::OnRemoveDevice);
}

}  // namespace
