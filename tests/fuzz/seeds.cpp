// Writes the inputs that fuzzing begins with: documents, frames and datagrams as the library itself makes
// them.
//
//   fuzz_seeds FOLDER    one folder for each target, below that one
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>

#include "platform/link/wire/link_format.h"
#include "platform/link/wire/messages.h"
#include "protocol/control_documents.h"
#include "protocol/setup_string.h"
#include "tests/fuzz/node_script.h"
#include "tests/fuzz/read_replay.h"
#include "tests/fuzz/request.h"
#include "tests/support/raw_peer.h"

namespace {

using namespace lumora_fuzz;
using namespace lumora_link;
using lumora_test::ClientFrame;
using lumora_test::ServerFrameBytes;

using Seeds = std::map<std::string, std::vector<std::string>>;  // by target

LUM_SUBSCRIBE_SERVICE_S FaceSubscription() { return {"face", 0, LUM_TRANSPORT_TCP}; }

std::string CommandDocument(const std::string& command, const std::string& param) {
    const LUM_SUBSCRIBE_SERVICE_S subscription = FaceSubscription();
    std::string document;
    const bool subscribe = command == lumoraAiModule::SUBSCRIBE_COMMAND;
    const char* argument = subscribe ? reinterpret_cast<const char*>(&subscription) : param.c_str();
    lumoraAiModule::GetJsonCmd(3, command.c_str(), argument, document);
    return document;
}

std::string SetupString() {
    lumora::LumoraTransportConfig config;
    config.SetEndpoint("192.168.1.20", 6666);
    return config.GetSetupString();
}

void AddDocuments(Seeds& seeds) {
    for (const char* command : {"SetMode", "subscribe", "unsubscribe"}) {
        seeds["command_document"].push_back(CommandDocument(command, "face"));
    }
    seeds["subscription"] = {CommandDocument("subscribe", "")};
    const LUM_SUBSCRIBE_SERVICE_S subscription = FaceSubscription();
    seeds["subscription"].emplace_back(reinterpret_cast<const char*>(&subscription), sizeof(subscription));
    std::vector<LUM_SERVICE_INFO_S> services = {{1024, "face", LUM_TRANSPORT_TCP}};
    for (const std::size_t count : {std::size_t{1}, std::size_t{LUM_MAX_SERVICES}}) {
        services.resize(count, services.front());
        seeds["service_info"].emplace_back();
        lumoraAiModule::GetServiceInfoString("camera", services, seeds["service_info"].back());
    }
    seeds["setup_string"] = {SetupString()};
}

// Whole frames, and a frame in many pieces.
void AddFrames(Seeds& seeds, const char* target, const std::string& frame) {
    Script pieces;
    for (const char byte : frame) {
        pieces.push_back({READ_INTO_PLACE, {byte}});
    }
    pieces.push_back({READ_ASIDE, frame});
    const Script whole = {{READ_INTO_PLACE, frame + frame}, {READ_INTO_PLACE, frame}};
    seeds[target] = {WriteScript(whole), WriteScript(pieces)};
}

std::string RequestRecord(const std::string& key, const std::string& value) {
    Request request;
    request.requester.address.s_addr = htonl(INADDR_LOOPBACK);
    request.requester.port = 5683;
    request.size = 1024;
    request.key = key;
    request.value = value;
    return WriteRequest(request);
}

void AddRequests(Seeds& seeds) {
    const auto record = [](RequestKind kind, const std::string& key, const std::string& value = "") {
        return Record{static_cast<std::uint8_t>(kind), RequestRecord(key, value)};
    };
    const Script session = {
        record(RequestKind::DESCRIBE, ""),
        record(RequestKind::GET, "ServiceInfo", "Lum_RA"),
        record(RequestKind::GET, "GetVersion"),
        record(RequestKind::GET, ".sys.mediaservice.setup", SetupString()),
        record(RequestKind::POST, "Connect", "3"),
        record(RequestKind::POST, "Command", CommandDocument("subscribe", "")),
        record(RequestKind::SEND, "face", "a block"),
        record(RequestKind::POST, "Command", CommandDocument("SetMode", "night")),
        record(RequestKind::POST, "Command", CommandDocument("unsubscribe", "face")),
        record(RequestKind::GET, "TransStatus"),
        record(RequestKind::PUT, "StopTransport"),
        record(RequestKind::DELETE, "anything"),
        record(RequestKind::POST, "Destroy", "3"),
    };
    seeds["request_handlers"] = {
        WriteScript(session),
        WriteScript({session[3], session[4], session[5], record(RequestKind::REMOVED, "", "127.0.0.1")})};
}

NodeDescription Neighbour() { return {{0x1002, 7}, {htonl(0x0a000002), 40002}, "camera", false}; }

CoapMessage AskedBy(const Requester& requester, std::uint8_t method, const std::string& value) {
    CoapMessage request;
    request.type = MessageType::Confirmable;
    request.code = method;
    request.messageId = static_cast<std::uint16_t>(requester.sequence);
    request.token = "12345678";
    AddKey(request, "Command");
    request.Add(option::REQUESTER, EncodeRequester(requester));
    request.payload = value;
    return request;
}

void AddDatagrams(Seeds& seeds) {
    const std::string link = FormatLink(Neighbour());
    NodeDescription secured = Neighbour();
    secured.secured = true;
    secured.deviceType = "a \"quoted\" type";
    seeds["link_format"] = {link, FormatLink(secured), "192.0.2.7:40001"};

    const CoapMessage hello = MakeNotice(HELLO_PATH, link);
    const CoapMessage goodbye = MakeNotice(GOODBYE_PATH, link);
    const CoapMessage probe = MakeProbe("camera", "token123", {1, 2});
    const CoapMessage answer = MakeLinkAnswer(probe, link);
    const Requester requester = {{0x1002, 7}, 40002, 5, 5, 5};
    const CoapMessage request = AskedBy(requester, code::POST, "value");
    CoapMessage first = AskedBy({{0x1002, 7}, 40002, 6, 6, 6}, code::GET, "first half");
    first.Add(option::BLOCK1, EncodeBlock({0, true, 4}));
    CoapMessage second = AskedBy({{0x1002, 7}, 40002, 7, 7, 6}, code::GET, "second half");
    second.Add(option::BLOCK1, EncodeBlock({1, false, 4}));
    for (const CoapMessage& message : {hello, goodbye, probe, answer, MakePing(), request, first, second}) {
        seeds["coap_message"].push_back(SerializeMessage(message));
    }
    // A stranger that closes the requests of the client that the target asks for at the end.
    CoapMessage closing = AskedBy({{0xa1, 7}, 50000, 0x7fffffff, 0x7fffffff, 0x7fffffff}, code::DELETE, "x");
    closing.Add(option::BLOCK1, EncodeBlock({0, true, 4}));
    const auto datagram = [](NodeStep step, const CoapMessage& message, unsigned char source = 0) {
        return Record{step, static_cast<char>(source) + SerializeMessage(message)};
    };
    seeds["link_port"] = {
        WriteScript({datagram(REQUEST_DATAGRAM, MakePing()), datagram(REQUEST_DATAGRAM, request),
                     datagram(REQUEST_DATAGRAM, hello), datagram(CONVERSATION_DATAGRAM, answer, AS_ANSWER)})};
    const Record pause = {TIME_PASSES, "\x14"};
    seeds["link_node"] = {
        WriteScript({datagram(GROUP_DATAGRAM, hello),
                     pause,
                     {SEARCH, "camera"},
                     datagram(ANSWER_DATAGRAM, answer, AS_ANSWER),
                     pause,
                     datagram(GROUP_DATAGRAM, goodbye)}),
        WriteScript({datagram(GROUP_DATAGRAM, probe),
                     pause,
                     datagram(REQUEST_DATAGRAM, MakePing()),
                     {TIME_PASSES, "\xff"}}),
        WriteScript({datagram(REQUEST_DATAGRAM, request),
                     datagram(REQUEST_DATAGRAM, request),
                     pause,
                     {HANDLED, "done"},
                     datagram(REQUEST_DATAGRAM, request)}),
        WriteScript(
            {datagram(REQUEST_DATAGRAM, first), datagram(REQUEST_DATAGRAM, second), {HANDLED, "done"}}),
        WriteScript({datagram(REQUEST_DATAGRAM, closing)}),
        WriteScript({{REQUEST, std::string("\x02\x02") + "Connect 3"},
                     pause,
                     datagram(CONVERSATION_DATAGRAM, answer, AS_ANSWER)}),
        WriteScript({{REQUEST, std::string("\x02\x80") + std::string(1400, 'k')}, pause, {REFUSED, ""}}),
        WriteScript({datagram(GROUP_DATAGRAM, hello),
                     {TIME_PASSES, "\x28"},
                     datagram(CONVERSATION_DATAGRAM, answer, AS_ANSWER),
                     {TIME_PASSES, "\x28"},
                     {REFUSED, ""}}),
    };
}

void Write(const std::filesystem::path& folder, const Seeds& seeds) {
    for (const auto& [target, inputs] : seeds) {
        std::filesystem::create_directories(folder / target);
        for (std::size_t i = 0; i < inputs.size(); ++i) {
            std::ofstream(folder / target / ("seed" + std::to_string(i)), std::ios::binary) << inputs[i];
        }
    }
}

}  // namespace

int main(int count, char** arguments) {
    if (count != 2) {
        std::fputs("usage: fuzz_seeds FOLDER\n", stderr);
        return 2;
    }
    Seeds seeds;
    AddDocuments(seeds);
    AddFrames(seeds, "client_frames", ClientFrame(3, "payload"));
    AddFrames(seeds, "server_frames", ServerFrameBytes("\x01\x03", "face", "payload"));
    seeds["received_data"] = {ServerFrameBytes("\x01\x03", "face", "payload")};
    AddRequests(seeds);
    AddDatagrams(seeds);
    Write(arguments[1], seeds);
    return 0;
}
