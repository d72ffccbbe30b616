// The cost of the library's own work within one process: frames, control documents, log lines that are
// filtered out.
#include <benchmark/benchmark.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "library/log.h"
#include "protocol/control_documents.h"
#include "protocol/data_frame.h"
#include "transport/frame_buffer.h"
#include "transport/tcp_client_transport.h"
#include "transport/tcp_server_transport.h"

namespace lumoraAiModule {

namespace {

constexpr unsigned int READ_LENGTH = 1048576;

// One read's worth of frames, as a socket gives them.
std::vector<char> ReadOf(const std::vector<char>& frame) {
    std::vector<char> data;
    while (data.size() + frame.size() <= READ_LENGTH || data.empty()) {
        data.insert(data.end(), frame.begin(), frame.end());
    }
    data.resize(data.size() + FRAME_SPARE_LENGTH);
    return data;
}

unsigned int PayloadArgument(const benchmark::State& state) {
    return static_cast<unsigned int>(state.range(0));
}

std::vector<char> ClientFrame(unsigned int payloadLength) {
    std::vector<char> frame(CLIENT_FRAME_HEAD_LENGTH + payloadLength, 'x');
    WriteClientFrameHead(frame.data(), payloadLength, 1);
    return frame;
}

std::vector<char> ServerFrameTo(unsigned int payloadLength) {
    const std::string name = "service";
    const std::vector<unsigned int> clients = {1};
    std::vector<char> frame(SERVER_FRAME_FIXED_HEAD_LENGTH + clients.size() + name.size() + payloadLength,
                            'x');
    char* nameAt = WriteServerFrameHead(frame.data(), payloadLength, clients, name);
    std::memcpy(nameAt, name.data(), name.size());
    return frame;
}

void WriteClientFrame(benchmark::State& state) {
    const unsigned int length = PayloadArgument(state);
    const std::vector<char> payload(length, 'x');
    for (auto _ : state) {
        FrameBuffer frame;
        frame.Allocate(length + CLIENT_FRAME_HEAD_LENGTH);
        WriteClientFrameHead(frame.Bytes(), length, 1);
        std::memcpy(frame.Bytes() + CLIENT_FRAME_HEAD_LENGTH, payload.data(), length);
        benchmark::DoNotOptimize(frame.Bytes());
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * length);
}
BENCHMARK(WriteClientFrame)->Arg(64)->Arg(1024)->Arg(65536)->Arg(1000000);

int g_delivered = 0;

int CountData(int, const char*, unsigned int) { return ++g_delivered; }

void CutClientFrames(benchmark::State& state) {
    std::vector<char> data = ReadOf(ClientFrame(PayloadArgument(state)));
    const auto transport = std::make_shared<LumoraTCPTransServer>();
    LUM_OBSERVER_S observer;
    observer.OnData = CountData;
    transport->SetObserver(observer);
    g_delivered = 0;
    for (auto _ : state) {
        unsigned int consumed = 0;
        transport->ServerParseAndSendData(
            data.data(), static_cast<unsigned int>(data.size() - FRAME_SPARE_LENGTH), consumed);
    }
    state.SetItemsProcessed(g_delivered);
}
BENCHMARK(CutClientFrames)->Arg(64)->Arg(1024)->Arg(65536);

class CountFrames : public LumoraTransCallback {
public:
    int OnRecvData(char* data, unsigned int length) override {
        ServerFrame fields;
        benchmark::DoNotOptimize(ReadServerFrame(data, length, fields));
        return ++mCount;
    }
    int OnDisconnect(unsigned int) override { return 0; }
    int Count() const { return mCount; }

private:
    int mCount = 0;
};

void CutServerFrames(benchmark::State& state) {
    std::vector<char> data = ReadOf(ServerFrameTo(PayloadArgument(state)));
    CountFrames callback;
    const auto transport = std::make_shared<LumoraTCPTransClient>(callback, 1U);
    for (auto _ : state) {
        unsigned int consumed = 0;
        transport->ClientParseAndSendData(
            data.data(), static_cast<unsigned int>(data.size() - FRAME_SPARE_LENGTH), consumed);
    }
    state.SetItemsProcessed(callback.Count());
}
BENCHMARK(CutServerFrames)->Arg(64)->Arg(1024)->Arg(65536);

void BuildCommand(benchmark::State& state) {
    std::string document;
    for (auto _ : state) {
        GetJsonCmd(3, "SetMode", "night", document);
    }
}
BENCHMARK(BuildCommand);

void ParseCommand(benchmark::State& state) {
    const std::string document = R"({"ClientID":3,"cmd":"SetMode","param":"night"})";
    for (auto _ : state) {
        int clientID = 0;
        std::string cmd;
        CommandParam param = {};
        ParseJsonCmd(document, &clientID, &cmd, &param);
    }
}
BENCHMARK(ParseCommand);

void ServiceDocumentThereAndBack(benchmark::State& state) {
    LUM_SERVICE_INFO_S service = {};
    std::strncpy(service.serviceName, "faceDetect", sizeof(service.serviceName) - 1);
    service.transport = LUM_TRANSPORT_TCP;
    const std::vector<LUM_SERVICE_INFO_S> services(LUM_MAX_SERVICES, service);
    std::string document;
    auto device = std::make_unique<LUM_DEVICE_INFO_S>();
    for (auto _ : state) {
        GetServiceInfoString("camera", services, document);
        ParseServiceInfoString(document, device.get());
    }
}
BENCHMARK(ServiceDocumentThereAndBack);

// Each message passes trace calls: below the threshold they must cost next to nothing.
void FilteredLogLine(benchmark::State& state) {
    for (auto _ : state) {
        LUMORA_TRACE("payloadLen = %d , clientNum = %d\n", 1024, 2);
    }
}
BENCHMARK(FilteredLogLine);

}  // namespace

}  // namespace lumoraAiModule

BENCHMARK_MAIN();
