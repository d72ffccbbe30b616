#include "link/link_device.h"

#include <algorithm>

#include "base/log.h"
#include "securec.h"

namespace lumora {

const char* const MEDIA_SERVICE_SETUP_KEY = ".sys.mediaservice.setup";

namespace {

// A value, or a reply, with its terminator.
constexpr unsigned int VALUE_SIZE = 1024;

}  // namespace

// The limit is one character below what would fit. Applications know it: lumora.h names 1,022.
bool CheckValueSize(int length) {
    if (length + 1 < static_cast<int>(VALUE_SIZE)) {
        return true;
    }
    LUMORA_ERROR("value size is larger than (%d:%d)\n", length, static_cast<int>(VALUE_SIZE - 1));
    return false;
}

int LinkDevice::Put(const std::string&, const std::string&, std::string&) {
    LUMORA_DETAIL("NOT IMPLEMENT\n");
    return -1;
}

int LinkDevice::Get(const std::string&, const std::string&, std::string&) {
    LUMORA_DETAIL("NOT IMPLEMENT\n");
    return -1;
}

int LinkDevice::Post(const std::string&, const std::string&, std::string&) {
    LUMORA_DETAIL("NOT IMPLEMENT\n");
    return -1;
}

int LinkDevice::Delete(const std::string&, const std::string&, std::string&) {
    LUMORA_DETAIL("NOT IMPLEMENT\n");
    return -1;
}

int LinkDevice::SetupMediaService(const std::string&, std::string&) {
    LUMORA_DETAIL("NOT IMPLEMENT\n");
    return -1;
}

std::string LinkDevice::Address() {
    LUMORA_DETAIL("NOT IMPLEMENT\n");
    return std::string();
}

int LinkDevice::Port() {
    LUMORA_DETAIL("NOT IMPLEMENT\n");
    return 0;
}

LinkDeviceImpl::LinkDeviceImpl(AppResourceProxy& proxy) : mProxy(&proxy) {}

// Frees the proxy on whatever thread drops the last reference. Callers see to it that they hold no lock then,
// because this calls the platform.
LinkDeviceImpl::~LinkDeviceImpl() {
    if (mProxy != nullptr) {
        FreeAppResourceProxy2(mProxy);
        mProxy = nullptr;
    }
}

// The platform waits for the device's answer, for up to a minute. Only requests to the same device wait for
// each other meanwhile.
int LinkDeviceImpl::Send(SendOperation AppResourceProxy::*operation, const std::string& key,
                         const std::string& value) {
    if (!CheckValueSize(static_cast<int>(value.length()))) {
        return -1;
    }
    if (mProxy == nullptr) {
        return 0;
    }
    if (mProxy->*operation == nullptr) {
        LUMORA_ERROR("liblumora.so cannot send this request.\n");
        return -1;
    }
    const MutexLock lock(mRequestMutex);
    return (mProxy->*operation)(mProxy, key.c_str(), value.c_str(),
                                static_cast<unsigned int>(value.length()));
}

int LinkDeviceImpl::Put(const std::string& key, const std::string& value, std::string&) {
    return Send(&AppResourceProxy::Put, key, value);
}

int LinkDeviceImpl::Post(const std::string& key, const std::string& value, std::string&) {
    return Send(&AppResourceProxy::Post, key, value);
}

int LinkDeviceImpl::Delete(const std::string& key, const std::string& value, std::string&) {
    return Send(&AppResourceProxy::Delete, key, value);
}

int LinkDeviceImpl::Get(const std::string& key, const std::string& value, std::string& out) {
    if (!CheckValueSize(static_cast<int>(value.length()))) {
        return -1;
    }
    if (mProxy == nullptr) {
        return 0;
    }
    // The platform takes the value from the buffer and puts the reply into it.
    char buffer[VALUE_SIZE] = {};
    const std::size_t length = std::min<std::size_t>(value.length(), VALUE_SIZE - 1);
    if (length > 0 && memcpy_s(buffer, sizeof(buffer), value.data(), length) != 0) {
        LUMORA_DETAIL("memcpy_s failed\n");
        return -1;
    }
    buffer[length] = '\0';
    const int ret = Ask(key, buffer);
    if (ret == 0) {
        buffer[VALUE_SIZE - 1] = '\0';  // a foreign platform may use the whole capacity
        out = buffer;
    }
    return ret;
}

int LinkDeviceImpl::Ask(const std::string& key, char* buffer) {
    const MutexLock lock(mRequestMutex);
    return mProxy->Get(mProxy, key.c_str(), buffer, VALUE_SIZE - 1);
}

int LinkDeviceImpl::SetupMediaService(const std::string& request, std::string& out) {
    return Get(MEDIA_SERVICE_SETUP_KEY, request, out);
}

// No lock: nothing is sent, and a request in progress must not delay a look at the address.
std::string LinkDeviceImpl::Address() {
    if (mProxy == nullptr) {
        return std::string();
    }
    const char* address = mProxy->GetAddress(mProxy);
    return address != nullptr ? address : std::string();
}

int LinkDeviceImpl::Port() { return mProxy != nullptr ? mProxy->GetPort(mProxy) : 0; }

}  // namespace lumora
