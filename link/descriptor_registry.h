// Turns a descriptor into the record that the platform understands, and finds it again by that record.
#pragma once

#include <map>
#include <memory>

#include "base/mutex.h"
#include "base/never_destroyed.h"
#include "link/device_descriptor.h"
#include "link_platform.h"

namespace lumora {

// The process-wide registry. It holds one descriptor at a time: if a process plays both sides, the side that
// registered last gets all requests. Any thread may use it.
class LinkDeviceDescriptorWrapper {
public:
    virtual ~LinkDeviceDescriptorWrapper();
    LinkDeviceDescriptorWrapper() = default;
    LinkDeviceDescriptorWrapper(const LinkDeviceDescriptorWrapper&) = delete;
    LinkDeviceDescriptorWrapper& operator=(const LinkDeviceDescriptorWrapper&) = delete;

    // The one registry; made on first use, alive until the program ends.
    static std::shared_ptr<LinkDeviceDescriptorWrapper> Get();

    // Replaces every earlier registration. Null when memory ran out. Hold the record for as long as the
    // platform knows it: its address, by which requests are told apart, is then given to no other.
    std::shared_ptr<AppResource> RegisterDeviceDescriptor(std::shared_ptr<LinkDeviceDescriptor>& descriptor);

    // Empty for a record that is not, or no longer, registered.
    std::shared_ptr<LinkDeviceDescriptor> Find(AppResource* resource);

    void Clear();

private:
    struct Registration {
        std::shared_ptr<AppResource> record;
        std::shared_ptr<LinkDeviceDescriptor> descriptor;
    };
    using Registrations = std::map<AppResource*, Registration>;

    Registrations TakeAll();

    // A leaf lock, never held while a descriptor is called or dies.
    Mutex mMutex;
    Registrations mDescriptors GUARDED_BY(mMutex);

    static Mutex mInstanceMutex;
    static NeverDestroyed<std::shared_ptr<LinkDeviceDescriptorWrapper>> mInstance GUARDED_BY(mInstanceMutex);
};

}  // namespace lumora
