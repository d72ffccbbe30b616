// A node of type "camera" that is found by searches and never answers a question.
#include <link_platform.h>
#include <unistd.h>

#include <cstdio>

namespace {

int NeverReturn(AppResource*, const RemoteEndpoint*, const char*, char*, unsigned int) {
    while (true) {
        pause();
    }
}
int Refuse(AppResource*, const RemoteEndpoint*, const char*, const char*, unsigned int) { return -1; }
const char* Type(AppResource*) { return "camera"; }
int OnDeviceEvent(NotifyDeviceInfo*) { return 0; }

}  // namespace

int main() {
    AppResource resource = {NeverReturn, Refuse, Refuse, Refuse, Type};
    LinkPlatform* const platform = GetLinkPlatform();
    if (platform == nullptr || platform->Init(platform) != 0 ||
        platform->RegisterResource(platform, &resource, OnDeviceEvent) != 0 || platform->Run(platform) != 0) {
        return 1;
    }
    std::puts("ready");
    std::fflush(stdout);
    while (true) {
        pause();
    }
}
