#include "worker.h"

#include <pthread.h>

#include <csignal>

#include "log.h"

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

Worker::Worker(const char* name, std::size_t limit) : limit_(limit) {
    thread_ = StartQuietThread(name, [this] { Run(); });
    id_ = thread_.get_id();
}

Worker::~Worker() { Stop(); }

bool Worker::Post(Task task) {
    MutexLock lock(mutex_);
    if (stopping_ || tasks_.size() >= limit_) {
        return false;
    }
    tasks_.push_back(std::move(task));
    changed_.NotifyAll();
    return true;
}

void Worker::Stop() {
    {
        MutexLock lock(mutex_);
        stopping_ = true;
        changed_.NotifyAll();
    }
    if (thread_.joinable()) {
        thread_.join();
    }
}

void Worker::Run() {
    for (;;) {
        Task task;
        {
            MutexLock lock(mutex_);
            while (!stopping_ && tasks_.empty()) {
                changed_.Wait(mutex_);
            }
            if (stopping_) {
                return;
            }
            task = std::move(tasks_.front());
            tasks_.pop_front();
        }
        try {
            task();
        } catch (...) {
            LINK_LOG(kLogError, "an exception came out of a call into the application\n");
        }
    }
}

}  // namespace lumora_link
