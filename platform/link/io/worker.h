// A thread of its own for calls into the application, in order.
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

    // False where the queue is full or the worker has been stopped.
    bool Post(Task task);
    // Lets the running task end, drops the others and joins. Not to be called by a task.
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
    std::thread::id mId;  // stays readable for others while Stop joins
};

}  // namespace lumora_link
