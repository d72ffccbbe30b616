#include "hub/core/network_watch.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <tuple>
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
// Others are asked meanwhile.
constexpr int ASKING_THREADS_OF_ADDRESS = 2;

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
    : mTypes(std::move(types)),
      mEvents(std::move(events)),
      mShares(mostNodes, ThreeQuarters(mostNodes)),
      mAskings(ASKING_THREADS, ASKING_THREADS_OF_ADDRESS) {
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
    if (!task.share) {
        task.share = mShares.Take(task.node.address);
    }
    if (!task.share) {
        Refuse(task);
        return;
    }
    mTasks.push_back(std::move(task));
    mChanged.NotifyAll();
}

void NetworkWatch::Refuse(const Task& task) {
    const char* const type = task.node.type.c_str();
    const char* const address = task.node.address.c_str();
    if (mShares.HasItsShare(task.node.address)) {
        ++mRefused;
        HUB_LOG_LIMITED(lumora::LOG_WARNING,
                        "A node of type \"%s\" at %s is not asked: too many others at its address are.\n",
                        type, address);
    } else {
        HUB_LOG_LIMITED(lumora::LOG_WARNING, "A node of type \"%s\" at %s is not asked: %zu others are.\n",
                        type, address, Waiting());
    }
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
        std::vector<Task> tasks;
        {
            const lumora::MutexLock lock(mMutex);
            while (!mStop && (tasks = TakeDue()).empty()) {
                mChanged.WaitUntil(mMutex, NextDue());
            }
            if (mStop) {
                return;
            }
        }
        const std::string type = tasks.front().node.type;
        Search(type, std::move(tasks));
    }
}

NetworkWatch::Clock::time_point NetworkWatch::NextDue() const {
    Clock::time_point next = Clock::time_point::max();
    for (const Task& task : mTasks) {
        next = std::min(next, task.due);
    }
    return next;
}

// A search takes up to a second if a node does not answer it, and finds one type. So the addresses take
// turns: a host with nodes of many types delays the others by one search each.
std::vector<NetworkWatch::Task> NetworkWatch::TakeDue() {
    const Clock::time_point now = Clock::now();
    const std::string last = mLastAddress;
    const auto turn = [&last](const Task& task) {
        return std::make_tuple(task.node.address <= last, std::cref(task.node.address), task.due);
    };
    const Task* next = nullptr;
    for (const Task& task : mTasks) {
        if (task.due <= now && (next == nullptr || turn(task) < turn(*next))) {
            next = &task;
        }
    }
    if (next == nullptr) {
        return {};
    }
    mLastAddress = next->node.address;
    const std::string type = next->node.type;
    const auto later = std::partition(mTasks.begin(), mTasks.end(), [&](const Task& task) {
        return task.due > now || task.node.type != type;
    });
    std::vector<Task> due(std::make_move_iterator(later), std::make_move_iterator(mTasks.end()));
    mTasks.erase(later, mTasks.end());
    return due;
}

// The platform asks only nodes that a search has found, and it searches for a type.
void NetworkWatch::Search(const std::string& type, std::vector<Task> tasks) {
    for (RemoteDevice& device : mNode->Find(type)) {
        const auto task = std::find_if(tasks.begin(), tasks.end(), [&](const Task& one) {
            return one.node.port == device.Port() && one.node.address == device.Address();
        });
        if (task != tasks.end()) {
            const lumora::MutexLock lock(mMutex);
            mQuestions.push_back({std::move(*task), std::move(device), {}});
            tasks.erase(task);
            mChanged.NotifyAll();
        }
    }
    for (Task& task : tasks) {
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
    while (std::optional<Question> question = NextQuestion()) {
        Ask(std::move(*question));
        const lumora::MutexLock lock(mMutex);
        mChanged.NotifyAll();  // another node at this address may be asked
    }
}

// Nothing at the end. Nodes that do not answer leave threads to the nodes of other addresses.
std::optional<NetworkWatch::Question> NetworkWatch::NextQuestion() {
    const lumora::MutexLock lock(mMutex);
    while (!mStop) {
        const auto next = std::find_if(
            mQuestions.begin(), mQuestions.end(),
            [this](const Question& question) { return mAskings.HasRoom(question.task.node.address); });
        if (next != mQuestions.end()) {
            Question question = std::move(*next);
            mQuestions.erase(next);
            question.thread = mAskings.Take(question.task.node.address);
            return question;
        }
        mChanged.Wait(mMutex);
    }
    return std::nullopt;
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
