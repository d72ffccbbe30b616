// What is said in JSON of devices whose names may be anything, and which commands are read.
#include "hub/web/json_texts.h"

#include <gtest/gtest.h>

#include "base/json.h"

namespace lumora_hub::web {
namespace {

DeviceState Lamp() {
    DeviceState device;
    device.id = "lamp@192.0.2.1";
    device.type = "l\xFF\"amp";
    device.channel = ChannelState::FAILED;
    device.trouble = "it is busy";
    device.identity = "key 1";
    device.since = std::chrono::system_clock::time_point(std::chrono::milliseconds(1234567890123));
    device.services.resize(1);
    device.services[0].name = "on";
    device.services[0].bytes = std::uint64_t{1} << 40;
    return device;
}

std::string TextAt(const cJSON* object, const char* key) {
    return cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(object, key));
}

TEST(JsonTextsTest, ADeviceIsToldWhole) {
    const lumora::JsonTree device = lumora::ParseJson(DeviceText(Lamp()));
    ASSERT_NE(nullptr, device);
    EXPECT_EQ("lamp@192.0.2.1", TextAt(device.get(), "id"));
    EXPECT_EQ("l\xEF\xBF\xBD\"amp", TextAt(device.get(), "type"));
    EXPECT_EQ("failed", TextAt(device.get(), "channel"));
    EXPECT_EQ("key 1", TextAt(device.get(), "identity"));
    EXPECT_EQ(1234567890123.0, cJSON_GetObjectItem(device.get(), "since")->valuedouble);
    const cJSON* const service = cJSON_GetArrayItem(cJSON_GetObjectItem(device.get(), "services"), 0);
    EXPECT_EQ(1099511627776.0, cJSON_GetObjectItem(service, "bytes")->valuedouble);
}

TEST(JsonTextsTest, MessagesHaveTheirTypes) {
    EXPECT_EQ("devices", TextAt(lumora::ParseJson(ListMessage({Lamp()})).get(), "type"));
    const lumora::JsonTree change = lumora::ParseJson(ChangeMessage({DeviceEvent::Kind::FORGOTTEN, Lamp()}));
    EXPECT_EQ("device", TextAt(change.get(), "type"));
    EXPECT_EQ("forgotten", TextAt(change.get(), "kind"));
    EXPECT_EQ("lamp@192.0.2.1", TextAt(cJSON_GetObjectItem(change.get(), "device"), "id"));
    const lumora::JsonTree counts = lumora::ParseJson(CountsMessage({Lamp()}));
    const cJSON* const device =
        cJSON_GetObjectItem(cJSON_GetObjectItem(counts.get(), "devices"), "lamp@192.0.2.1");
    EXPECT_NE(nullptr, cJSON_GetObjectItem(cJSON_GetObjectItem(device, "on"), "blocks"));
}

TEST(JsonTextsTest, OnlyCommandsAreRead) {
    std::string name;
    std::string parameter = "old";
    EXPECT_TRUE(ReadCommand(R"({"name":"go"})", name, parameter));
    EXPECT_EQ("go", name);
    EXPECT_EQ("", parameter);
    EXPECT_TRUE(ReadCommand(R"({"parameter":"\u00fc","name":"go"})", name, parameter));
    EXPECT_EQ("\xC3\xBC", parameter);
    for (const char* const text : {"", "{", "[]", "1", R"({"name":5})", R"({"name":""})", R"({"Name":"a"})",
                                   R"({"name":"a","parameter":null})"}) {
        EXPECT_FALSE(ReadCommand(text, name, parameter)) << text;
    }
}

}  // namespace
}  // namespace lumora_hub::web
