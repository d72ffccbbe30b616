// Which device a name stands for.
#include "hub/core/device_board.h"

#include <gtest/gtest.h>

namespace {

using lumora_hub::DeviceBoard;
using lumora_hub::DeviceState;

DeviceState Device(const std::string& id, const std::string& type, const std::string& address,
                   bool present = true) {
    DeviceState device;
    device.id = id;
    device.type = type;
    device.address = address;
    device.isPresent = present;
    device.services.push_back({"picture", "tcp", 0, 0, 0, 0});
    return device;
}

TEST(DeviceBoardTest, FindsADeviceByItsIdAndByItsType) {
    DeviceBoard board;
    board.Set(Device("camera@10.0.0.1", "camera", "10.0.0.1"));
    EXPECT_EQ(board.Resolve("camera@10.0.0.1"), "camera@10.0.0.1");
    EXPECT_EQ(board.Resolve("camera"), "camera@10.0.0.1");
    EXPECT_EQ(board.Resolve("lamp"), "");
    EXPECT_EQ(board.Resolve("camera@10.0.0.2"), "");
}

TEST(DeviceBoardTest, ATypeStandsForTheSameDeviceAsLongAsThatIsThere) {
    DeviceBoard board;
    board.Set(Device("camera@10.0.0.2", "camera", "10.0.0.2"));
    EXPECT_EQ(board.Resolve("camera"), "camera@10.0.0.2");
    board.Set(Device("camera@10.0.0.1", "camera", "10.0.0.1"));
    EXPECT_EQ(board.Resolve("camera"), "camera@10.0.0.2");
    board.Set(Device("camera@10.0.0.2", "camera", "10.0.0.2", false));
    EXPECT_EQ(board.Resolve("camera"), "camera@10.0.0.1");
    board.Set(Device("camera@10.0.0.2", "camera", "10.0.0.2"));
    EXPECT_EQ(board.Resolve("camera"), "camera@10.0.0.1");
}

TEST(DeviceBoardTest, AnIdStandsForAnotherDeviceAtItsAddressIfItsOwnHasLeft) {
    DeviceBoard board;
    board.Set(Device("camera@10.0.0.1", "camera", "10.0.0.1", false));
    board.Set(Device("camera@10.0.0.1:4000", "camera", "10.0.0.1"));
    EXPECT_EQ(board.Resolve("camera@10.0.0.1"), "camera@10.0.0.1:4000");
    board.Set(Device("camera@10.0.0.1", "camera", "10.0.0.1"));
    EXPECT_EQ(board.Resolve("camera@10.0.0.1"), "camera@10.0.0.1");
}

TEST(DeviceBoardTest, CountsOutliveNewDescriptions) {
    DeviceBoard board;
    board.Set(Device("camera@10.0.0.1", "camera", "10.0.0.1"));
    board.CountBlock("camera@10.0.0.1", "picture", 100);
    board.CountBlock("camera@10.0.0.1", "unknown", 100);
    board.CountBlock("lamp@10.0.0.1", "picture", 100);
    board.SetConsumers("camera@10.0.0.1", {{"picture", 3}});
    board.Set(Device("camera@10.0.0.1", "camera", "10.0.0.1"));
    const auto device = board.Find("camera");
    ASSERT_TRUE(device);
    EXPECT_EQ(device->services[0].blocks, 1U);
    EXPECT_EQ(device->services[0].bytes, 100U);
    EXPECT_EQ(device->services[0].consumers, 3U);
    board.Remove("camera@10.0.0.1");
    EXPECT_FALSE(board.Find("camera"));
}

}  // namespace
