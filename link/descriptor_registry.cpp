#include "link/descriptor_registry.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstdlib>
#include <new>
#include <utility>

#include "library/log.h"
#include "link/link_device.h"
#include "securec.h"

namespace lumora {

namespace {

// The platform gives the address in network byte order and the port in the host's. If the address cannot be
// read it stays empty, and a channel back to it fails.
void SetRemoteAddress(LinkDeviceDescriptor::Port& port, const RemoteEndpoint* requester) {
    in_addr address = {};
    if (memcpy_s(&address, sizeof(address), &requester->address, sizeof(requester->address)) != 0) {
        LUMORA_DETAIL("memcpy_s failed\n");
        return;
    }
    char text[INET_ADDRSTRLEN] = {};
    if (inet_ntop(AF_INET, &address, text, sizeof(text)) != nullptr) {
        port.SetAddress(text);
    }
    port.SetPort(requester->port);
}

// Writes as much of the reply as the requester has room for: the platform has no way to ask for more.
int CopyReply(const std::string& reply, char* buffer, unsigned int size) {
    const std::size_t length = size > 0 ? std::min<std::size_t>(reply.length(), size - 1) : 0;
    if (size == 0 || (length > 0 && memcpy_s(buffer, size, reply.data(), length) != 0)) {
        LUMORA_LOG_AS(LOG_DETAIL, "DoGET", "memcpy_s failed\n");
        return -1;
    }
    buffer[length] = '\0';
    return 0;
}

// The descriptor that a request is for, with the requester's address in port; null if there is none. A
// vendor's platform may leave out the requester or a text. `function` names the handler in the log.
std::shared_ptr<LinkDeviceDescriptor> Addressee(const char* function, AppResource* resource,
                                                const RemoteEndpoint* requester, const char* key,
                                                const char* value, LinkDeviceDescriptor::Port& port) {
    if (requester == nullptr || key == nullptr || value == nullptr) {
        LUMORA_LOG_AS(LOG_WARNING, function, "a request without a requester, a key or a value is refused\n");
        return nullptr;
    }
    std::shared_ptr<LinkDeviceDescriptor> descriptor = LinkDeviceDescriptorWrapper::Get()->Find(resource);
    if (descriptor != nullptr) {
        SetRemoteAddress(port, requester);
    }
    return descriptor;
}

using RequestHandler = bool (LinkDeviceDescriptor::*)(const LinkDeviceDescriptor::Port&, const std::string&,
                                                      const std::string&);

// The platform is a C library: whatever a handler throws ends here, because a request must never end the
// process. A peer can make a handler throw, for example by a number that std::stoi cannot read. The
// descriptor is held over the handler: the other side of this process may register its own meanwhile.
int Answer(const char* function, RequestHandler handler, AppResource* resource,
           const RemoteEndpoint* requester, const char* key, const char* value) try {
    LinkDeviceDescriptor::Port port;
    const std::shared_ptr<LinkDeviceDescriptor> descriptor =
        Addressee(function, resource, requester, key, value, port);
    if (descriptor == nullptr) {
        return -1;
    }
    return ((*descriptor).*handler)(port, key, value) ? 0 : -1;
} catch (...) {
    return -1;
}

}  // namespace

extern "C" {

// The buffer holds the request's value and takes the reply.
static int DoGET(AppResource* resource, const RemoteEndpoint* requester, const char* key, char* buffer,
                 unsigned int size) try {
    LinkDeviceDescriptor::Port port;
    const std::shared_ptr<LinkDeviceDescriptor> descriptor =
        Addressee(__func__, resource, requester, key, buffer, port);
    if (descriptor == nullptr) {
        return -1;
    }
    const std::string keyText = key;
    std::string value = buffer;
    const bool handled = keyText == MEDIA_SERVICE_SETUP_KEY ? descriptor->OnSetupMediaService(port, value)
                                                            : descriptor->OnGet(port, keyText, value);
    return handled ? CopyReply(value, buffer, size) : -1;
} catch (...) {
    return -1;
}

static int DoPUT(AppResource* resource, const RemoteEndpoint* requester, const char* key, const char* value,
                 unsigned int) {
    return Answer(__func__, &LinkDeviceDescriptor::OnPut, resource, requester, key, value);
}

static int DoPOST(AppResource* resource, const RemoteEndpoint* requester, const char* key, const char* value,
                  unsigned int) {
    return Answer(__func__, &LinkDeviceDescriptor::OnPost, resource, requester, key, value);
}

static int DoDELETE(AppResource* resource, const RemoteEndpoint* requester, const char* key,
                    const char* value, unsigned int) {
    return Answer(__func__, &LinkDeviceDescriptor::OnDelete, resource, requester, key, value);
}

// The text outlives the reference that is dropped here: the module that registered the descriptor holds it
// until its platform handle has been freed.
static const char* DoGetDescriptor(AppResource* resource) try {
    const std::shared_ptr<LinkDeviceDescriptor> descriptor =
        LinkDeviceDescriptorWrapper::Get()->Find(resource);
    return descriptor != nullptr ? descriptor->GetDescriptor().c_str() : nullptr;
} catch (...) {
    return nullptr;
}

}  // extern "C"

namespace {

struct RecordDeleter {
    void operator()(AppResource* record) const { std::free(record); }
};

// Empty when it cannot be made. Throws when there is memory for the record and none for its owner.
std::shared_ptr<AppResource> MakeRecord() {
    void* memory = std::malloc(sizeof(AppResource));
    if (memory == nullptr) {
        LUMORA_LOG_AS(LOG_DETAIL, "RegisterDeviceDescriptor", "malloc Doorbell failure\n");
        return nullptr;
    }
    std::shared_ptr<AppResource> record(static_cast<AppResource*>(memory), RecordDeleter());
    if (memset_s(record.get(), sizeof(AppResource), 0, sizeof(AppResource)) != 0) {
        LUMORA_LOG_AS(LOG_DETAIL, "RegisterDeviceDescriptor", "memset_s failed\n");
        return nullptr;
    }
    record->DoGET = DoGET;
    record->DoPUT = DoPUT;
    record->DoPOST = DoPOST;
    record->DoDELETE = DoDELETE;
    record->DoGetDescriptor = DoGetDescriptor;
    return record;
}

}  // namespace

Mutex LinkDeviceDescriptorWrapper::mInstanceMutex;
NeverDestroyed<std::shared_ptr<LinkDeviceDescriptorWrapper>> LinkDeviceDescriptorWrapper::mInstance;

LinkDeviceDescriptorWrapper::~LinkDeviceDescriptorWrapper() { Clear(); }

// The platform's threads may ask for it while the process ends, so the instance is never destroyed.
std::shared_ptr<LinkDeviceDescriptorWrapper> LinkDeviceDescriptorWrapper::Get() {
    const MutexLock lock(mInstanceMutex);
    if (*mInstance == nullptr) {
        *mInstance = std::make_shared<LinkDeviceDescriptorWrapper>();
    }
    return *mInstance;
}

// The earlier registration goes first. Without memory for the new one nothing is registered, and requests are
// refused.
std::shared_ptr<AppResource> LinkDeviceDescriptorWrapper::RegisterDeviceDescriptor(
    std::shared_ptr<LinkDeviceDescriptor>& descriptor) {
    Clear();
    try {
        std::shared_ptr<AppResource> record = MakeRecord();
        if (record != nullptr) {
            const MutexLock lock(mMutex);
            mDescriptors[record.get()] = Registration{record, descriptor};
        }
        return record;
    } catch (const std::bad_alloc&) {
        LUMORA_DETAIL("malloc Doorbell failure\n");
        return nullptr;
    }
}

std::shared_ptr<LinkDeviceDescriptor> LinkDeviceDescriptorWrapper::Find(AppResource* resource) {
    const MutexLock lock(mMutex);
    const auto found = mDescriptors.find(resource);
    return found != mDescriptors.end() ? found->second.descriptor : nullptr;
}

// The registrations die after the lock has been released: the last reference to a descriptor may be among
// them, and its destructor must not run under a leaf lock.
void LinkDeviceDescriptorWrapper::Clear() { const Registrations withdrawn = TakeAll(); }

LinkDeviceDescriptorWrapper::Registrations LinkDeviceDescriptorWrapper::TakeAll() {
    const MutexLock lock(mMutex);
    return std::exchange(mDescriptors, Registrations());
}

}  // namespace lumora
