#include "platform/link/io/worker.h"

#include "base/thread.h"
#include "platform/link/log.h"

namespace lumora_link {

Worker::Worker(const char* name, std::size_t limit) : mLimit(limit) {
    mThread = lumora::StartThread(name, [this] { Run(); });
    // The first task may run before this line, but tasks are posted only after the constructor.
    mId = mThread.get_id();
}

Worker::~Worker() { Stop(); }

bool Worker::Post(Task task) {
    lumora::MutexLock lock(mMutex);
    // The limit bounds the memory if the application does not return from a call.
    if (mStopping || mTasks.size() >= mLimit) {
        return false;
    }
    mTasks.push_back(std::move(task));
    mChanged.NotifyAll();
    return true;
}

void Worker::Stop() {
    {
        lumora::MutexLock lock(mMutex);
        mStopping = true;
        mChanged.NotifyAll();
    }
    // Without mMutex: the thread needs it to see mStopping. Waits as long as the running task takes.
    if (mThread.joinable()) {
        mThread.join();
    }
}

void Worker::Run() {
    for (;;) {
        Task task;
        {
            lumora::MutexLock lock(mMutex);
            while (!mStopping && mTasks.empty()) {
                mChanged.Wait(mMutex);
            }
            if (mStopping) {
                return;
            }
            task = std::move(mTasks.front());
            mTasks.pop_front();
        }
        // Without mMutex: a task may take long, and it may post another one.
        try {
            task();
        } catch (...) {
            LINK_LOG(LEVEL_ERROR, "an exception came out of a call into the application\n");
        }
    }
}

}  // namespace lumora_link
