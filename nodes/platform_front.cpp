#include "nodes/platform_front.h"

#include <dlfcn.h>
#include <link_log.h>
#include <link_platform.h>

#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "base/mutex.h"

namespace lumora_nodes {

namespace {

// Each table calls the library's function, which it replaces. A table belongs to one handle, so all handles
// of one library have the same function.
AppResourceProxy* (*g_findResource)(LinkPlatform*, const char*) = nullptr;
int (*g_registerResource)(LinkPlatform*, AppResource*, DeviceEventFunction) = nullptr;

lumora::Mutex g_mutex;
DeviceAddress g_wanted GUARDED_BY(g_mutex);
bool g_offline = false;  // set before there are threads
bool g_unseen = false;   // the same

DeviceAddress Wanted() {
    const lumora::MutexLock lock(g_mutex);
    return g_wanted;
}

template <typename Function>
Function* Behind(const char* name) {
    // This program defines functions of the same names. RTLD_NEXT finds those of the libraries.
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

// The first element with the wanted address, from this one on. Frees those before it.
AppResourceProxy* FirstWanted(AppResourceProxy* proxy) {
    static auto* const next = Behind<decltype(GetNextAppResourceProxy)>("GetNextAppResourceProxy");
    const DeviceAddress wanted = Wanted();
    while (proxy != nullptr && !wanted.Matches(proxy->GetAddress(proxy), proxy->GetPort(proxy))) {
        AppResourceProxy* const other = proxy;
        proxy = next(other);
        // The application does not see this element, so it cannot free it.
        FreeAppResourceProxy2(other);
    }
    return proxy;
}

// ---- A platform without a network

int Succeed(LinkPlatform*) { return 0; }
int IgnoreLevel(LinkPlatform*, int) { return 0; }
int IgnoreResource(LinkPlatform*, AppResource*, DeviceEventFunction) { return 0; }
AppResourceProxy* FindNothing(LinkPlatform*, const char*) { return nullptr; }
LinkPlatform g_nowhere = {Succeed, nullptr, IgnoreLevel, IgnoreResource,
                          nullptr, Succeed, Succeed,     FindNothing};

// ---- The log

// Fixed, because the libraries may log without memory.
thread_local std::array<char, 200> t_cause = {};

// Keeps the first error line of this thread since TakeCause: later lines usually follow from it.
void RememberCause(const char* text) {
    if (t_cause[0] == '\0') {
        const std::size_t length = strnlen(text, t_cause.size() - 1);
        std::memcpy(t_cause.data(), text, length);
        t_cause[length] = '\0';
    }
}

}  // namespace

void FindOnly(const DeviceAddress& address) {
    const lumora::MutexLock lock(g_mutex);
    g_wanted = address;
}

void StayUnseen() { g_unseen = true; }
void StayOffline() { g_offline = true; }

std::string TakeCause() {
    std::string cause = t_cause.data();
    t_cause[0] = '\0';
    // Log lines end with a line end or a full stop. In parentheses they end without.
    while (!cause.empty() &&
           (cause.back() == '\n' || cause.back() == ' ' || cause.back() == '.' || cause.back() == '!')) {
        cause.pop_back();
    }
    return cause;
}

std::string WithCause(const std::string& what) {
    const std::string cause = TakeCause();
    return cause.empty() ? what : what + " (" + cause + ')';
}

}  // namespace lumora_nodes

extern "C" {

static AppResourceProxy* FindWanted(LinkPlatform* platform, const char* type) {
    return lumora_nodes::FirstWanted(lumora_nodes::g_findResource(platform, type));
}

static const char* NoDescriptor(AppResource*) { return nullptr; }

// The platform asks for the descriptor through the record, and knows the record by its address. So the
// library's own record is changed.
static int RegisterUnseen(LinkPlatform* platform, AppResource* resource, DeviceEventFunction onDeviceEvent) {
    resource->DoGetDescriptor = NoDescriptor;
    return lumora_nodes::g_registerResource(platform, resource, onDeviceEvent);
}

LinkPlatform* GetLinkPlatform(void) {
    if (lumora_nodes::g_offline) {
        return &lumora_nodes::g_nowhere;
    }
    static auto* const behind = lumora_nodes::Behind<decltype(GetLinkPlatform)>("GetLinkPlatform");
    LinkPlatform* const platform = behind();
    // Each handle is patched once. The library calls FindResource through the table.
    if (platform != nullptr && platform->FindResource != FindWanted) {
        lumora_nodes::g_findResource = platform->FindResource;
        platform->FindResource = FindWanted;
        if (lumora_nodes::g_unseen) {
            lumora_nodes::g_registerResource = platform->RegisterResource;
            platform->RegisterResource = RegisterUnseen;
        }
    }
    return platform;
}

void FreeLinkPlatform(LinkPlatform* platform) {
    static auto* const behind = lumora_nodes::Behind<decltype(FreeLinkPlatform)>("FreeLinkPlatform");
    // The offline table is static and is not the platform's to free.
    if (platform != &lumora_nodes::g_nowhere) {
        behind(platform);
    }
}

AppResourceProxy* GetNextAppResourceProxy(AppResourceProxy* proxy) {
    static auto* const behind =
        lumora_nodes::Behind<decltype(GetNextAppResourceProxy)>("GetNextAppResourceProxy");
    return lumora_nodes::FirstWanted(behind(proxy));
}

void LogInfo(int level, const char* tag, const char* function, int line, const char* format, ...) {
    constexpr int ERROR_LEVEL = 4;
    static auto* const behind = lumora_nodes::Behind<decltype(LogInfo)>("LogInfo");
    char text[2048];
    va_list arguments;
    va_start(arguments, format);
    // Formatted here, because a va_list cannot be passed on to a variadic function.
    std::vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    if (level == ERROR_LEVEL) {
        lumora_nodes::RememberCause(text);
    }
    behind(level, tag, function, line, "%s", text);
}

}  // extern "C"
