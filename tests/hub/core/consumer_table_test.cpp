// Which consumers there may be.
#include "hub/core/consumer_table.h"

#include <gtest/gtest.h>

namespace {

using lumora_hub::Consumer;
using lumora_hub::ConsumerEntry;
using lumora_hub::ConsumerTable;

std::shared_ptr<ConsumerEntry> Add(ConsumerTable& table, const std::string& name,
                                   const std::string& device = "camera") {
    return table.Add(device, "picture", std::make_shared<Consumer>(name, lumora_hub::QueueLimits(), nullptr));
}

TEST(ConsumerTableTest, OneFaceLeavesRoomForOthers) {
    ConsumerTable table(8);
    std::shared_ptr<ConsumerEntry> last;
    for (int count = 0; count < 6; ++count) {
        last = Add(table, "mqtt");
        EXPECT_NE(last, nullptr);
    }
    EXPECT_EQ(Add(table, "mqtt"), nullptr);
    EXPECT_NE(Add(table, "web"), nullptr);
    EXPECT_NE(Add(table, "web"), nullptr);
    EXPECT_EQ(Add(table, "web latest"), nullptr);
    table.Remove(last);
    EXPECT_NE(Add(table, "mqtt"), nullptr);
    EXPECT_EQ(table.Size(), 8U);
}

TEST(ConsumerTableTest, ADeviceOfAnotherAddressFindsRoom) {
    ConsumerTable table(16);
    const std::string devices[] = {"camera@192.0.2.1", "camera@192.0.2.1:1024", "la@mp@192.0.2.1"};
    for (int count = 0; count < 9; ++count) {
        EXPECT_NE(Add(table, "mqtt", devices[count % 3]), nullptr);
    }
    EXPECT_EQ(Add(table, "mqtt", devices[0]), nullptr);
    EXPECT_NE(Add(table, "web", devices[0]), nullptr);
    EXPECT_NE(Add(table, "mqtt", "camera@192.0.2.10"), nullptr);
    EXPECT_NE(Add(table, "mqtt", "camera"), nullptr);
}

}  // namespace
