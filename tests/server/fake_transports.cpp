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
    return type == TransType::SERVER_RECEIVE ? receiveResult : sendingResult;
}

int FakeTransport::StopTransports() {
    ++stops;
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

// The linker redirects the calls; a member function is called like a function of its object.

std::shared_ptr<LumoraTransManager>
RealCreate(LumoraTransManagerFactory* factory, LUM_TRANSPORT_E protocol) asm(
    "__real__ZN14lumoraAiModule25LumoraTransManagerFactory23CreateTransportsManagerE15LUM_TRANSPORT_E");
std::shared_ptr<LumoraTransManager>
WrapCreate(LumoraTransManagerFactory* factory, LUM_TRANSPORT_E protocol) asm(
    "__wrap__ZN14lumoraAiModule25LumoraTransManagerFactory23CreateTransportsManagerE15LUM_TRANSPORT_E");

std::shared_ptr<LumoraTransManager> WrapCreate(LumoraTransManagerFactory* factory, LUM_TRANSPORT_E protocol) {
    if (g_transports == nullptr) {
        return RealCreate(factory, protocol);
    }
    g_transports->protocols.push_back(protocol);
    return g_transports->next;
}

int RealVersion(std::string& version) asm(
    "__real__ZN14lumoraAiModule13LumoraVersion10GetVersionERNSt7__cxx1112basic_stringIcSt11char_"
    "traitsIcESaIcEEE");
int WrapVersion(std::string& version) asm(
    "__wrap__ZN14lumoraAiModule13LumoraVersion10GetVersionERNSt7__cxx1112basic_stringIcSt11char_"
    "traitsIcESaIcEEE");

int WrapVersion(std::string& version) { return g_versionFails ? -1 : RealVersion(version); }

}  // namespace lumora_test
