// What comes from an MQTT broker: requests, descriptions that it keeps; and what devices send to it.
#include <algorithm>
#include <memory>

#include "hub/mqtt/content.h"
#include "hub/mqtt/description.h"
#include "hub/mqtt/request_limits.h"
#include "hub/mqtt/requests.h"
#include "hub/mqtt/retained_topics.h"
#include "hub/mqtt/topics.h"
#include "tests/fuzz/hub_names.h"
#include "tests/fuzz/mutation.h"
#include "tests/fuzz/require.h"
#include "tests/hub/support/scripted_hub.h"

using lumora_fuzz::Require;
using namespace lumora_hub;
using lumora_hub_test::ScriptedHub;

namespace {

// What a record of a script is. See README.md.
enum Kind : std::uint8_t { REQUEST, APPEAR, BLOCK, DESCRIPTION, OUTCOME, REPLIES, RETAINED, KINDS };

constexpr const char* HUB = "gateway";

bool IsTopic(const std::string& topic) {
    return IsMqttText(topic) && topic.find_first_of("+#") == topic.npos;
}

void RequireNamesSurvive(const std::string& name) {
    for (const std::string& level : {EncodeLevel(name), EncodeService(name)}) {
        Require(DecodeLevel(level) == name, "a name is read as it was written");
        Require(IsTopic(level) && level.find('/') == level.npos, "a name is one level of a topic");
    }
    const std::string service = EncodeService(name);
    Require(service != "command" && service != "send" && service != "online",
            "a service has no topic of the hub");
    Require(IsMqttText(ReadableText(name)), "a name can be shown");
    const Topics topics("lumora", HUB);
    if (!name.empty()) {
        const auto request = topics.Request("lumora/" + EncodeLevel(name) + "/command/" + EncodeLevel(name));
        Require(request && request->isCommand && request->device == name && request->command == name,
                "a command is found at its topic");
        Require(topics.Described(topics.Device(name)) == name, "a description is found at its topic");
    }
    Require(HomeAssistantId(name).size() <= 3 * name.size(), "an id is bounded");
}

void RequireDocuments(const DeviceState& device, const std::map<std::string, ServiceContent>& contents) {
    const Topics topics("lumora", HUB);
    const std::string description = DescriptionOf(device, HUB, topics);
    const lumora::JsonTree root = lumora_fuzz::WholeDocument(description);
    Require(root != nullptr && HubOfDescription(description) == HUB, "a description is found again");
    Require(lumora_fuzz::TextMember(root, "id") == ReadableText(device.id), "a description has its id");
    const cJSON* const services = cJSON_GetObjectItemCaseSensitive(root.get(), "services");
    Require(cJSON_GetArraySize(services) == static_cast<int>(device.services.size()),
            "all services are described");
    Require(lumora_fuzz::WholeDocument(HomeAssistantDevice(device, contents, "1", topics)) != nullptr,
            "an announcement is JSON");
}

void RequireContent(const std::string& bytes, ContentKind kind) {
    const bool isText = kind == ContentKind::TEXT || kind == ContentKind::NUMBER || kind == ContentKind::JSON;
    Require(!isText || IsText(bytes), "what is called text is text");
    Require(kind != ContentKind::JSON || lumora_fuzz::WholeDocument(bytes) != nullptr,
            "what is called JSON is JSON");
    Require((MediaType(kind) == nullptr) == (kind == ContentKind::UNKNOWN), "what is known has a type");
    Require(kind != ContentKind::NUMBER || bytes.size() <= 40, "a number is short");
    const std::vector<JsonField> fields = FieldsOf(bytes);
    Require(fields.size() <= 16, "fields are few");
    for (const JsonField& field : fields) {
        Require(!field.name.empty() && field.name.size() <= 40 &&
                    field.name.find_first_of("{}%\"' .") == std::string::npos,
                "a field can stand in a template");
    }
}

class World {
public:
    World() {
        mHub.OnRequest([](const ScriptedHub::Request& request) {
            Require(!request.device.empty() && request.bytes.size() <= MOST_BLOCK_BYTES,
                    "a request is bounded");
            Require(
                !request.isCommand || (!request.command.empty() && request.command != "subscribe" &&
                                       request.command != "unsubscribe" &&
                                       request.command.size() + request.bytes.size() <= MOST_COMMAND_BYTES &&
                                       (request.command + request.bytes).find('\0') == std::string::npos),
                "a command is one for the device");
        });
    }

    void Play(const lumora_fuzz::Record& record) {
        const std::string& bytes = record.bytes;
        switch (record.kind % KINDS) {
            case REQUEST:
                Take(bytes);
                break;
            case APPEAR:
                mContents.clear();
                mDevice = lumora_fuzz::DeviceOf(bytes);
                mHub.Appear(mDevice);
                RequireDocuments(mDevice, mContents);
                break;
            case BLOCK:
                Learn(bytes);
                break;
            case DESCRIPTION:
                HubOfDescription(bytes);
                RequireNamesSurvive(bytes);
                break;
            case OUTCOME:
                mHub.AnswerWith(static_cast<Outcome>(bytes.size() % 6));
                bytes.size() % 2 == 0 ? mHub.HoldAnswers() : mHub.ReleaseAnswers();
                break;
            case REPLIES:
                TakeReplies();
                break;
            default:
                ChangeRetained(bytes);
        }
        const RequestCounts counts = mRequests.Counts();
        Require(counts.waiting <= MOST_REQUESTS, "requests that wait are bounded");
    }

    void End() {
        mHub.ReleaseAnswers();
        Require(mRequests.Counts().waiting == 0, "each request ends");
        const RequestCounts counts = mRequests.Counts();
        Require(counts.commands + counts.blocks == mHub.Requests().size(), "requests are counted");
        TakeReplies();
    }

private:
    // A line for the topic, for the topic of the reply and for its data, and the payload. "!" before the
    // topic: retained.
    void Take(const std::string& bytes) {
        MqttMessage message;
        std::string* const parts[] = {&message.topic, &message.replyTopic, &message.correlation};
        std::size_t at = 0;
        for (std::string* part : parts) {
            const std::size_t end = std::min(bytes.find('\n', at), bytes.size());
            *part = bytes.substr(at, end - at);
            at = std::min(end + 1, bytes.size());
        }
        message.payload = bytes.substr(at);
        message.isRetained = !message.topic.empty() && message.topic[0] == '!';
        message.topic.erase(0, message.isRetained ? 1 : 0);
        RequireNamesSurvive(message.topic);
        const std::size_t before = mHub.Requests().size();
        const bool isRetained = message.isRetained;
        mRequests.Take(std::move(message));
        Require(!isRetained || mHub.Requests().size() == before, "a retained request is not carried out");
    }

    void TakeReplies() {
        std::size_t count = 0;
        while (const auto reply = mRequests.NextReply()) {
            Require(mTopics.IsReply(reply->topic) && reply->topic.compare(0, 13, "lumora/reply/") == 0,
                    "replies go to their topics only");
            Require(!reply->text.empty() && IsMqttText(reply->text), "a reply is a text");
            ++count;
        }
        Require(count <= MOST_REPLIES, "replies that wait are bounded");
    }

    // The first byte says of which service.
    void Learn(const std::string& bytes) {
        if (bytes.empty() || mDevice.services.empty()) {
            return;
        }
        const std::string payload = bytes.substr(1);
        const ContentKind kind = KindOf(payload);
        RequireContent(payload, kind);
        const std::size_t service = static_cast<unsigned char>(bytes[0]) % mDevice.services.size();
        mContents[mDevice.services[service].name] = {kind, FieldsOf(payload)};
        RequireDocuments(mDevice, mContents);
    }

    // Topics are letters. What the broker has got is what is to be there, once nothing waits.
    void ChangeRetained(const std::string& bytes) {
        for (const char byte : bytes) {
            const std::string topic(1, static_cast<char>('a' + (byte & 7)));
            switch ((byte >> 3) & 7) {
                case 0:
                    mRetained.Clear(topic);
                    mWanted.erase(topic);
                    break;
                case 1:
                    mRetained.Connected();
                    mIsConnected = true;
                    break;
                case 2:
                    mRetained.Lost();
                    mIsConnected = false;
                    break;
                case 3:
                    SendRetained(1);
                    break;
                default:
                    mRetained.Set(topic, std::string(1, byte));
                    mWanted[topic] = std::string(1, byte);
            }
        }
        if (mIsConnected) {
            mRetained.Connected();
            SendRetained(8);
            Require(!mRetained.Next(), "what waits is bounded by the topics");
            for (const auto& [topic, payload] : mWanted) {
                Require(mBroker[topic] == payload, "the broker has the latest state");
            }
        }
    }

    void SendRetained(int most) {
        for (int count = 0; count < most; ++count) {
            if (const auto message = mRetained.Next()) {
                mBroker[message->topic] = message->payload;
            }
        }
    }

    const Topics mTopics{"lumora", HUB};
    ScriptedHub mHub;
    Requests mRequests{mHub, mTopics, std::make_shared<Wakeup>()};
    DeviceState mDevice;
    std::map<std::string, ServiceContent> mContents;
    RetainedTopics mRetained;
    bool mIsConnected = false;
    std::map<std::string, std::string> mWanted;
    std::map<std::string, std::string> mBroker;
};

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    lumora_fuzz::PlayScript<World>(data, size);
    return 0;
}

std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size, std::size_t most,
                                    unsigned int seed) {
    return lumora_fuzz::MutateScriptInput(data, size, most, seed, KINDS,
                                          [](const std::string& bytes, lumora_fuzz::Dice& dice) {
                                              return dice.OneIn(3) ? lumora_fuzz::MutateJson(bytes, dice)
                                                                   : lumora_fuzz::MutateBytes(bytes, dice);
                                          });
}
