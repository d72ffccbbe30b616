// One thread waits here for descriptors, for a point in time, and for work from other threads.
#pragma once

#include <functional>
#include <map>
#include <vector>

#include "base/mutex.h"
#include "base/unique_fd.h"
#include "platform/link/wire/types.h"

namespace lumora_link {

class EventLoop {
public:
    using Task = std::function<void()>;

    // False if the system refuses a descriptor.
    bool Open();

    // On the loop's own thread only.
    void Watch(int fd, Task onReadable);
    void Unwatch(int fd);
    void WakeAt(TimePoint deadline);
    // Waits once, then runs posted work first and the tasks of readable descriptors after it.
    void RunOnce();

    // From any thread. False once Shut was called; the task is then dropped.
    bool Post(Task task);
    // Ends the wait in progress, or the next one. Allocates nothing.
    void Wake();
    // Drops posted work and closes the descriptors. The loop must not be running any more.
    void Shut();

private:
    void RunPosted();
    void SignalWake() REQUIRES(mMutex);

    lumora::UniqueFd mEpoll;
    lumora::UniqueFd mWake;
    lumora::UniqueFd mTimer;
    std::map<int, Task> mWatched;
    TimePoint mArmed = TimePoint::max();

    lumora::Mutex mMutex;
    std::vector<Task> mPosted GUARDED_BY(mMutex);
    bool mShut GUARDED_BY(mMutex) = false;
};

}  // namespace lumora_link
