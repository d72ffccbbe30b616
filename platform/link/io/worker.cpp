#include "platform/link/io/worker.h"

#include <pthread.h>

#include <csignal>

#include "platform/link/log.h"

namespace lumora_link {

std::thread StartQuietThread(const char* name, std::function<void()> body) {
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    // The thread inherits the mask; it must be put back also when there is no thread.
    struct Restore {
        const sigset_t& mask;
        ~Restore() { pthread_sigmask(SIG_SETMASK, &mask, nullptr); }
    } restore{before};
    return std::thread([name, body = std::move(body)] {
        pthread_setname_np(pthread_self(), name);
        body();
    });
}

Worker::Worker(const char* name, std::size_t limit) : mLimit(limit) {
    mThread = StartQuietThread(name, [this] { Run(); });
    mId = mThread.get_id();
}

Worker::~Worker() { Stop(); }

bool Worker::Post(Task task) {
    MutexLock lock(mMutex);
    if (mStopping || mTasks.size() >= mLimit) {
        return false;
    }
    mTasks.push_back(std::move(task));
    mChanged.NotifyAll();
    return true;
}

void Worker::Stop() {
    {
        MutexLock lock(mMutex);
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
            MutexLock lock(mMutex);
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
