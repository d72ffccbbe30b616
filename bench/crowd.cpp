// Many devices on one network, for clients that search: COUNT nodes of the link platform, each of which
// answers requests for its services.
//
// usage: lumora_bench_crowd TYPE COUNT
// Prints "ready" when all nodes run. They end with the standard input.
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "bench/records.h"
#include "link_platform.h"
#include "protocol/control_documents.h"

namespace {

std::string g_type;
std::string g_services;

const char* Describe(AppResource*) { return g_type.c_str(); }

int OnGet(AppResource*, const RemoteEndpoint*, const char* key, char* buffer, unsigned int size) {
    if (std::strcmp(key, lumoraAiModule::SERVICE_INFO_KEY) != 0 || g_services.size() >= size) {
        return -1;
    }
    std::memcpy(buffer, g_services.c_str(), g_services.size() + 1);
    return 0;
}

int Refuse(AppResource*, const RemoteEndpoint*, const char*, const char*, unsigned int) { return -1; }

LinkPlatform* StartNode(AppResource& resource) {
    LinkPlatform* node = GetLinkPlatform();
    if (node == nullptr || node->Init(node) != 0 || node->RegisterResource(node, &resource, nullptr) != 0 ||
        node->Run(node) != 0) {
        std::fputs("crowd: a node does not start\n", stderr);
        std::_Exit(2);
    }
    return node;
}

}  // namespace

int main(int count, char** arguments) {
    if (count != 3) {
        std::fputs("usage: lumora_bench_crowd TYPE COUNT\n", stderr);
        return 2;
    }
    g_type = arguments[1];
    const LUM_DEVICE_INFO_S device = lumora_bench::DeviceRecord(g_type, nullptr, nullptr);
    if (lumoraAiModule::GetServiceInfoString(g_type, {device.serviceInfo[0]}, g_services) != 0) {
        return 2;
    }
    AppResource resource = {OnGet, Refuse, Refuse, Refuse, Describe};
    std::vector<LinkPlatform*> nodes(static_cast<std::size_t>(std::atol(arguments[2])));
    std::generate(nodes.begin(), nodes.end(), [&] { return StartNode(resource); });
    std::puts("ready");
    std::fflush(stdout);
    char ignored[64];
    while (read(STDIN_FILENO, ignored, sizeof(ignored)) > 0) {
    }
    std::for_each(nodes.begin(), nodes.end(), FreeLinkPlatform);
    return 0;
}
