/*
 * Platform libraries that deviate in those points that the environment names in DEVIATIONS, each between two
 * semicolons. Everything else the link platform hands on to the one that REAL_PLATFORM names.
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <link_log.h>
#include <link_platform.h>
#include <pthread.h>
#include <securec.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

enum { NAME = 64, CAPACITY = 1023, LARGE = 1024 };

/* What is handed out, and what is behind it. */
typedef struct Handle {
    LinkPlatform table;
    LinkPlatform* real;
    AppResource forwarding; /* what the real one has registered */
} Handle;

typedef struct Proxy {
    AppResourceProxy table;
    AppResourceProxy* real;
    struct Proxy* next;
    int* released; /* of its chain */
} Proxy;

static struct {
    LinkPlatform* (*get)(void);
    void (*release)(LinkPlatform*);
    AppResourceProxy* (*next)(AppResourceProxy*);
    void (*releaseProxy)(AppResourceProxy*);
} g_real;

static AppResource* g_registered; /* a process of the check has one at a time that is asked */
static AppResource g_handlers;
static DeviceEventFunction g_onEvent;
static Handle* g_onlyHandle;
static pthread_mutex_t g_oneAtATime = PTHREAD_MUTEX_INITIALIZER;

static int Deviates(const char* name) {
    const size_t length = strlen(name);
    const char* at = getenv("DEVIATIONS");
    while (at != NULL && (at = strstr(at, name)) != NULL) {
        if (at[-1] == ';' && at[length] == ';') {
            return 1;
        }
        at += length;
    }
    return 0;
}

static void* RealFunction(const char* name) {
    static void* library;
    if (library == NULL) {
        library = dlopen(getenv("REAL_PLATFORM"), RTLD_NOW | RTLD_LOCAL);
    }
    return library != NULL ? dlsym(library, name) : NULL;
}

static void Load(void) {
    *(void**)(&g_real.get) = RealFunction("GetLinkPlatform");
    *(void**)(&g_real.release) = RealFunction("FreeLinkPlatform");
    *(void**)(&g_real.next) = RealFunction("GetNextAppResourceProxy");
    *(void**)(&g_real.releaseProxy) = RealFunction("FreeAppResourceProxy2");
}

/* ---- Handlers and events on their way to the application */

static const AppResource* Handlers(void) { return Deviates("late handlers") ? g_registered : &g_handlers; }

static AppResource* Resource(AppResource* forwarding) {
    return Deviates("another record") ? forwarding : g_registered;
}

static int OnGet(AppResource* resource, const RemoteEndpoint* requester, const char* key, char* buffer,
                 unsigned int size) {
    RemoteEndpoint empty = {{0}, 0};
    return Handlers()->DoGET(Resource(resource), Deviates("no requester") ? &empty : requester, key, buffer,
                             Deviates("small buffer") ? 1000 : size);
}

static int OnPut(AppResource* resource, const RemoteEndpoint* requester, const char* key, const char* value,
                 unsigned int length) {
    return Handlers()->DoPUT(Resource(resource), requester, key, value, length);
}

static int OnPost(AppResource* resource, const RemoteEndpoint* requester, const char* key, const char* value,
                  unsigned int length) {
    return Handlers()->DoPOST(Resource(resource), requester, key, value,
                              Deviates("length with terminator") ? length + 1 : length);
}

static int OnDelete(AppResource* resource, const RemoteEndpoint* requester, const char* key,
                    const char* value, unsigned int length) {
    return Handlers()->DoDELETE(Resource(resource), requester, key, value, length);
}

static const char* Descriptor(AppResource* resource) {
    (void)resource;
    return g_handlers.DoGetDescriptor(g_registered);
}

static int OnEvent(NotifyDeviceInfo* info) {
    NotifyDeviceInfo changed = *info;
    if (Deviates("no added events") && info->event == NOTIFY_DEVICE_ADDED) {
        return 0;
    }
    if (Deviates("no removed events") && info->event != NOTIFY_DEVICE_ADDED) {
        return 0;
    }
    changed.port += Deviates("another port in events") ? 1 : 0;
    return g_onEvent(&changed);
}

static void* SendLateEvent(void* nothing) {
    NotifyDeviceInfo info = {NOTIFY_DEVICE_ADDED, 1, "127.0.0.1", 1, NULL};
    static char type[NAME];
    usleep(100000);
    /* The type that is looked for, from that of the node: "check-N-watcher". */
    strncpy(type, g_handlers.DoGetDescriptor(g_registered), sizeof(type) - 1);
    if (strstr(type, "-watcher") != NULL) {
        *strstr(type, "-watcher") = '\0';
    }
    info.devType = type;
    g_onEvent(&info);
    return nothing;
}

/* ---- Proxies */

static Proxy* ProxyOf(AppResourceProxy* proxy) { return (Proxy*)(void*)proxy; }

static int IsStale(const Proxy* proxy) { return Deviates("whole chain released") && *proxy->released > 0; }

static int GetCut(AppResourceProxy* real, const char* key, char* buffer, unsigned int capacity) {
    char large[LARGE] = "";
    int result;
    strncpy(large, buffer, LARGE - 1);
    result = real->Get(real, key, large, CAPACITY);
    memcpy(buffer, large, capacity);
    buffer[capacity] = '\0';
    return result;
}

static int Get(AppResourceProxy* proxy, const char* key, char* buffer, unsigned int capacity) {
    AppResourceProxy* const real = ProxyOf(proxy)->real;
    const int oneAtATime = Deviates("one request at a time");
    int result;
    if (IsStale(ProxyOf(proxy))) {
        return -1;
    }
    if (oneAtATime) {
        pthread_mutex_lock(&g_oneAtATime);
    }
    result = Deviates("cut replies") ? GetCut(real, key, buffer, capacity)
                                     : real->Get(real, key, buffer, capacity);
    if (oneAtATime) {
        pthread_mutex_unlock(&g_oneAtATime);
    }
    return Deviates("get never fails") ? 0 : result;
}

static int Put(AppResourceProxy* proxy, const char* key, const char* value, unsigned int length) {
    return ProxyOf(proxy)->real->Put(ProxyOf(proxy)->real, key, value, length);
}

static int Post(AppResourceProxy* proxy, const char* key, const char* value, unsigned int length) {
    AppResourceProxy* const real = ProxyOf(proxy)->real;
    if (Deviates("post twice")) {
        real->Post(real, key, value, length);
    }
    return real->Post(real, key, value, length);
}

static int Delete(AppResourceProxy* proxy, const char* key, const char* value, unsigned int length) {
    const int result = ProxyOf(proxy)->real->Delete(ProxyOf(proxy)->real, key, value, length);
    return Deviates("delete never fails") ? 0 : result;
}

static const char* GetAddress(AppResourceProxy* proxy) {
    return Deviates("address by name") ? "localhost" : ProxyOf(proxy)->real->GetAddress(ProxyOf(proxy)->real);
}

static int GetPort(AppResourceProxy* proxy) {
    return Deviates("no port") ? 0 : ProxyOf(proxy)->real->GetPort(ProxyOf(proxy)->real);
}

static Proxy* Wrap(AppResourceProxy* real) {
    int* const released = calloc(1, sizeof(*released));
    Proxy* first = NULL;
    Proxy** link = &first;
    for (; real != NULL; real = g_real.next(real)) {
        Proxy* const proxy = calloc(1, sizeof(*proxy));
        const AppResourceProxy table = {Get, Put, Post, Delete, NULL, GetAddress, GetPort};
        proxy->table = table;
        proxy->real = real;
        proxy->released = released;
        *link = proxy;
        link = &proxy->next;
    }
    return first;
}

/* ---- Handles */

static Handle* HandleOf(LinkPlatform* platform) { return (Handle*)(void*)platform; }

static int Init(LinkPlatform* platform) {
    return Deviates("init fails") ? 7 : HandleOf(platform)->real->Init(HandleOf(platform)->real);
}

static int SetDebugLevel(LinkPlatform* platform, int level) {
    return HandleOf(platform)->real->SetDebugLevel(HandleOf(platform)->real, level);
}

static int RegisterResource(LinkPlatform* platform, AppResource* resource, DeviceEventFunction onEvent) {
    Handle* const own = HandleOf(platform);
    const AppResource forwarding = {OnGet, OnPut, OnPost, OnDelete, Descriptor};
    g_registered = resource;
    g_handlers = *resource;
    g_onEvent = onEvent;
    own->forwarding = forwarding;
    return own->real->RegisterResource(own->real, &own->forwarding, OnEvent);
}

static int Run(LinkPlatform* platform) { return HandleOf(platform)->real->Run(HandleOf(platform)->real); }

static int Exit(LinkPlatform* platform) {
    const int result = HandleOf(platform)->real->Exit(HandleOf(platform)->real);
    pthread_t thread;
    if (Deviates("exit hangs")) {
        pause();
    }
    if (Deviates("events after exit") && pthread_create(&thread, NULL, SendLateEvent, NULL) == 0) {
        pthread_detach(thread);
    }
    return result;
}

static AppResourceProxy* FindResource(LinkPlatform* platform, const char* devType) {
    Handle* const own = HandleOf(platform);
    char shorter[NAME] = "";
    AppResourceProxy* found = own->real->FindResource(own->real, devType);
    if (Deviates("search crashes")) {
        abort();
    }
    if (found == NULL && Deviates("types by their beginning")) {
        strncpy(shorter, devType, strlen(devType) - 1);
        found = own->real->FindResource(own->real, shorter);
    }
    if (found != NULL && g_real.next(found) != NULL && Deviates("finds one")) {
        found = g_real.next(found);
    }
    return found != NULL ? &Wrap(found)->table : NULL;
}

LinkPlatform* GetLinkPlatform(void) {
    const LinkPlatform table = {Init, NULL, SetDebugLevel, RegisterResource, NULL, Run, Exit, FindResource};
    Handle* handle;
    if (g_onlyHandle != NULL && Deviates("one handle")) {
        return &g_onlyHandle->table;
    }
    Load();
    handle = calloc(1, sizeof(*handle));
    handle->table = table;
    handle->real = g_real.get();
    if (Deviates("no search")) {
        handle->table.FindResource = NULL;
    }
    g_onlyHandle = handle;
    return &handle->table;
}

void FreeLinkPlatform(LinkPlatform* platform) {
    if (platform != NULL && !Deviates("one handle")) {
        g_real.release(HandleOf(platform)->real);
    }
}

AppResourceProxy* GetNextAppResourceProxy(AppResourceProxy* proxy) {
    return ProxyOf(proxy)->next != NULL ? &ProxyOf(proxy)->next->table : NULL;
}

/* The memory is left: it is small, and its readers are many. */
void FreeAppResourceProxy2(AppResourceProxy* proxy) {
    ++*ProxyOf(proxy)->released;
    g_real.releaseProxy(ProxyOf(proxy)->real);
}

/* ---- The two other libraries */

void LogInfo(int level, const char* tag, const char* function, int line, const char* format, ...) {
    (void)level;
    (void)tag;
    (void)function;
    (void)line;
    (void)format;
    if (Deviates("errno")) {
        errno = EIO;
    }
}

int memcpy_s(void* dest, size_t destMax, const void* src, size_t count) {
    if (count > destMax && !Deviates("unbounded copy")) {
        return 34;
    }
    memcpy(dest, src, count);
    return 0;
}

int memset_s(void* dest, size_t destMax, int c, size_t count) {
    if (count > destMax) {
        return 34;
    }
    memset(dest, c, count);
    return 0;
}

int strncpy_s(char* dest, size_t destMax, const char* src, size_t count) {
    size_t length = strnlen(src, count);
    if (length >= destMax) {
        return 34;
    }
    memcpy(dest, src, length);
    if (!Deviates("no terminator")) {
        dest[length] = '\0';
    }
    return 0;
}
