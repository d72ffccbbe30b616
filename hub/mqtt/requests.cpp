#include "hub/mqtt/requests.h"

#include "hub/mqtt/log.h"
#include "hub/mqtt/request_limits.h"

namespace lumora_hub {

namespace {

constexpr std::size_t MOST_SHOWN_BYTES = 120;

// What is wrong with a request; null if nothing is.
const char* FaultOf(const RequestTopic& request, const std::string& payload) {
    if (!request.isCommand) {
        return payload.empty() || payload.size() > MOST_BLOCK_BYTES ? "it has no bytes, or too many"
                                                                    : nullptr;
    }
    if (request.command.empty() || request.command.size() + payload.size() > MOST_COMMAND_BYTES) {
        return "it has no name, or is too long";
    }
    // The library's interface is C's.
    if (request.command.find('\0') != std::string::npos || payload.find('\0') != std::string::npos) {
        return "it has a zero byte";
    }
    // The hub subscribes for its consumers. A client of the broker must not end that.
    if (request.command == "subscribe" || request.command == "unsubscribe") {
        return "subscriptions are the hub's own";
    }
    return nullptr;
}

}  // namespace

const char* OutcomeText(Outcome outcome) {
    switch (outcome) {
        case Outcome::DONE:
            return "done";
        case Outcome::NO_DEVICE:
            return "no device";
        case Outcome::UNREACHABLE:
            return "unreachable";
        case Outcome::REFUSED:
            return "refused";
        case Outcome::BAD_REQUEST:
            return "bad request";
        case Outcome::BUSY:
            break;
    }
    return "busy";
}

bool Requests::Shared::Begin(const std::string& device, std::size_t bytes) {
    const lumora::MutexLock lock(mutex);
    const auto ofDevice = waitingOf.find(device);
    if (waiting >= MOST_REQUESTS || waitingBytes + bytes > MOST_REQUEST_BYTES ||
        (ofDevice != waitingOf.end() && ofDevice->second >= MOST_REQUESTS_OF_DEVICE)) {
        return false;
    }
    ++waitingOf[device];
    ++waiting;
    waitingBytes += bytes;
    return true;
}

void Requests::Shared::End(const std::string& device, std::size_t bytes, MqttReply reply, Outcome outcome) {
    {
        const lumora::MutexLock lock(mutex);
        if (--waitingOf[device] == 0) {
            waitingOf.erase(device);
        }
        --waiting;
        waitingBytes -= bytes;
    }
    Reply(std::move(reply), outcome);
}

void Requests::Shared::Reply(MqttReply reply, Outcome outcome) {
    if (reply.topic.empty()) {
        return;
    }
    reply.text = OutcomeText(outcome);
    {
        const lumora::MutexLock lock(mutex);
        if (replies.size() >= MOST_REPLIES) {
            return;
        }
        replies.push_back(std::move(reply));
    }
    wakeup->Set();
}

Requests::Requests(DeviceHub& hub, const Topics& topics, std::shared_ptr<Wakeup> wakeup)
    : mHub(hub), mTopics(topics), mShared(std::make_shared<Shared>(std::move(wakeup))) {}

void Requests::Take(MqttMessage message) {
    const auto request = mTopics.Request(message.topic);
    if (!request) {
        return;
    }
    MqttReply reply;
    if (mTopics.IsReply(message.replyTopic)) {
        reply.topic = message.replyTopic;
        reply.correlation = message.correlation;
    }
    // A broker gives a retained message to each new subscriber: it would run again after each reconnect.
    if (message.isRetained) {
        Refuse(message, reply, Outcome::BAD_REQUEST, "it is retained");
    } else if (const char* fault = FaultOf(*request, message.payload)) {
        Refuse(message, reply, Outcome::BAD_REQUEST, fault);
    } else if (!mShared->Begin(request->device, message.payload.size())) {
        Refuse(message, reply, Outcome::BUSY, "too many wait");
    } else {
        Start(*request, std::move(message.payload), std::move(reply));
    }
}

std::optional<MqttReply> Requests::NextReply() {
    const lumora::MutexLock lock(mShared->mutex);
    if (mShared->replies.empty()) {
        return std::nullopt;
    }
    MqttReply reply = std::move(mShared->replies.front());
    mShared->replies.pop_front();
    return reply;
}

void Requests::DropReplies() {
    const lumora::MutexLock lock(mShared->mutex);
    mShared->replies.clear();
}

RequestCounts Requests::Counts() const {
    const lumora::MutexLock lock(mShared->mutex);
    RequestCounts counts = mShared->counts;
    counts.waiting = mShared->waiting;
    return counts;
}

void Requests::Refuse(const MqttMessage& message, const MqttReply& reply, Outcome outcome, const char* why) {
    {
        const lumora::MutexLock lock(mShared->mutex);
        ++mShared->counts.refused;
    }
    MQTT_LOG_LIMITED(MQTT_WARNING, "a request at %s is not carried out: %s\n",
                     ReadableText(message.topic.substr(0, MOST_SHOWN_BYTES)).c_str(), why);
    mShared->Reply(reply, outcome);
}

void Requests::Start(const RequestTopic& request, std::string payload, MqttReply reply) {
    {
        const lumora::MutexLock lock(mShared->mutex);
        ++(request.isCommand ? mShared->counts.commands : mShared->counts.blocks);
    }
    const std::size_t bytes = payload.size();
    auto done = [shared = mShared, device = request.device, bytes,
                 reply = std::move(reply)](Outcome outcome) { shared->End(device, bytes, reply, outcome); };
    if (request.isCommand) {
        mHub.SendCommand(request.device, request.command, payload, std::move(done));
    } else {
        mHub.SendBlock(request.device, std::move(payload), std::move(done));
    }
}

}  // namespace lumora_hub
