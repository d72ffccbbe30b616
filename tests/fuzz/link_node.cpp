// A node of the link platform in a network of strangers: whatever comes, it stays within its bounds, sends
// nothing that cannot be read, ends whatever was begun and calls no handler twice for one request. And
// whatever came, a client at another address is served at once, and gets an answer to each of its requests.
#include <algorithm>
#include <deque>
#include <random>
#include <set>

#include "platform/link/core/node_core.h"
#include "platform/link/wire/messages.h"
#include "tests/fuzz/mutation.h"
#include "tests/fuzz/node_script.h"
#include "tests/fuzz/require.h"

using lumora_fuzz::Record;
using lumora_fuzz::Require;
using namespace lumora_link;

namespace {

constexpr std::size_t LARGEST_DATAGRAM = 1472;
constexpr unsigned INTERFACE = 2;
const Endpoint OWN = {htonl(0x0a000001), 40001};
// No script speaks from here.
const Endpoint HONEST = {htonl(0x0a000009), 50000};

class SeededRandom : public RandomSource {
public:
    std::uint64_t Next() override { return mEngine(); }

private:
    std::mt19937_64 mEngine{1};
};

class Surroundings : public Network, public Application {
public:
    // ---- Network ----
    void Send(const LocalInterface& via, const Endpoint&, const CoapMessage& message) override {
        Require(via.index == INTERFACE, "it leaves by an interface that is there");
        RequireReadable(message);
        mLastToken = message.token;
    }
    void Transmit(ConversationId conversation, const Endpoint&, const CoapMessage& message) override {
        Require(mClosed.count(conversation) == 0, "nothing is said in a conversation that has ended");
        RequireReadable(message);
        mLastToken = message.token;
        mLastConversation = conversation;
    }
    void CloseConversation(ConversationId conversation) override {
        Require(mClosed.insert(conversation).second, "a conversation ends once");
    }
    void OnPeerGone(const Endpoint&) override {}
    void Reply(ReplyPath path, const CoapMessage& message) override {
        Require(mPaths.count(path) != 0, "a reply has a way back");
        RequireReadable(message);
        mLastReply = message;
    }
    bool IsClogged() const override { return false; }
    void Forget(ReplyPath path) override { Require(mPaths.erase(path) == 1, "a way back is forgotten once"); }

    // ---- Application ----
    bool Handle(HandlerCall call) override {
        Require(call.key.size() <= MAX_TEXT_BYTES && call.value.size() <= MAX_TEXT_BYTES,
                "texts are bounded");
        Require(code::IsRequest(call.method), "only requests are handled");
        if (mCalls.size() >= 4) {
            return false;
        }
        mCalls.push_back(call.ticket);
        mLastCall = std::move(call);
        return true;
    }
    void Notify(DeviceEvent event) override {
        const auto key = std::make_pair(event.node.identity.id, event.number);
        Require(event.added ? mPresent.insert(key).second : mPresent.erase(key) == 1,
                "each device is added once and then removed once");
    }
    void RequestEnded(std::uint64_t ticket, Outcome) override {
        Require(mTickets.erase(ticket) == 1, "a request ends once");
    }
    void SearchEnded(std::uint64_t ticket, std::vector<NodeDescription> found) override {
        Require(mTickets.erase(ticket) == 1, "a search ends once");
        const auto inOrder = [](const auto& a, const auto& b) { return a.endpoint < b.endpoint; };
        const auto last = std::is_sorted_until(found.begin(), found.end(), inOrder);
        Require(std::is_sorted(last, found.end(), inOrder),
                "what was found is in order, and so are those behind that left requests unanswered");
    }

    ReplyPath NewPath() {
        mPaths.insert(++mLastPath);
        return mLastPath;
    }

    std::set<ReplyPath> mPaths;
    ReplyPath mLastPath = 0;
    std::set<ConversationId> mClosed;
    ConversationId mLastConversation = 0;
    std::string mLastToken;
    std::deque<std::uint64_t> mCalls;
    HandlerCall mLastCall;
    CoapMessage mLastReply;
    std::set<std::pair<std::uint64_t, unsigned>> mPresent;
    std::set<std::uint64_t> mTickets;

private:
    static void RequireReadable(const CoapMessage& message) {
        const std::string bytes = SerializeMessage(message);
        Require(bytes.size() <= LARGEST_DATAGRAM, "it fits into a datagram");
        Require(ParseMessage(bytes).has_value(), "it can be read");
    }
};

class FuzzedNode {
public:
    FuzzedNode() : mCore({0x1001, 1}, false, {}, mRandom, mSurroundings, mSurroundings) {
        mCore.SetDeviceType("camera", mNow);
        mCore.SetInterfaces({{INTERFACE, "eth0", OWN.host}}, OWN.port, mNow);
        ServeHonestClient();
    }
    ~FuzzedNode() {
        while (!mSurroundings.mCalls.empty()) {
            Answer("");
        }
        ServeHonestClient();
        mCore.RefuseRequests();
        mCore.Close(mNow);
        Require(mSurroundings.mTickets.empty(), "whatever was begun has ended");
        Require(mSurroundings.mPaths.empty(), "no way back is kept");
    }
    FuzzedNode(const FuzzedNode&) = delete;
    FuzzedNode& operator=(const FuzzedNode&) = delete;

    void Play(const Record& record) {
        switch (record.kind % lumora_fuzz::NODE_STEPS) {
            case lumora_fuzz::REFUSED:
                Refuse();
                break;
            case lumora_fuzz::TIME_PASSES:
                Wait(Milliseconds(record.bytes.empty() ? 20
                                                       : 40 * static_cast<unsigned char>(record.bytes[0])));
                break;
            case lumora_fuzz::SEARCH:
                mSurroundings.mTickets.insert(++mLastTicket);
                mCore.StartSearch(mLastTicket, record.bytes.substr(0, MAX_TEXT_BYTES), mNow);
                break;
            case lumora_fuzz::REQUEST:
                Ask(record.bytes);
                break;
            case lumora_fuzz::HANDLED:
                Answer(record.bytes);
                break;
            default:
                Receive(record);
        }
        Wait(Milliseconds(0));
    }

private:
    // The client's id and instance are what strangers hear in its hellos, so scripts may use them.
    void ServeHonestClient() {
        const std::string value = std::to_string(++mHonestRequests);
        CoapMessage request;
        request.type = MessageType::Confirmable;
        request.code = code::PUT;
        request.messageId = static_cast<std::uint16_t>(mHonestRequests);
        request.token = "honest" + value;
        AddKey(request, "key");
        Requester requester{{0xa1, 7},       HONEST.port,     mHonestRequests,
                            mHonestRequests, mHonestRequests, 0x5ec2e7};
        request.Add(option::REQUESTER, EncodeRequester(requester));
        request.payload = value;
        mCore.OnRequest(request, HONEST, OWN.host, mSurroundings.NewPath(), mNow);
        Require(mSurroundings.mCalls.size() == 1 && mSurroundings.mLastCall.value == value,
                "an honest request reaches the handlers");
        Require(mSurroundings.mLastCall.requester.host == HONEST.host,
                "the requester is where the request came from");
        Answer(value);
        Require(mSurroundings.mLastReply.token == request.token && mSurroundings.mLastReply.payload == value,
                "an honest request is answered at once");
    }

    void Receive(const Record& record) {
        const unsigned char choice =
            record.bytes.empty() ? '\0' : static_cast<unsigned char>(record.bytes[0]);
        auto message = ParseMessage(std::string_view(record.bytes).substr(record.bytes.empty() ? 0 : 1));
        if (!message) {
            return;
        }
        if ((choice & lumora_fuzz::AS_ANSWER) != 0) {
            message->token = mSurroundings.mLastToken;
        }
        const Endpoint source{htonl(0x0a000002U + (choice & 3U)),
                              static_cast<std::uint16_t>(50000 + (choice >> 2 & 7))};
        switch (record.kind % lumora_fuzz::NODE_STEPS) {
            case lumora_fuzz::GROUP_DATAGRAM:
                mCore.OnGroupMessage(*message, source, INTERFACE, mNow);
                break;
            case lumora_fuzz::ANSWER_DATAGRAM:
                mCore.OnSearchAnswer(*message, source, mNow);
                break;
            case lumora_fuzz::REQUEST_DATAGRAM:
                // What is no request, libcoap keeps to itself.
                if (code::IsRequest(message->code)) {
                    mCore.OnRequest(*message, source, OWN.host, mSurroundings.NewPath(), mNow);
                }
                break;
            default:
                if (mSurroundings.mClosed.count(mSurroundings.mLastConversation) == 0) {
                    mCore.OnAnswer(mSurroundings.mLastConversation, *message, mNow);
                }
        }
    }

    void Refuse() {
        if (mSurroundings.mClosed.count(mSurroundings.mLastConversation) == 0) {
            mCore.OnRefused(mSurroundings.mLastConversation, mNow);
        }
    }

    void Ask(const std::string& bytes) {
        if (bytes.size() < 2) {
            return;
        }
        static const std::uint8_t METHODS[] = {code::GET, code::PUT, code::POST, code::DELETE};
        const std::size_t keyLength = static_cast<unsigned char>(bytes[1]) * 4U;
        const std::string key = bytes.substr(2, std::min(keyLength, MAX_TEXT_BYTES));
        const std::string value = bytes.substr(2 + key.size(), MAX_TEXT_BYTES);
        mSurroundings.mTickets.insert(++mLastTicket);
        const Endpoint to{htonl(0x0a000002), 40002};
        mCore.StartRequest({mLastTicket, to, METHODS[bytes[0] & 3], key, value}, mNow);
    }

    void Answer(const std::string& text) {
        if (mSurroundings.mCalls.empty()) {
            return;
        }
        const std::uint64_t ticket = mSurroundings.mCalls.front();
        mSurroundings.mCalls.pop_front();
        mCore.OnHandled(ticket, {code::CONTENT, text.substr(0, MAX_TEXT_BYTES)}, mNow);
    }

    // As the I/O thread does: from deadline to deadline.
    void Wait(Milliseconds time) {
        const TimePoint end = mNow + time;
        int turnsWithoutTime = 0;
        for (TimePoint next = mCore.NextDeadline(mNow); next <= end; next = mCore.NextDeadline(mNow)) {
            turnsWithoutTime = next > mNow ? 0 : turnsWithoutTime + 1;
            Require(turnsWithoutTime < 20, "time is waited for");
            mNow = std::max(mNow, next);
            mCore.Tick(mNow);
        }
        mNow = end;
    }

    std::uint32_t mHonestRequests = 0;
    TimePoint mNow{std::chrono::hours(1)};
    SeededRandom mRandom;
    Surroundings mSurroundings;
    std::uint64_t mLastTicket = 0;
    NodeCore mCore;
};

std::string MutateStep(const std::string& bytes, lumora_fuzz::Dice& dice) {
    if (bytes.empty() || dice.OneIn(8)) {
        return lumora_fuzz::MutateBytes(bytes, dice);
    }
    if (dice.OneIn(8)) {
        return static_cast<char>(dice.Number()) + bytes.substr(1);
    }
    return bytes.substr(0, 1) + lumora_fuzz::MutateDatagram(bytes.substr(1), dice);
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzedNode node;
    for (const Record& record : lumora_fuzz::ReadScript(data, size)) {
        node.Play(record);
    }
    return 0;
}

std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size, std::size_t most,
                                    unsigned int seed) {
    return lumora_fuzz::MutateScriptInput(data, size, most, seed, lumora_fuzz::NODE_STEPS, MutateStep);
}
