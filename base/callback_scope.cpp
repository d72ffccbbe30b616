#include "base/callback_scope.h"

namespace lumora {

namespace {

// One counter per side: a callback of one side may call the other side.
thread_local int t_clientCallbacks = 0;
thread_local int t_serverCallbacks = 0;
thread_local const std::atomic<bool>* t_transportRunning = nullptr;

int& Depth(Side side) { return side == Side::CLIENT ? t_clientCallbacks : t_serverCallbacks; }

}  // namespace

CallbackScope::CallbackScope(Side side) : mSide(side) { ++Depth(mSide); }
CallbackScope::~CallbackScope() { --Depth(mSide); }
bool CallbackScope::Inside(Side side) { return Depth(side) > 0; }

// The pointer stays valid until the scope ends: the receive thread holds the transport that the flag belongs
// to.
DataCallbackScope::DataCallbackScope(const std::atomic<bool>& running) { t_transportRunning = &running; }
DataCallbackScope::~DataCallbackScope() { t_transportRunning = nullptr; }
const std::atomic<bool>* DataCallbackScope::TransportRunning() { return t_transportRunning; }

}  // namespace lumora
