// What the module has decided about the protection of a data channel.
#pragma once

#include <memory>
#include <utility>

#include "base/mutex.h"
#include "link/channel_security.h"

namespace lumoraAiModule {

// A client listens before it knows whether its device protects the channel; its receive thread then waits for
// the decision. Any thread may call the operations.
class ChannelProtection {
public:
    struct Decision {
        bool isMade = true;
        std::shared_ptr<lumora::ChannelKeys> keys;  // null for a plain channel
    };

    Decision Current() {
        const lumora::MutexLock lock(mMutex);
        return mDecision;
    }
    // From now on connections wait until the next decision.
    void Await() { Set({false, nullptr}); }
    void Decide(std::shared_ptr<lumora::ChannelKeys> keys) { Set({true, std::move(keys)}); }
    // A channel that was private does not become a plain one.
    void EraseKeys() {
        if (Current().keys != nullptr) {
            Await();
        }
    }

private:
    void Set(Decision decision) {
        const lumora::MutexLock lock(mMutex);
        std::swap(mDecision, decision);  // the former keys are freed after the lock
    }

    lumora::Mutex mMutex;  // a leaf lock
    Decision mDecision GUARDED_BY(mMutex);
};

}  // namespace lumoraAiModule
