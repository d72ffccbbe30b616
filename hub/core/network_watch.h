// Looks round in the network: which devices come, what they offer, and which leave.
#pragma once

#include <atomic>
#include <chrono>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "base/mutex.h"
#include "hub/core/quota.h"
#include "nodes/link_node.h"

namespace lumora_hub {

// The hub is itself a node that others see: devices notice when its host vanishes, and end its subscriptions.
class NetworkWatch {
public:
    // Called on threads of the watch.
    struct Events {
        // A device, or what a Check has found: then answers may be false.
        std::function<void(const lumora_nodes::FoundDevice& device)> onFound;
        // A node has left. It need not have been a device.
        std::function<void(const lumora_nodes::NodeEvent& node)> onLeft;
    };

    // Throws std::runtime_error if the network cannot be joined.
    NetworkWatch(std::vector<std::string> types, std::size_t mostNodes, Events events);
    ~NetworkWatch();
    NetworkWatch(const NetworkWatch&) = delete;
    NetworkWatch& operator=(const NetworkWatch&) = delete;

    // Looks whether the node is still there. Leads to a call of onFound or onLeft.
    void Check(const std::string& type, const std::string& address, int port);
    // Asks a device again what it offers. Leads to a call of onFound if it answers.
    void Refresh(const std::string& type, const std::string& address, int port);

    // Nodes that wait to be asked, or are asked now; at most mostNodes, and three quarters of them at one
    // address.
    std::size_t Waiting() const { return mShares.Taken(); }
    // How often a node was not asked because its address has its share of these.
    std::uint64_t Refused() const { return mRefused; }

private:
    using Clock = std::chrono::steady_clock;

    // A node to be asked what it offers.
    struct Task {
        lumora_nodes::NodeEvent node;
        bool isCheck = false;
        int attempt = 0;
        Clock::time_point due;
        Quota::Share share = {};  // of the nodes that wait
    };
    struct Question {
        Task task;
        lumora_nodes::RemoteDevice device;
        Quota::Share thread = {};
    };

    void OnEvent(lumora_nodes::NodeEvent event);
    bool IsWanted(const std::string& type) const;
    void Add(Task task) EXCLUDES(mMutex);
    void Refuse(const Task& task);
    bool IsWaiting(const Task& task) const REQUIRES(mMutex);
    void Hasten(const Task& task) REQUIRES(mMutex);
    void Again(Task task) EXCLUDES(mMutex);

    void RunSearches();
    Clock::time_point NextDue() const REQUIRES(mMutex);
    std::vector<Task> TakeDue() REQUIRES(mMutex);
    void Search(const std::string& type, std::vector<Task> tasks);
    void RunQuestions();
    std::optional<Question> NextQuestion() EXCLUDES(mMutex);
    void Ask(Question question);

    const std::vector<std::string> mTypes;
    const Events mEvents;
    Quota mShares;   // of the nodes that wait
    Quota mAskings;  // of the threads that ask
    std::atomic<std::uint64_t> mRefused{0};

    mutable lumora::Mutex mMutex;
    lumora::Condition mChanged;
    std::vector<Task> mTasks GUARDED_BY(mMutex);
    std::deque<Question> mQuestions GUARDED_BY(mMutex);
    std::string mLastAddress GUARDED_BY(mMutex);  // whose turn it was
    bool mStop GUARDED_BY(mMutex) = false;

    std::unique_ptr<lumora_nodes::LinkNode> mNode;
    std::vector<std::thread> mThreads;
};

}  // namespace lumora_hub
