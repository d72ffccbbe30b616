// Remote devices: what the client side sends requests to.
#pragma once

#include <string>

#include "base/mutex.h"
#include "link_platform.h"

namespace lumora {

// A device that a search found. Requests block until the device has answered or the platform has given up;
// they return 0 on success.
class LinkDevice {
public:
    virtual ~LinkDevice() = default;

    // out is never written; it is there for symmetry with Get.
    virtual int Put(const std::string& key, const std::string& value, std::string& out);
    // out receives the reply; it stays as it is when the request fails.
    virtual int Get(const std::string& key, const std::string& value, std::string& out);
    virtual int Post(const std::string& key, const std::string& value, std::string& out);
    virtual int Delete(const std::string& key, const std::string& value, std::string& out);
    // Asks the device to set up its half of a data channel.
    virtual int SetupMediaService(const std::string& request, std::string& out);
    // IPv4, dotted.
    virtual std::string Address();
    virtual int Port();
};

// A device behind a proxy of the link platform, which it owns. Requests to one device wait for each other.
class LinkDeviceImpl : public LinkDevice {
public:
    explicit LinkDeviceImpl(AppResourceProxy& proxy);
    // A handle without a device: requests succeed and do nothing.
    explicit LinkDeviceImpl(std::nullptr_t) : mProxy(nullptr) {}
    ~LinkDeviceImpl() override;
    LinkDeviceImpl(const LinkDeviceImpl&) = delete;
    LinkDeviceImpl& operator=(const LinkDeviceImpl&) = delete;

    int Put(const std::string& key, const std::string& value, std::string& out) override;
    int Get(const std::string& key, const std::string& value, std::string& out) override;
    int Post(const std::string& key, const std::string& value, std::string& out) override;
    int Delete(const std::string& key, const std::string& value, std::string& out) override;
    int SetupMediaService(const std::string& request, std::string& out) override;
    std::string Address() override;
    int Port() override;

private:
    using SendOperation = int (*)(AppResourceProxy*, const char*, const char*, unsigned int);
    int Ask(const std::string& key, char* buffer);
    int Send(SendOperation AppResourceProxy::*operation, const std::string& key, const std::string& value);

    AppResourceProxy* mProxy;
    // Held over a request, because a platform need not allow two at a time through one proxy. Nothing but
    // another request to the same device waits for it.
    Mutex mRequestMutex;
};

// The request by which a client asks for a data channel; a device tells it apart by this key.
extern const char* const MEDIA_SERVICE_SETUP_KEY;

// Whether a value of this many characters may be sent.
bool CheckValueSize(int length);

}  // namespace lumora
