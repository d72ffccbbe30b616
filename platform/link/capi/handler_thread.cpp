#include "platform/link/capi/handler_thread.h"

#include <exception>

#include "base/thread.h"
#include "platform/link/io/run_guarded.h"
#include "platform/link/log.h"

namespace lumora_link {

HandlerThread::HandlerThread(Listener listener) : mListener(std::move(listener)) {
    mThread = lumora::StartThread("lumora-link-req", [this] { Run(); });
    mId = mThread.get_id();
}

HandlerThread::~HandlerThread() { Stop(); }

bool HandlerThread::Push(HandlerCall call) {
    CallQueue::Admission admission;
    {
        lumora::MutexLock lock(mMutex);
        if (mStopping) {
            return false;
        }
        admission = mQueue.Push(std::move(call), Clock::now());
        mChanged.NotifyAll();
    }
    // Without mMutex: the listener posts to the I/O thread.
    Drop(admission.dropped);
    return admission.accepted;
}

void HandlerThread::Stop() {
    {
        lumora::MutexLock lock(mMutex);
        mStopping = true;
        mChanged.NotifyAll();
    }
    // Without mMutex: the thread needs it to see mStopping. Waits as long as the running handler takes.
    if (mThread.joinable()) {
        mThread.join();
    }
}

void HandlerThread::Run() {
    while (const auto call = WaitForCall()) {
        // How long handlers take decides which waiting calls can still be answered in time.
        const TimePoint began = Clock::now();
        RunOne(*call);
        CallQueue::Dropped dropped;
        RunGuarded([&] {
            lumora::MutexLock lock(mMutex);
            dropped = mQueue.OnEnded(*call, began, Clock::now());
        });
        // Guarded apart: a failure above must not leave these requesters without an answer.
        RunGuarded([&] { Drop(dropped); });
    }
}

// Nothing once the thread is to stop.
std::optional<HandlerCall> HandlerThread::WaitForCall() {
    lumora::MutexLock lock(mMutex);
    while (!mStopping) {
        const TimePoint now = Clock::now();
        if (auto call = mQueue.Pop(now)) {
            return call;
        }
        mChanged.WaitUntil(mMutex, mQueue.NextStart(now));
    }
    return std::nullopt;
}

void HandlerThread::RunOne(const HandlerCall& call) {
    Outcome outcome{code::INTERNAL_ERROR, {}};
    try {
        outcome = mListener.run(call);
    } catch (const std::exception& error) {
        LINK_LOG_LIMITED(LEVEL_ERROR, "a handler threw; the request has failed: %s\n", error.what());
    } catch (...) {
        LINK_LOG_LIMITED(LEVEL_ERROR, "a handler threw; the request has failed\n");
    }
    RunGuarded([&] { mListener.onHandled(call.ticket, std::move(outcome)); });
}

void HandlerThread::Drop(CallQueue::Dropped ticket) {
    if (ticket) {
        mListener.onHandled(*ticket, {code::UNAVAILABLE, {}});
    }
}

}  // namespace lumora_link
