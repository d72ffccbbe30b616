/*
 * link_platform.h - how devices on the local network find and ask each other.
 *
 * The platform library gives out tables of operations. Every operation takes the object that
 * its table belongs to as the first argument. Texts are NUL-terminated; addresses are IPv4 in
 * dotted form. Unless said otherwise an int result is 0 on success.
 *
 * Fields behind the ones declared here are private to the library that made the object.
 */
#ifndef LINK_PLATFORM_H
#define LINK_PLATFORM_H

#include <netinet/in.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The requester of an incoming request. Nothing behind port is read. */
typedef struct RemoteEndpoint {
    struct in_addr address; /* network byte order */
    int port;               /* as it stands, in host order */
} RemoteEndpoint;

enum { NOTIFY_DEVICE_ADDED = 1, NOTIFY_DEVICE_REMOVED = 2 };

/* A device came or went. Valid only during the call that hands it over. */
typedef struct NotifyDeviceInfo {
    unsigned int event; /* NOTIFY_DEVICE_ADDED; every other value means removed */
    unsigned int id;    /* the platform's number for the device */
    const char* addr;   /* never null */
    int port;
    const char* devType; /* never null */
} NotifyDeviceInfo;

typedef int (*DeviceEventFunction)(NotifyDeviceInfo* info);

/*
 * The local resource that others may ask. The caller of RegisterResource owns the record and
 * may free it at any later time; the platform copies the handlers while it registers them and
 * afterwards only passes the pointer back, so that the handlers know which resource is meant.
 * Handlers run on threads of the platform, between Run and Exit. They answer 0 or -1.
 */
typedef struct AppResource {
    /* buffer holds the value of the request and takes the reply; size is its whole size. */
    int (*DoGET)(struct AppResource* resource, const RemoteEndpoint* requester, const char* key, char* buffer,
                 unsigned int size);
    int (*DoPUT)(struct AppResource* resource, const RemoteEndpoint* requester, const char* key,
                 const char* value, unsigned int length);
    int (*DoPOST)(struct AppResource* resource, const RemoteEndpoint* requester, const char* key,
                  const char* value, unsigned int length);
    int (*DoDELETE)(struct AppResource* resource, const RemoteEndpoint* requester, const char* key,
                    const char* value, unsigned int length);
    /* The text by which the resource is found, or null; valid while the resource is registered. */
    const char* (*DoGetDescriptor)(struct AppResource* resource);
} AppResource;

/* One remote device, an element of the chain that FindResource returns. */
typedef struct AppResourceProxy {
    /* buffer holds the value of the request and takes the reply; capacity leaves room for a NUL. */
    int (*Get)(struct AppResourceProxy* proxy, const char* key, char* buffer, unsigned int capacity);
    int (*Put)(struct AppResourceProxy* proxy, const char* key, const char* value, unsigned int length);
    int (*Post)(struct AppResourceProxy* proxy, const char* key, const char* value, unsigned int length);
    int (*Delete)(struct AppResourceProxy* proxy, const char* key, const char* value, unsigned int length);
    void (*reserved)(void);
    const char* (*GetAddress)(struct AppResourceProxy* proxy); /* owned by the proxy */
    int (*GetPort)(struct AppResourceProxy* proxy);
} AppResourceProxy;

/* A handle on the platform. Handles of one process are independent of each other. */
typedef struct LinkPlatform {
    int (*Init)(struct LinkPlatform* platform);
    void (*reserved1)(void);
    int (*SetDebugLevel)(struct LinkPlatform* platform, int level);
    int (*RegisterResource)(struct LinkPlatform* platform, AppResource* resource,
                            DeviceEventFunction onDeviceEvent);
    void (*reserved4)(void);
    int (*Run)(struct LinkPlatform* platform);
    int (*Exit)(struct LinkPlatform* platform);
    /* Searches the network; returns the first element of a chain, or null when none was found. */
    AppResourceProxy* (*FindResource)(struct LinkPlatform* platform, const char* devType);
} LinkPlatform;

/* A new handle, or null. Call Init on it before anything else. */
LinkPlatform* GetLinkPlatform(void);

/* Releases a handle; one that still runs is stopped first. Proxies found through it stay valid. */
void FreeLinkPlatform(LinkPlatform* platform);

/* The element behind the given one, or null at the end of the chain. */
AppResourceProxy* GetNextAppResourceProxy(AppResourceProxy* proxy);

/* Releases this one element; the others of its chain stay valid. Any order will do. */
void FreeAppResourceProxy2(AppResourceProxy* proxy);

#ifdef __cplusplus
}
#endif

#endif
