#include "hub/core/network_watch.h"

#include <algorithm>
#include <array>
#include <map>
#include <utility>

#include "base/thread.h"
#include "hub/core/log.h"

namespace lumora_hub {

namespace {

using lumora_nodes::FoundDevice;
using lumora_nodes::NodeEvent;
using lumora_nodes::RemoteDevice;

const char NODE_TYPE[] = "lumora-hub";

// A node that does not answer holds a thread for up to eight seconds.
constexpr int ASKING_THREADS = 4;

// A device registers its services a moment after it has come. Nodes that are no devices never do, and are
// asked once a minute.
constexpr std::array<std::chrono::milliseconds, 6> PAUSES = {
    std::chrono::milliseconds(200),  std::chrono::milliseconds(500),  std::chrono::milliseconds(1000),
    std::chrono::milliseconds(2000), std::chrono::milliseconds(5000), std::chrono::milliseconds(60000)};

// One search may miss a node.
constexpr int SEARCHES_OF_A_CHECK = 2;
// About a quarter of an hour. A node that no search has found until then is gone.
constexpr int SEARCHES_OF_A_NODE = 20;

bool IsSame(const NodeEvent& one, const NodeEvent& other) {
    return one.port == other.port && one.address == other.address && one.type == other.type;
}

}  // namespace

NetworkWatch::NetworkWatch(std::vector<std::string> types, std::size_t mostNodes, Events events)
    : mTypes(std::move(types)), mMostNodes(mostNodes), mEvents(std::move(events)) {
    const lumora::AllSignalsBlocked blocked;
    mNode = std::make_unique<lumora_nodes::LinkNode>([this](NodeEvent event) { OnEvent(std::move(event)); },
                                                     NODE_TYPE);
    mThreads.push_back(lumora::StartThread("search", [this] { RunSearches(); }));
    for (int i = 0; i < ASKING_THREADS; ++i) {
        mThreads.push_back(lumora::StartThread("ask", [this] { RunQuestions(); }));
    }
}

// The node leaves first, which ends the requests that wait for an answer.
NetworkWatch::~NetworkWatch() {
    {
        const lumora::MutexLock lock(mMutex);
        mStop = true;
        mChanged.NotifyAll();
    }
    mNode->Leave();
    for (std::thread& thread : mThreads) {
        thread.join();
    }
}

void NetworkWatch::Check(const std::string& type, const std::string& address, int port) {
    Add({{true, address, port, type}, true, 0, Clock::now()});
}

void NetworkWatch::Refresh(const std::string& type, const std::string& address, int port) {
    Add({{true, address, port, type}, false, 0, Clock::now()});
}

std::size_t NetworkWatch::Waiting() const {
    const lumora::MutexLock lock(mMutex);
    return Count();
}

void NetworkWatch::OnEvent(NodeEvent event) {
    if (event.type.empty() || event.type == NODE_TYPE) {
        return;
    }
    if (event.added) {
        if (IsWanted(event.type)) {
            Add({std::move(event), false, 0, Clock::now()});
        }
        return;
    }
    {
        const lumora::MutexLock lock(mMutex);
        const auto isThat = [&](const Task& task) { return IsSame(task.node, event); };
        mTasks.erase(std::remove_if(mTasks.begin(), mTasks.end(), isThat), mTasks.end());
    }
    mEvents.onLeft(event);
}

bool NetworkWatch::IsWanted(const std::string& type) const {
    return mTypes.empty() || std::find(mTypes.begin(), mTypes.end(), type) != mTypes.end();
}

// Nodes that answer searches and no questions are served slowly, so what waits to be asked counts as well.
void NetworkWatch::Add(Task task) {
    const lumora::MutexLock lock(mMutex);
    if (IsWaiting(task)) {
        Hasten(task);
        return;
    }
    if (Count() >= mMostNodes) {
        HUB_LOG_LIMITED(lumora::LOG_WARNING, "A node of type \"%s\" at %s is not asked: %zu others are.\n",
                        task.node.type.c_str(), task.node.address.c_str(), Count());
        return;
    }
    mTasks.push_back(std::move(task));
    mChanged.NotifyAll();
}

bool NetworkWatch::IsWaiting(const Task& task) const {
    const auto isSame = [&](const Task& other) {
        return IsSame(other.node, task.node) && other.isCheck == task.isCheck;
    };
    return std::any_of(mTasks.begin(), mTasks.end(), isSame) ||
           std::any_of(mQuestions.begin(), mQuestions.end(),
                       [&](const Question& question) { return isSame(question.task); });
}

// A node that was away for long is looked for rarely. When an event tells that it is back, its turn is now.
void NetworkWatch::Hasten(const Task& task) {
    for (Task& other : mTasks) {
        if (IsSame(other.node, task.node) && other.isCheck == task.isCheck && task.due < other.due) {
            other.due = task.due;
            other.attempt = task.attempt;
            mChanged.NotifyAll();
        }
    }
}

void NetworkWatch::Again(Task task) {
    const std::size_t pause = std::min(static_cast<std::size_t>(task.attempt), PAUSES.size() - 1);
    ++task.attempt;
    task.due = Clock::now() + PAUSES[pause];
    Add(std::move(task));
}

// ---- The thread that searches

void NetworkWatch::RunSearches() {
    while (true) {
        std::map<std::string, std::vector<Task>> due;
        {
            const lumora::MutexLock lock(mMutex);
            std::vector<Task> tasks = TakeDue();
            while (!mStop && tasks.empty()) {
                Clock::time_point next = Clock::time_point::max();
                for (const Task& task : mTasks) {
                    next = std::min(next, task.due);
                }
                mChanged.WaitUntil(mMutex, next);
                tasks = TakeDue();
            }
            if (mStop) {
                return;
            }
            mSearched = tasks.size();
            for (Task& task : tasks) {
                due[task.node.type].push_back(std::move(task));
            }
        }
        for (auto& [type, tasks] : due) {
            Search(type, std::move(tasks));
        }
    }
}

std::vector<NetworkWatch::Task> NetworkWatch::TakeDue() {
    const Clock::time_point now = Clock::now();
    const auto later =
        std::partition(mTasks.begin(), mTasks.end(), [now](const Task& task) { return task.due <= now; });
    std::vector<Task> due(std::make_move_iterator(mTasks.begin()), std::make_move_iterator(later));
    mTasks.erase(mTasks.begin(), later);
    return due;
}

void NetworkWatch::EndSearch() {
    const lumora::MutexLock lock(mMutex);
    --mSearched;
}

// The platform asks only nodes that a search has found, and it searches for a type.
void NetworkWatch::Search(const std::string& type, std::vector<Task> tasks) {
    for (RemoteDevice& device : mNode->Find(type)) {
        const auto task = std::find_if(tasks.begin(), tasks.end(), [&](const Task& one) {
            return one.node.port == device.Port() && one.node.address == device.Address();
        });
        if (task != tasks.end()) {
            const lumora::MutexLock lock(mMutex);
            --mSearched;
            mQuestions.push_back({std::move(*task), std::move(device)});
            tasks.erase(task);
            mChanged.NotifyAll();
        }
    }
    for (Task& task : tasks) {
        EndSearch();
        if (task.isCheck && task.attempt + 1 >= SEARCHES_OF_A_CHECK) {
            mEvents.onLeft(task.node);
            // A busy device may have missed both searches, and no event tells that it is still there.
            task.isCheck = false;
            task.attempt = 0;
        }
        if (task.attempt < SEARCHES_OF_A_NODE) {
            Again(std::move(task));
        }
    }
}

// ---- The threads that ask

void NetworkWatch::RunQuestions() {
    while (true) {
        std::vector<Question> one;
        {
            const lumora::MutexLock lock(mMutex);
            while (!mStop && mQuestions.empty()) {
                mChanged.Wait(mMutex);
            }
            if (mStop) {
                return;
            }
            one.push_back(std::move(mQuestions.front()));
            mQuestions.pop_front();
        }
        Ask(std::move(one.front()));
    }
}

void NetworkWatch::Ask(Question question) {
    const FoundDevice found = lumora_nodes::Describe(question.device, question.task.node.type);
    if (found.answers || question.task.isCheck) {
        mEvents.onFound(found);
    }
    if (!found.answers && !question.task.isCheck) {
        Again(std::move(question.task));
    }
}

}  // namespace lumora_hub
