/*
 * A platform library that is not ours, written from the documented tables alone: every request goes to the
 * resource that this very process registered last.
 *
 * A table is an array of function pointers. The documented offsets count 4 bytes a pointer.
 */
#include <stddef.h>
#include <stdlib.h>
#include <string.h>

typedef void (*Function)(void);

enum {
    INIT = 0,
    UNUSED_4 = 1,
    SET_DEBUG_LEVEL = 2,
    REGISTER_RESOURCE = 3,
    UNUSED_16 = 4,
    RUN = 5,
    EXIT = 6,
    FIND_RESOURCE = 7,
    PLATFORM_FIELDS = 8
};
enum {
    PROXY_GET = 0,
    PROXY_PUT = 1,
    PROXY_POST = 2,
    PROXY_DELETE = 3,
    PROXY_UNUSED_16 = 4,
    PROXY_ADDRESS = 5,
    PROXY_PORT = 6,
    PROXY_FIELDS = 7
};
enum { DO_GET = 0, DO_PUT = 1, DO_POST = 2, DO_DELETE = 3, DO_GET_DESCRIPTOR = 4, RESOURCE_FIELDS = 5 };

struct Platform {
    Function fields[PLATFORM_FIELDS];
};

struct Proxy {
    Function fields[PROXY_FIELDS];
    struct Proxy* next;
};

struct Resource {
    Function fields[RESOURCE_FIELDS];
};

/* Bytes 0 to 3 the address in network order, 4 to 7 the port as it stands; nothing is read behind them. */
struct Endpoint {
    unsigned char address[4];
    int port;
};

/* A device that came (1) or went (any other event). */
struct DeviceEvent {
    unsigned int event;
    unsigned int id;
    const char* address;
    int port;
    const char* type;
};

/* On a 32-bit host the offsets can be held to the very numbers of the tables. */
#define HOLDS(name, condition) typedef char name[(condition) ? 1 : -1]
HOLDS(RequesterHasEightBytes, sizeof(struct Endpoint) == 8);
HOLDS(ResourceHasTwentyBytes, sizeof(void*) != 4 || sizeof(struct Resource) == 20);
HOLDS(PlatformBeginsWithEightWords, sizeof(void*) != 4 || sizeof(struct Platform) == 32);
HOLDS(ProxyBeginsWithSevenWords, sizeof(void*) != 4 || offsetof(struct Proxy, next) == 28);
HOLDS(EventIsAtTheDocumentedPlaces, sizeof(void*) != 4 || (offsetof(struct DeviceEvent, address) == 8 &&
                                                           offsetof(struct DeviceEvent, port) == 12 &&
                                                           offsetof(struct DeviceEvent, type) == 16));

typedef int (*EventFunction)(struct DeviceEvent*);
typedef int (*GetHandler)(struct Resource*, const struct Endpoint*, const char*, char*, unsigned int);
typedef int (*PutHandler)(struct Resource*, const struct Endpoint*, const char*, const char*, unsigned int);
typedef const char* (*DescriptorHandler)(struct Resource*);

struct Platform* GetLinkPlatform(void);
void FreeLinkPlatform(struct Platform* platform);
struct Proxy* GetNextAppResourceProxy(struct Proxy* proxy);
void FreeAppResourceProxy2(struct Proxy* proxy);
int ForeignPlatformCalls(void);
int ForeignPlatformObjects(void);
int ForeignPlatformSends(unsigned int event, const char* address);

static const struct Endpoint g_endpoint = {{127, 0, 0, 1}, 40000};
static struct Resource* g_resource;
static struct Resource g_handlers;
static EventFunction g_onDeviceEvent;
static int g_calls;
static int g_objects;

int ForeignPlatformCalls(void) { return g_calls; }
int ForeignPlatformObjects(void) { return g_objects; }

int ForeignPlatformSends(unsigned int event, const char* address) {
    struct DeviceEvent device = {0, 7, NULL, 40000, "camera"};
    device.event = event;
    device.address = address;
    return g_onDeviceEvent(&device);
}

/* Fields that callers must not touch. */
static void Never(void) { abort(); }

static int Succeed(struct Platform* platform) {
    (void)platform;
    ++g_calls;
    return 0;
}

static int SetDebugLevel(struct Platform* platform, int level) {
    (void)platform;
    (void)level;
    return 0;
}

static int RegisterResource(struct Platform* platform, struct Resource* resource,
                            EventFunction onDeviceEvent) {
    (void)platform;
    g_onDeviceEvent = onDeviceEvent;
    g_resource = resource;
    g_handlers = *resource;
    return 0;
}

static int ProxyGet(struct Proxy* proxy, const char* key, char* buffer, unsigned int capacity) {
    (void)proxy;
    return ((GetHandler)g_handlers.fields[DO_GET])(g_resource, &g_endpoint, key, buffer, capacity + 1);
}

static int Forward(int handler, const char* key, const char* value, unsigned int length) {
    return ((PutHandler)g_handlers.fields[handler])(g_resource, &g_endpoint, key, value, length);
}

static int ProxyPut(struct Proxy* proxy, const char* key, const char* value, unsigned int length) {
    (void)proxy;
    return Forward(DO_PUT, key, value, length);
}

static int ProxyPost(struct Proxy* proxy, const char* key, const char* value, unsigned int length) {
    (void)proxy;
    return Forward(DO_POST, key, value, length);
}

static int ProxyDelete(struct Proxy* proxy, const char* key, const char* value, unsigned int length) {
    (void)proxy;
    return Forward(DO_DELETE, key, value, length);
}

static const char* ProxyAddress(struct Proxy* proxy) {
    (void)proxy;
    return "127.0.0.1";
}

static int ProxyPort(struct Proxy* proxy) {
    (void)proxy;
    return g_endpoint.port;
}

static struct Proxy* NewProxy(struct Proxy* next) {
    struct Proxy* proxy = calloc(1, sizeof(*proxy));
    if (proxy == NULL) {
        return NULL;
    }
    ++g_objects;
    proxy->fields[PROXY_GET] = (Function)ProxyGet;
    proxy->fields[PROXY_PUT] = (Function)ProxyPut;
    proxy->fields[PROXY_POST] = (Function)ProxyPost;
    proxy->fields[PROXY_DELETE] = (Function)ProxyDelete;
    proxy->fields[PROXY_UNUSED_16] = Never;
    proxy->fields[PROXY_ADDRESS] = (Function)ProxyAddress;
    proxy->fields[PROXY_PORT] = (Function)ProxyPort;
    proxy->next = next;
    return proxy;
}

/* Finds the device twice: a chain of two. */
static struct Proxy* FindResource(struct Platform* platform, const char* devType) {
    const char* descriptor = ((DescriptorHandler)g_handlers.fields[DO_GET_DESCRIPTOR])(g_resource);
    (void)platform;
    ++g_calls;
    return descriptor != NULL && strcmp(descriptor, devType) == 0 ? NewProxy(NewProxy(NULL)) : NULL;
}

struct Platform* GetLinkPlatform(void) {
    struct Platform* platform = calloc(1, sizeof(*platform));
    if (platform == NULL) {
        return NULL;
    }
    ++g_objects;
    platform->fields[INIT] = (Function)Succeed;
    platform->fields[UNUSED_4] = Never;
    platform->fields[SET_DEBUG_LEVEL] = (Function)SetDebugLevel;
    platform->fields[REGISTER_RESOURCE] = (Function)RegisterResource;
    platform->fields[UNUSED_16] = Never;
    platform->fields[RUN] = (Function)Succeed;
    platform->fields[EXIT] = (Function)Succeed;
    platform->fields[FIND_RESOURCE] = (Function)FindResource;
    return platform;
}

void FreeLinkPlatform(struct Platform* platform) {
    --g_objects;
    free(platform);
}

struct Proxy* GetNextAppResourceProxy(struct Proxy* proxy) {
    return proxy->next;
}

void FreeAppResourceProxy2(struct Proxy* proxy) {
    --g_objects;
    free(proxy);
}
