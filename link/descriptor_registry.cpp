#include "link/descriptor_registry.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstdlib>
#include <utility>

#include "base/log.h"
#include "link/link_device.h"
#include "securec.h"

namespace lumora {

namespace {

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

// Writes as much of the reply as the requester has room for.
int CopyReply(const std::string& reply, char* buffer, unsigned int size) {
    if (size == 0) {
        return -1;
    }
    const std::size_t length = std::min<std::size_t>(reply.length(), size - 1);
    if (length > 0 && memcpy_s(buffer, size, reply.data(), length) != 0) {
        LUMORA_DETAIL("memcpy_s failed\n");
        return -1;
    }
    buffer[length] = '\0';
    return 0;
}

int AnswerGet(AppResource* resource, const RemoteEndpoint* requester, const char* key, char* buffer,
              unsigned int size) {
    const std::shared_ptr<LinkDeviceDescriptor> descriptor =
        LinkDeviceDescriptorWrapper::Get()->Find(resource);
    if (descriptor == nullptr) {
        return -1;
    }
    LinkDeviceDescriptor::Port port;
    const std::string keyText = key;
    std::string value = buffer;
    SetRemoteAddress(port, requester);
    const bool handled = keyText == MEDIA_SERVICE_SETUP_KEY ? descriptor->OnSetupMediaService(port, value)
                                                            : descriptor->OnGet(port, keyText, value);
    return handled ? CopyReply(value, buffer, size) : -1;
}

using RequestHandler = bool (LinkDeviceDescriptor::*)(const LinkDeviceDescriptor::Port&, const std::string&,
                                                      const std::string&);

int Answer(RequestHandler handler, AppResource* resource, const RemoteEndpoint* requester, const char* key,
           const char* value) {
    const std::shared_ptr<LinkDeviceDescriptor> descriptor =
        LinkDeviceDescriptorWrapper::Get()->Find(resource);
    if (descriptor == nullptr) {
        return -1;
    }
    LinkDeviceDescriptor::Port port;
    const std::string keyText = key;
    const std::string valueText = value;
    SetRemoteAddress(port, requester);
    return ((*descriptor).*handler)(port, keyText, valueText) ? 0 : -1;
}

// The platform is a C library: whatever a handler throws ends here, a request must never end the process.
template <typename Function>
int AnswerWithoutThrowing(Function answer) {
    try {
        return answer();
    } catch (...) {
        return -1;
    }
}

}  // namespace

extern "C" {

static int DoGET(AppResource* resource, const RemoteEndpoint* requester, const char* key, char* buffer,
                 unsigned int size) {
    return AnswerWithoutThrowing([&] { return AnswerGet(resource, requester, key, buffer, size); });
}

static int DoPUT(AppResource* resource, const RemoteEndpoint* requester, const char* key, const char* value,
                 unsigned int) {
    return AnswerWithoutThrowing(
        [&] { return Answer(&LinkDeviceDescriptor::OnPut, resource, requester, key, value); });
}

static int DoPOST(AppResource* resource, const RemoteEndpoint* requester, const char* key, const char* value,
                  unsigned int) {
    return AnswerWithoutThrowing(
        [&] { return Answer(&LinkDeviceDescriptor::OnPost, resource, requester, key, value); });
}

static int DoDELETE(AppResource* resource, const RemoteEndpoint* requester, const char* key,
                    const char* value, unsigned int) {
    return AnswerWithoutThrowing(
        [&] { return Answer(&LinkDeviceDescriptor::OnDelete, resource, requester, key, value); });
}

static const char* DoGetDescriptor(AppResource* resource) {
    const std::shared_ptr<LinkDeviceDescriptor> descriptor =
        LinkDeviceDescriptorWrapper::Get()->Find(resource);
    return descriptor != nullptr ? descriptor->GetDescriptor().c_str() : nullptr;
}

}  // extern "C"

Mutex LinkDeviceDescriptorWrapper::mInstanceMutex;
NeverDestroyed<std::shared_ptr<LinkDeviceDescriptorWrapper>> LinkDeviceDescriptorWrapper::mInstance;

void LinkDeviceDescriptorWrapper::ResourceDeleter::operator()(AppResource* resource) const {
    std::free(resource);
}

LinkDeviceDescriptorWrapper::~LinkDeviceDescriptorWrapper() { Clear(); }

std::shared_ptr<LinkDeviceDescriptorWrapper> LinkDeviceDescriptorWrapper::Get() {
    const MutexLock lock(mInstanceMutex);
    if (*mInstance == nullptr) {
        *mInstance = std::make_shared<LinkDeviceDescriptorWrapper>();
    }
    return *mInstance;
}

AppResource* LinkDeviceDescriptorWrapper::RegisterDeviceDescriptor(
    std::shared_ptr<LinkDeviceDescriptor>& descriptor) {
    // Freed only at the end: a record at the same address would answer for one that was withdrawn.
    const Registrations withdrawn = TakeAll();
    std::unique_ptr<AppResource, ResourceDeleter> resource(
        static_cast<AppResource*>(std::malloc(sizeof(AppResource))));
    if (resource == nullptr) {
        LUMORA_DETAIL("malloc Doorbell failure\n");
        return nullptr;
    }
    if (memset_s(resource.get(), sizeof(AppResource), 0, sizeof(AppResource)) != 0) {
        LUMORA_DETAIL("memset_s failed\n");
        return nullptr;
    }
    resource->DoGET = DoGET;
    resource->DoPUT = DoPUT;
    resource->DoPOST = DoPOST;
    resource->DoDELETE = DoDELETE;
    resource->DoGetDescriptor = DoGetDescriptor;

    AppResource* const record = resource.get();
    const MutexLock lock(mMutex);
    mDescriptors[record] = Registration{std::move(resource), descriptor};
    return record;
}

std::shared_ptr<LinkDeviceDescriptor> LinkDeviceDescriptorWrapper::Find(AppResource* resource) {
    const MutexLock lock(mMutex);
    const auto found = mDescriptors.find(resource);
    return found != mDescriptors.end() ? found->second.descriptor : nullptr;
}

void LinkDeviceDescriptorWrapper::Clear() { const Registrations withdrawn = TakeAll(); }

LinkDeviceDescriptorWrapper::Registrations LinkDeviceDescriptorWrapper::TakeAll() {
    const MutexLock lock(mMutex);
    return std::exchange(mDescriptors, Registrations());
}

}  // namespace lumora
