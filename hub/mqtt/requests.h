// Commands and blocks that clients of the broker send to devices.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "base/mutex.h"
#include "hub/core/device_hub.h"
#include "hub/mqtt/broker_connection.h"
#include "hub/mqtt/topics.h"
#include "hub/mqtt/wakeup.h"

namespace lumora_hub {

struct MqttReply {
    std::string topic;
    std::string correlation;
    std::string text;  // as OutcomeText has it
};

// "done", "no device", "unreachable", "refused", "bad request" or "busy".
const char* OutcomeText(Outcome outcome);

struct RequestCounts {
    std::uint64_t commands = 0;  // handed to the hub
    std::uint64_t blocks = 0;
    std::uint64_t refused = 0;  // by this face
    std::size_t waiting = 0;    // for their devices
};

class Requests {
public:
    // wakeup is set when there is a reply.
    Requests(DeviceHub& hub, const Topics& topics, std::shared_ptr<Wakeup> wakeup);

    // Hands a request to the hub, or refuses it. Ignores a topic that is no request.
    void Take(MqttMessage message);

    std::optional<MqttReply> NextReply();
    void DropReplies();
    RequestCounts Counts() const;

private:
    // Outlives this object: the hub may tell the outcome of a request afterwards.
    struct Shared {
        explicit Shared(std::shared_ptr<Wakeup> toWake) : wakeup(std::move(toWake)) {}
        bool Begin(const std::string& device, std::size_t bytes);
        void End(const std::string& device, std::size_t bytes, MqttReply reply, Outcome outcome);
        void Reply(MqttReply reply, Outcome outcome);

        const std::shared_ptr<Wakeup> wakeup;
        lumora::Mutex mutex;  // a leaf lock
        std::size_t waiting GUARDED_BY(mutex) = 0;
        std::size_t waitingBytes GUARDED_BY(mutex) = 0;
        std::map<std::string, std::size_t> waitingOf GUARDED_BY(mutex);  // devices, as requests name them
        std::deque<MqttReply> replies GUARDED_BY(mutex);
        RequestCounts counts GUARDED_BY(mutex);
    };

    void Refuse(const MqttMessage& message, const MqttReply& reply, Outcome outcome, const char* why);
    void Start(const RequestTopic& request, std::string payload, MqttReply reply);

    DeviceHub& mHub;
    const Topics& mTopics;
    const std::shared_ptr<Shared> mShared;
};

}  // namespace lumora_hub
