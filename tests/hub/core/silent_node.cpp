// A node that is found by searches and never answers a question.
//
//   silent_node [TYPE [SERVICE]]
//
// With a SERVICE it tells that it has it, as a device does, and is silent when a client connects.
#include <link_platform.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>

namespace {

std::string g_type = "camera";
std::string g_services;

int NeverReturn() {
    while (true) {
        pause();
    }
}
int Get(AppResource*, const RemoteEndpoint*, const char* key, char* buffer, unsigned int size) {
    const bool isDevice = !g_services.empty();
    if (isDevice && std::strcmp(key, "ServiceInfo") == 0) {
        buffer[g_services.copy(buffer, size - 1)] = '\0';
        return 0;
    }
    return isDevice && std::strcmp(key, "GetVersion") == 0 ? -1 : NeverReturn();
}
int Refuse(AppResource*, const RemoteEndpoint*, const char*, const char*, unsigned int) { return -1; }
const char* Type(AppResource*) { return g_type.c_str(); }
int OnDeviceEvent(NotifyDeviceInfo*) { return 0; }

}  // namespace

int main(int count, char** words) {
    g_type = count > 1 ? words[1] : g_type;
    if (count > 2) {
        g_services = R"({"DevServiceType":")" + g_type + R"(","ServiceNum":1,"service0":{"Name":")" +
                     words[2] + R"(","transport":2,"output-len-bytes":0}})";
    }
    AppResource resource = {Get, Refuse, Refuse, Refuse, Type};
    LinkPlatform* const platform = GetLinkPlatform();
    if (platform == nullptr || platform->Init(platform) != 0 ||
        platform->RegisterResource(platform, &resource, OnDeviceEvent) != 0 || platform->Run(platform) != 0) {
        return 1;
    }
    std::puts("ready");
    std::fflush(stdout);
    NeverReturn();
}
