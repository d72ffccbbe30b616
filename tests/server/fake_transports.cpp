#include "tests/server/fake_transports.h"

#include "tests/support/joined_frame.h"
#include "tests/support/system_faults.h"
#include "version/lumora_version.h"

using lumoraAiModule::LumoraTransManager;
using lumoraAiModule::LumoraTransManagerFactory;

namespace lumora_test {

namespace {

FakeTransports* g_transports = nullptr;
bool g_versionFails = false;

}  // namespace

int FakeTransport::CreateTransports(TransType type, const std::string& address, int port,
                                    LUM_OBSERVER_S& observer) {
    directions.push_back({type, address, port, observer});
    onCreate(type);
    return type == TransType::SERVER_RECEIVE ? receiveResult : sendingResult;
}

int FakeTransport::StopTransports() {
    ++stops;
    onStop();
    return stopResult;
}

int FakeTransport::GetTransStatus(LUM_TRANSPORT_STATUS_E& out) {
    out = status;
    return statusResult;
}

int FakeTransport::SendData(const void* data, unsigned int length, unsigned int* written,
                            unsigned int timeout) {
    const AllocationFaultsPaused paused;
    sent.emplace_back(static_cast<const char*>(data), length);
    timeouts.push_back(timeout);
    return send(length, written);
}

int FakeTransport::SendFrame(const lumoraAiModule::FrameParts& frame, unsigned int* written,
                             unsigned int timeout) {
    const AllocationFaultsPaused paused;
    const std::string whole = Joined(frame);
    return SendData(whole.data(), frame.Length(), written, timeout);
}

FakeTransports::FakeTransports() { g_transports = this; }
FakeTransports::~FakeTransports() { g_transports = nullptr; }

VersionFailure::VersionFailure() { g_versionFails = true; }
VersionFailure::~VersionFailure() { g_versionFails = false; }

lumoraAiModule::ServerSources Sources() {
    lumoraAiModule::ServerSources sources;
    sources.newTransport = [](LumoraTransManagerFactory& factory, LUM_TRANSPORT_E protocol) {
        if (g_transports == nullptr) {
            return factory.CreateTransportsManager(protocol);
        }
        g_transports->protocols.push_back(protocol);
        return std::shared_ptr<LumoraTransManager>(g_transports->next);
    };
    sources.getVersion = [](std::string& version) {
        return g_versionFails ? -1 : lumoraAiModule::LumoraVersion::GetVersion(version);
    };
    return sources;
}

}  // namespace lumora_test
