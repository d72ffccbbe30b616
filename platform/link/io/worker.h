// A thread that runs calls into the application, in the order of posting.
#pragma once

#include <deque>
#include <functional>
#include <thread>

#include "base/mutex.h"

namespace lumora_link {

class Worker {
public:
    using Task = std::function<void()>;

    Worker(const char* name, std::size_t limit);
    ~Worker();
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;

    // False if the queue is full or the worker has been stopped.
    bool Post(Task task);
    // Waits for the running task, drops the waiting ones, and joins. Must not be called by a task.
    void Stop();
    bool IsCurrentThread() const { return std::this_thread::get_id() == mId; }

private:
    void Run();

    const std::size_t mLimit;
    lumora::Mutex mMutex;
    lumora::Condition mChanged;
    std::deque<Task> mTasks GUARDED_BY(mMutex);
    bool mStopping GUARDED_BY(mMutex) = false;
    std::thread mThread;
    std::thread::id mId;  // a copy, because other threads may read it while Stop joins
};

}  // namespace lumora_link
