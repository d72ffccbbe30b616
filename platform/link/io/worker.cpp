#include "platform/link/io/worker.h"

#include "base/thread.h"
#include "platform/link/log.h"

namespace lumora_link {

Worker::Worker(const char* name, std::size_t limit) : mLimit(limit) {
    mThread = lumora::StartThread(name, [this] { Run(); });
    mId = mThread.get_id();
}

Worker::~Worker() { Stop(); }

bool Worker::Post(Task task) {
    lumora::MutexLock lock(mMutex);
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
        try {
            task();
        } catch (...) {
            LINK_LOG(LEVEL_ERROR, "an exception came out of a call into the application\n");
        }
    }
}

}  // namespace lumora_link
