#include "hub/mqtt/description.h"

#include <array>
#include <cstdio>
#include <ctime>
#include <new>

#include "base/json.h"

namespace lumora_hub {

namespace {

// A tree that throws where memory runs out, so that a document is never half of one.
class Document {
public:
    explicit Document(cJSON* root = cJSON_CreateObject()) : mRoot(Checked(root)) {}

    static cJSON* Checked(cJSON* item) {
        if (item == nullptr) {
            throw std::bad_alloc();
        }
        return item;
    }
    cJSON* Root() { return mRoot.get(); }
    std::string Text() const {
        std::string text;
        if (!lumora::PrintJson(mRoot.get(), text)) {
            throw std::bad_alloc();
        }
        return text;
    }

private:
    lumora::JsonTree mRoot;
};

void AddText(cJSON* parent, const char* key, const std::string& text) {
    Document::Checked(cJSON_AddStringToObject(parent, key, ReadableText(text).c_str()));
}

void AddNumber(cJSON* parent, const char* key, double number) {
    Document::Checked(cJSON_AddNumberToObject(parent, key, number));
}

cJSON* AddObject(cJSON* parent, const std::string& key) {
    return Document::Checked(lumora::AddJsonObject(parent, key));
}

cJSON* AddArray(cJSON* parent, const char* key) {
    return Document::Checked(cJSON_AddArrayToObject(parent, key));
}

cJSON* AppendObject(cJSON* array) {
    cJSON* item = Document::Checked(cJSON_CreateObject());
    cJSON_AddItemToArray(array, item);
    return item;
}

bool IsWordByte(char byte) {
    return (byte >= '0' && byte <= '9') || (byte >= 'A' && byte <= 'Z') || (byte >= 'a' && byte <= 'z') ||
           byte == '-';
}

void AddAvailability(cJSON* root, const std::string& topic) {
    cJSON* item = AppendObject(root);
    AddText(item, "topic", topic);
    AddText(item, "payload_available", "true");
    AddText(item, "payload_not_available", "false");
}

// The components of one device.
class Components {
public:
    Components(cJSON* parent, const DeviceState& device, const Topics& topics)
        : mParent(parent), mDevice(device), mTopics(topics), mId("lumora_" + HomeAssistantId(device.id)) {}

    void Add(const std::string& service, const ServiceContent& content) {
        if (content.kind == ContentKind::JPEG || content.kind == ContentKind::PNG) {
            AddText(Make("camera", service, ""), "topic", mTopics.Service(mDevice.id, service));
        } else if (content.kind == ContentKind::NUMBER) {
            AddSensor(service, {"", true});
        }
        for (const JsonField& field : content.fields) {
            AddSensor(service, field);
        }
    }

private:
    cJSON* Make(const char* platform, const std::string& service, const std::string& field) {
        std::string key = mId + "_" + HomeAssistantId(service);
        key += field.empty() ? "" : "__" + field;
        cJSON* component = AddObject(mParent, key);
        AddText(component, "platform", platform);
        AddText(component, "unique_id", key);
        AddText(component, "name", field.empty() ? service : service + " " + field);
        return component;
    }

    void AddSensor(const std::string& service, const JsonField& field) {
        cJSON* sensor = Make("sensor", service, field.name);
        AddText(sensor, "state_topic", mTopics.Service(mDevice.id, service));
        if (field.isNumber) {
            AddText(sensor, "state_class", "measurement");
        }
        if (!field.name.empty()) {
            AddText(sensor, "value_template", "{{ value_json." + field.name + " }}");
        }
    }

    cJSON* const mParent;
    const DeviceState& mDevice;
    const Topics& mTopics;
    const std::string mId;
};

}  // namespace

std::string TimeText(std::chrono::system_clock::time_point time) {
    const auto since = std::chrono::duration_cast<std::chrono::microseconds>(time.time_since_epoch()).count();
    const auto seconds = static_cast<std::time_t>(since / 1000000);
    std::tm parts = {};
    gmtime_r(&seconds, &parts);
    std::array<char, 32> day = {};
    std::strftime(day.data(), day.size(), "%Y-%m-%dT%H:%M:%S", &parts);
    std::array<char, 48> text = {};
    std::snprintf(text.data(), text.size(), "%s.%06dZ", day.data(), static_cast<int>(since % 1000000));
    return text.data();
}

std::string DescriptionOf(const DeviceState& device, const std::string& hub, const Topics& topics) {
    Document document;
    cJSON* root = document.Root();
    AddText(root, "hub", hub);
    AddText(root, "id", device.id);
    AddText(root, "type", device.type);
    AddText(root, "address", device.address);
    AddNumber(root, "port", device.port);
    AddText(root, "version", device.version);
    if (device.identity) {
        AddText(root, "identity", *device.identity);
    }
    AddText(root, "since", TimeText(device.since));
    AddText(root, "channel", NameOf(device.channel));
    if (!device.trouble.empty()) {
        AddText(root, "trouble", device.trouble);
    }
    cJSON* services = AddArray(root, "services");
    for (const ServiceState& service : device.services) {
        cJSON* item = AppendObject(services);
        AddText(item, "name", service.name);
        AddText(item, "topic", topics.Service(device.id, service.name));
        AddText(item, "transport", service.transport);
        AddNumber(item, "output_bytes", service.outputBytes);
    }
    return document.Text();
}

std::string HubOfDescription(const std::string& json) {
    const lumora::JsonTree root = lumora::ParseJson(json);
    const cJSON* hub = cJSON_GetObjectItemCaseSensitive(root.get(), "hub");
    return cJSON_IsString(hub) != 0 ? hub->valuestring : "";
}

std::string HomeAssistantId(const std::string& device) {
    std::string id;
    for (const char byte : device) {
        if (IsWordByte(byte)) {
            id += byte;
        } else {
            std::array<char, 4> escaped = {};
            std::snprintf(escaped.data(), escaped.size(), "_%02X", static_cast<unsigned char>(byte));
            id += escaped.data();
        }
    }
    return id;
}

std::string HomeAssistantDevice(const DeviceState& device,
                                const std::map<std::string, ServiceContent>& contents,
                                const std::string& version, const Topics& topics) {
    Document document;
    cJSON* root = document.Root();
    cJSON* about = AddObject(root, "device");
    AddText(about, "identifiers", "lumora_" + HomeAssistantId(device.id));
    AddText(about, "name", device.id);
    AddText(about, "model", device.type);
    if (!device.version.empty()) {
        AddText(about, "sw_version", device.version);
    }
    cJSON* origin = AddObject(root, "origin");
    AddText(origin, "name", "lumora-hub");
    AddText(origin, "sw_version", version);
    cJSON* availability = AddArray(root, "availability");
    AddAvailability(availability, topics.HubOnline());
    AddAvailability(availability, topics.Online(device.id));
    AddText(root, "availability_mode", "all");
    Components components(AddObject(root, "components"), device, topics);
    for (const auto& [service, content] : contents) {
        components.Add(service, content);
    }
    return document.Text();
}

}  // namespace lumora_hub
