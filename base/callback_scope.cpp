#include "base/callback_scope.h"

namespace lumora {

namespace {

// Counters, because a callback may call a function that runs another callback of the same side on this
// thread.
thread_local int t_clientCallbacks = 0;
thread_local int t_serverCallbacks = 0;
thread_local const std::atomic<bool>* t_transportRunning = nullptr;

int& Depth(Side side) { return side == Side::CLIENT ? t_clientCallbacks : t_serverCallbacks; }

}  // namespace

CallbackScope::CallbackScope(Side side) : mSide(side) { ++Depth(mSide); }
CallbackScope::~CallbackScope() { --Depth(mSide); }
bool CallbackScope::Inside(Side side) { return Depth(side) > 0; }

DataCallbackScope::DataCallbackScope(const std::atomic<bool>& running) { t_transportRunning = &running; }
DataCallbackScope::~DataCallbackScope() { t_transportRunning = nullptr; }
const std::atomic<bool>* DataCallbackScope::TransportRunning() { return t_transportRunning; }

}  // namespace lumora
