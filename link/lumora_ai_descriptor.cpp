#include "link/lumora_ai_descriptor.h"

#include "base/log.h"

namespace lumoraAiModule {

namespace {

// What a request comes to when nobody is there to answer it; no callback returns it.
constexpr int NO_CALLBACK = -2;

}  // namespace

LumoraAiDescriptor::LumoraAiDescriptor(LumoraCoapCallback* callback, std::string& descriptor)
    : mDescriptor(descriptor) {
    mCoapCallback.Set(callback);
}

LumoraAiDescriptor::LumoraAiDescriptor(std::string& descriptor) : LumoraAiDescriptor(nullptr, descriptor) {}

void LumoraAiDescriptor::WithdrawCallback(LumoraCoapCallback* callback) { mCoapCallback.Withdraw(callback); }

template <typename Request>
bool LumoraAiDescriptor::Forward(Request request) {
    const int ret = mCoapCallback.Call(request, NO_CALLBACK);
    if (ret == NO_CALLBACK) {
        LUMORA_DETAIL("please register mCoapCallback\n");
    }
    return ret == 0;
}

bool LumoraAiDescriptor::OnGet(const Port&, const std::string& key, std::string& value) {
    LUMORA_DETAIL("onGet:cmd = %s\n", key.c_str());
    return Forward([&](LumoraCoapCallback& callback) {
        const int ret = callback.OnCoapGet(key, value);
        LUMORA_DETAIL("we will return:%s\n", value.c_str());
        return ret;
    });
}

bool LumoraAiDescriptor::OnPut(const Port&, const std::string& key, const std::string& value) {
    LUMORA_DETAIL("cmd:%s\n", key.c_str());
    return Forward([&](LumoraCoapCallback& callback) { return callback.OnCoapPut(key, value); });
}

bool LumoraAiDescriptor::OnPost(const Port&, const std::string& key, const std::string& value) {
    LUMORA_DETAIL("cmd:%s\n", key.c_str());
    return Forward([&](LumoraCoapCallback& callback) { return callback.OnCoapPost(key, value); });
}

bool LumoraAiDescriptor::OnDelete(const Port&, const std::string& key, const std::string& value) {
    return Forward([&](LumoraCoapCallback& callback) { return callback.OnCoapDelete(key, value); });
}

bool LumoraAiDescriptor::OnSetupMediaService(const Port& remote, std::string& value) {
    return Forward([&](LumoraCoapCallback& callback) { return callback.OnSetupMediaService(remote, value); });
}

}  // namespace lumoraAiModule
