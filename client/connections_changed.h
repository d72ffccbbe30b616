// Lets lumora.hpp look at its connections when one may have ended, so that its clients need not look every
// two seconds.
#pragma once

// lumora.hpp defines it in programs that include it. Null in all others.
extern "C" void LumoraConnectionsChanged() noexcept;
#pragma weak LumoraConnectionsChanged

namespace lumoraAiModule {

// Without a lock: lumora.hpp takes its own.
inline void TellConnectionsChanged() {
    if (LumoraConnectionsChanged != nullptr) {
        LumoraConnectionsChanged();
    }
}

}  // namespace lumoraAiModule
