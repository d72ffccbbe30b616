// What stands above the link layer in its tests.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "link/callbacks.h"
#include "link/device_descriptor.h"

namespace lumora_test {

// Records what it is asked and answers as it is told.
class FakeDescriptor : public lumora::LinkDeviceDescriptor {
public:
    struct Call {
        std::string handler;
        std::string address;
        int port;
        std::string key;
        std::string value;

        bool operator==(const Call& other) const {
            return handler == other.handler && address == other.address && port == other.port &&
                   key == other.key && value == other.value;
        }
    };

    explicit FakeDescriptor(std::string text = "camera") : mText(std::move(text)) {}

    const std::string& GetDescriptor() const override {
        onDescribe();
        return mText;
    }
    bool OnGet(const Port& remote, const std::string& key, std::string& value) override {
        return Answer("OnGet", remote, key, value);
    }
    bool OnPut(const Port& remote, const std::string& key, const std::string& value) override {
        return Record("OnPut", remote, key, value);
    }
    bool OnPost(const Port& remote, const std::string& key, const std::string& value) override {
        return Record("OnPost", remote, key, value);
    }
    bool OnDelete(const Port& remote, const std::string& key, const std::string& value) override {
        return Record("OnDelete", remote, key, value);
    }
    bool OnSetupMediaService(const Port& remote, std::string& value) override {
        return Answer("OnSetupMediaService", remote, "", value);
    }

    bool handles = true;
    std::string reply;
    std::function<void()> onCall = [] {};  // runs inside every handler, and may throw
    std::function<void()> onDescribe = [] {};
    std::vector<Call> calls;

private:
    bool Record(const char* handler, const Port& remote, const std::string& key, const std::string& value) {
        calls.push_back({handler, remote.GetAddress(), remote.port, key, value});
        onCall();
        return handles;
    }
    bool Answer(const char* handler, const Port& remote, const std::string& key, std::string& value) {
        const bool handled = Record(handler, remote, key, value);
        value = reply;
        return handled;
    }

    const std::string mText;
};

// Records the device events that reach it.
class FakeNotifyCallback : public lumoraAiModule::LumoraNotifyCallback {
public:
    struct Event {
        std::string handler;
        unsigned int id;
        std::string addr;
        int port;
        std::string devType;

        bool operator==(const Event& other) const {
            return handler == other.handler && id == other.id && addr == other.addr && port == other.port &&
                   devType == other.devType;
        }
    };

    int OnAddDevice(unsigned int id, const std::string& addr, int port, const std::string& devType) override {
        return Record({"OnAddDevice", id, addr, port, devType});
    }
    int OnRemoveDevice(unsigned int id, const std::string& addr, int port,
                       const std::string& devType) override {
        return Record({"OnRemoveDevice", id, addr, port, devType});
    }

    int result = 0;
    std::function<void()> onEvent = [] {};  // runs inside every event, and may throw
    std::vector<Event> events;

private:
    int Record(const Event& event) {
        events.push_back(event);
        onEvent();
        return result;
    }
};

}  // namespace lumora_test
