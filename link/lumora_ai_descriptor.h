// The descriptor that both modules register.
#pragma once

#include <string>

#include "link/callback_slot.h"
#include "link/callbacks.h"
#include "link/device_descriptor.h"

namespace lumoraAiModule {

// Hands every request to a LumoraCoapCallback, or refuses it when there is none.
class LumoraAiDescriptor : public lumora::LinkDeviceDescriptor {
public:
    LumoraAiDescriptor(LumoraCoapCallback* callback, std::string& descriptor);
    explicit LumoraAiDescriptor(std::string& descriptor);

    const std::string& GetDescriptor() const override { return mDescriptor; }
    bool OnGet(const Port& remote, const std::string& key, std::string& value) override;
    bool OnPut(const Port& remote, const std::string& key, const std::string& value) override;
    bool OnPost(const Port& remote, const std::string& key, const std::string& value) override;
    bool OnDelete(const Port& remote, const std::string& key, const std::string& value) override;
    bool OnSetupMediaService(const Port& remote, std::string& value) override;

    // From now on requests are refused; returns when none is in progress. For a callback that dies: the
    // platform may still hold this descriptor.
    void WithdrawCallback(LumoraCoapCallback* callback);

private:
    template <typename Request>
    bool Forward(Request request);

    const std::string mDescriptor;
    lumora::CallbackSlot<LumoraCoapCallback> mCoapCallback;
};

}  // namespace lumoraAiModule
