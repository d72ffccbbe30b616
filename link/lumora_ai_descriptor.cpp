#include "link/lumora_ai_descriptor.h"

#include "base/log.h"

namespace lumoraAiModule {

namespace {

enum class Outcome { HANDLED, FAILED, NO_CALLBACK };

}  // namespace

LumoraAiDescriptor::LumoraAiDescriptor(LumoraCoapCallback* callback, std::string& descriptor)
    : mDescriptor(descriptor) {
    mCoapCallback.Set(callback);
}

LumoraAiDescriptor::LumoraAiDescriptor(std::string& descriptor) : LumoraAiDescriptor(nullptr, descriptor) {}

void LumoraAiDescriptor::WithdrawCallback(LumoraCoapCallback* callback) { mCoapCallback.Withdraw(callback); }

// A client's descriptor has no callback, so a client answers every request with a failure.
template <typename Request>
bool LumoraAiDescriptor::Forward(Request request) {
    const Outcome outcome = mCoapCallback.Call(
        [&](LumoraCoapCallback& callback) {
            return request(callback) == 0 ? Outcome::HANDLED : Outcome::FAILED;
        },
        Outcome::NO_CALLBACK);
    if (outcome == Outcome::NO_CALLBACK) {
        LUMORA_DETAIL("please register mCoapCallback\n");
    }
    return outcome == Outcome::HANDLED;
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
