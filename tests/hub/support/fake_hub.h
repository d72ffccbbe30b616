// A hub without devices: tests make devices, blocks and answers.
#pragma once

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/mutex.h"
#include "hub/core/device_hub.h"

namespace lumora_hub_test {

// Any thread may call its functions.
class FakeHub final : public lumora_hub::DeviceHub {
public:
    using DeviceState = lumora_hub::DeviceState;

    ~FakeHub() override;

    // What a device does.
    void Appear(const std::string& id, const std::vector<std::string>& services);
    void Leave(const std::string& id);
    void SendFromDevice(const std::string& id, const std::string& service, const std::string& bytes);

    // outcome: of commands and blocks from now on; empty lets them wait for AnswerAll.
    void AnswerWith(std::optional<lumora_hub::Outcome> outcome);
    void AnswerAll(lumora_hub::Outcome outcome);
    // Called with each command and block, on the thread of the caller.
    void OnSent(std::function<void(const std::string& line)> handler);
    void LimitConsumers(std::size_t limit);

    std::vector<DeviceState> Devices() const override;
    std::optional<DeviceState> FindDevice(const std::string& name) const override;
    std::vector<lumora_hub::ConsumerState> Consumers() const override;
    std::unique_ptr<lumora_hub::Registration> Subscribe(
        const std::string& device, const std::string& service,
        std::shared_ptr<lumora_hub::Consumer> consumer) override;
    void SendCommand(const std::string& device, const std::string& command, const std::string& parameter,
                     Done done) override;
    void SendBlock(const std::string& device, std::string bytes, Done done) override;
    std::unique_ptr<lumora_hub::Registration> Watch(Listener listener) override;

private:
    class Ticket;
    struct Subscription {
        std::string device;
        std::string service;
        std::shared_ptr<lumora_hub::Consumer> consumer;
    };

    void Tell(lumora_hub::DeviceEvent::Kind kind, const DeviceState& device);
    void Answer(const std::string& device, const std::string& line, Done done);
    void Remove(std::size_t ticket);

    mutable lumora::Mutex mMutex;
    std::map<std::string, DeviceState> mDevices GUARDED_BY(mMutex);
    std::map<std::size_t, Subscription> mSubscriptions GUARDED_BY(mMutex);
    std::size_t mLastTicket GUARDED_BY(mMutex) = 0;
    std::size_t mLimit GUARDED_BY(mMutex) = 1000;
    std::optional<lumora_hub::Outcome> mOutcome GUARDED_BY(mMutex) = lumora_hub::Outcome::DONE;
    std::deque<Done> mWaiting GUARDED_BY(mMutex);
    std::function<void(const std::string&)> mOnSent GUARDED_BY(mMutex);
    // Held while listeners are called, so that Remove waits for a call in progress.
    lumora::Mutex mListening;
    std::map<std::size_t, Listener> mListeners GUARDED_BY(mListening);
};

}  // namespace lumora_hub_test
