#include <dlfcn.h>

#include <cstdlib>
#include <vector>

#include "bench/pipe.h"
#include "bench/records.h"
#include "link_security.h"
#include "lumora.h"

namespace lumora_bench {

namespace {

constexpr const char* DEVICE_TYPE = "bench-device";
constexpr unsigned int TIMEOUT_MS = 2000;

// Callbacks of a C interface carry no context, and a process has one pipe.
Handler g_handler;
Signal g_subscribed;
Signal g_answered;
bool g_exchanging = false;

int OnEventNotify(int, int event, LUM_SUBSCRIBE_SERVICE_S) {
    if (event == LUM_NOTIFY_SUBSCRIBED) {
        g_subscribed.Raise();
    }
    return 0;
}

int OnData(int, const char* data, unsigned int length) {
    if (g_handler) {
        g_handler(data, length);
    }
    return 0;
}

int OnOthersEvent(LUM_DEVICE_EVENT_S) { return 0; }

int OnDeviceEvent(LUM_DEVICE_EVENT_S event) {
    if (g_handler) {
        g_handler(event.data, event.dataLen);
    }
    if (g_exchanging) {
        g_answered.Raise();
    }
    return 0;
}

void Check(int result, const char* what) {
    if (result != 0) {
        Fail(std::string("lumora: ") + what + " failed");
    }
}

// Null if the platform library makes no private channels.
const LinkSecurity* Security() {
    const auto get = reinterpret_cast<decltype(&GetLinkSecurity)>(dlsym(RTLD_DEFAULT, "GetLinkSecurity"));
    const LinkSecurity* security = get != nullptr ? get() : nullptr;
    return security != nullptr && security->size >= sizeof(LinkSecurity) ? security : nullptr;
}

class LumoraPipe : public Pipe {
public:
    explicit LumoraPipe(bool isPrivate) : mIsUnproven(isPrivate) {}

    void Open(Role role, Flow, Handler handler) override {
        mRole = role;
        g_handler = std::move(handler);
        if (role == Role::DEVICE) {
            OpenDevice();
        } else {
            OpenClient();
        }
    }

    void Send(const char* data, std::size_t length) override {
        const auto count = static_cast<unsigned int>(length);
        unsigned int sent = 0;
        if (mRole == Role::DEVICE) {
            Check(LUM_SendDataToClient(SERVICE, data, count, &sent, TIMEOUT_MS), "LUM_SendDataToClient");
        } else {
            Check(LUM_SendData(mClient, mHandle, data, count, &sent, TIMEOUT_MS), "LUM_SendData");
        }
        if (sent != count) {
            Fail("lumora: the peer is too slow");
        }
        if (mIsUnproven) {
            ProvePrivacy();
        }
    }

    void Exchange(const char* data, std::size_t length) override {
        g_exchanging = true;
        Send(data, length);
        g_answered.Wait();
    }

    void Close() override {
        if (mRole == Role::DEVICE) {
            Check(LUM_DeInitServer(), "LUM_DeInitServer");
        } else {
            for (const int other : mOthers) {
                Check(LUM_DeInitClient(other), "LUM_DeInitClient");
            }
            Check(LUM_DeInitClient(mClient), "LUM_DeInitClient");
        }
    }

private:
    // All of a process's subscribers share its connection. A measurement may want several.
    static int Subscribers() {
        const char* count = std::getenv("LUMORA_BENCH_SUBSCRIBERS");
        return count != nullptr ? std::atoi(count) : 1;
    }

    static void OpenDevice() {
        const LUM_DEVICE_INFO_S device = DeviceRecord(DEVICE_TYPE, OnEventNotify, OnData);
        Check(LUM_InitServer(DEVICE_TYPE), "LUM_InitServer");
        Check(LUM_RegisterAiDevInfo(&device), "LUM_RegisterAiDevInfo");
        for (int count = 0; count < Subscribers(); ++count) {
            g_subscribed.Wait();
        }
    }

    void OpenClient() {
        Check(LUM_InitClient(&mClient, "bench-client"), "LUM_InitClient");
        LUM_DEVICES_INFO_S found = {};
        for (int i = 0; i < 20 && found.devNum == 0; ++i) {
            LUM_GetAiDeviceList(DEVICE_TYPE, &found);
        }
        Check(LUM_CreateAiDevice(mClient, DEVICE_TYPE, &mHandle), "LUM_CreateAiDevice");
        Subscribe(mClient, OnDeviceEvent);
        for (int count = 1; count < Subscribers(); ++count) {
            int other = 0;
            Check(LUM_InitClient(&other, "bench-client"), "LUM_InitClient");
            Subscribe(other, OnOthersEvent);
            mOthers.push_back(other);
        }
    }

    void Subscribe(int client, LUM_DEVICE_EVENT_CALLBACK onEvent) const {
        Check(LUM_RegisterAiDeviceEvent(client, mHandle, onEvent), "LUM_RegisterAiDeviceEvent");
        Check(LUM_ConnectAiDevice(client, mHandle), "LUM_ConnectAiDevice");
        const LUM_SUBSCRIBE_SERVICE_S subscription = Subscription();
        Check(LUM_SendCmd(client, mHandle, "subscribe", reinterpret_cast<const char*>(&subscription)),
              "LUM_SendCmd");
    }

    // A platform library that does not know the variables would measure a plain channel.
    void ProvePrivacy() {
        LinkRequester peer = {};
        if (Security() == nullptr || Security()->GetChannelPeer(mRole == Role::DEVICE ? 1 : 0, &peer) != 1) {
            Fail("lumora: the channel is not private");
        }
        mIsUnproven = false;
    }

    bool mIsUnproven;
    Role mRole = Role::DEVICE;
    int mClient = 0;
    std::vector<int> mOthers;
    unsigned int mHandle = 0;
};

}  // namespace

bool CanBePrivate() { return Security() != nullptr; }

std::unique_ptr<Pipe> MakeLumoraPipe(bool isPrivate) { return std::make_unique<LumoraPipe>(isPrivate); }

}  // namespace lumora_bench
