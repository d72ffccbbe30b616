// The documents about a device.
#include "hub/mqtt/description.h"

#include <gtest/gtest.h>

#include "base/json.h"
#include "tests/hub/support/scripted_hub.h"

namespace lumora_hub {
namespace {

using lumora_hub_test::MakeDevice;

TEST(DescriptionTest, TellsWhatTheHubKnows) {
    const Topics topics("lumora", "gateway");
    DeviceState device = MakeDevice("camera", "10.0.0.4", {"picture", "send"});
    device.since = std::chrono::system_clock::time_point(std::chrono::microseconds(1769861000000123));
    device.services[0].outputBytes = 1000;
    device.channel = ChannelState::CONNECTED;
    device.identity = "camera-17";
    EXPECT_EQ(
        DescriptionOf(device, "gateway", topics),
        R"({"hub":"gateway","id":"camera@10.0.0.4","type":"camera","address":"10.0.0.4","port":5683,)"
        R"("version":"1.1.1","identity":"camera-17","since":"2026-01-31T12:03:20.000123Z",)"
        R"("channel":"connected","services":[)"
        R"({"name":"picture","topic":"lumora/camera@10.0.0.4/picture","transport":"tcp","output_bytes":1000},)"
        R"({"name":"send","topic":"lumora/camera@10.0.0.4/%73end","transport":"tcp","output_bytes":0}]})");
}

TEST(DescriptionTest, NamesThatAreNoTextDoNotDamageTheDocument) {
    const Topics topics("lumora", "gateway");
    const DeviceState device = MakeDevice("a\"\xFF\n{", "10.0.0.4", {"\x80"});
    const std::string text = DescriptionOf(device, "gateway", topics);
    EXPECT_NE(lumora::ParseJson(text), nullptr);
    EXPECT_TRUE(IsMqttText(text)) << text;
}

TEST(DescriptionTest, TellsWhichHubWroteIt) {
    const Topics topics("lumora", "gateway");
    EXPECT_EQ(HubOfDescription(DescriptionOf(MakeDevice("a", "10.0.0.1", {}), "gateway", topics)), "gateway");
    for (const char* text : {"", "true", "{}", "{\"hub\":1}", "{\"hub\"", "[]"}) {
        EXPECT_EQ(HubOfDescription(text), "") << text;
    }
}

TEST(HomeAssistantTest, IdsAreOfPlainLettersAndDiffer) {
    EXPECT_EQ(HomeAssistantId("camera@10.0.0.4:1"), "camera_4010_2E0_2E0_2E4_3A1");
    EXPECT_NE(HomeAssistantId("a_40"), HomeAssistantId("a@"));
}

TEST(HomeAssistantTest, ShowsPicturesNumbersAndFields) {
    const Topics topics("lumora", "gateway");
    const DeviceState device = MakeDevice("camera", "10.0.0.4", {"picture", "heat", "faces", "log"});
    const std::map<std::string, ServiceContent> contents = {
        {"picture", {ContentKind::JPEG, {}}},
        {"heat", {ContentKind::NUMBER, {}}},
        {"faces", {ContentKind::JSON, {{"count", true}, {"mood", false}}}},
        {"log", {ContentKind::TEXT, {}}}};
    const lumora::JsonTree root = lumora::ParseJson(HomeAssistantDevice(device, contents, "1.2", topics));
    ASSERT_NE(root, nullptr);
    const cJSON* components = cJSON_GetObjectItem(root.get(), "components");
    EXPECT_EQ(cJSON_GetArraySize(components), 4);
    const auto text = [&](const char* component, const char* key) {
        const std::string id = std::string("lumora_camera_4010_2E0_2E0_2E4_") + component;
        const cJSON* item = cJSON_GetObjectItem(cJSON_GetObjectItem(components, id.c_str()), key);
        return std::string(cJSON_IsString(item) != 0 ? item->valuestring : "");
    };
    EXPECT_EQ(text("picture", "platform"), "camera");
    EXPECT_EQ(text("picture", "topic"), "lumora/camera@10.0.0.4/picture");
    EXPECT_EQ(text("heat", "platform"), "sensor");
    EXPECT_EQ(text("heat", "state_class"), "measurement");
    EXPECT_EQ(text("faces__count", "value_template"), "{{ value_json.count }}");
    EXPECT_EQ(text("faces__mood", "state_class"), "");
    EXPECT_EQ(cJSON_GetArraySize(cJSON_GetObjectItem(root.get(), "availability")), 2);
}

}  // namespace
}  // namespace lumora_hub
