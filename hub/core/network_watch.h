// Looks round in the network: which devices come, what they offer, and which leave.
#pragma once

#include <chrono>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "base/mutex.h"
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

    // Nodes that wait to be asked; at most mostNodes.
    std::size_t Waiting() const;

private:
    using Clock = std::chrono::steady_clock;

    // A node to be asked what it offers.
    struct Task {
        lumora_nodes::NodeEvent node;
        bool isCheck = false;
        int attempt = 0;
        Clock::time_point due;
    };
    struct Question {
        Task task;
        lumora_nodes::RemoteDevice device;
    };

    void OnEvent(lumora_nodes::NodeEvent event);
    bool IsWanted(const std::string& type) const;
    void Add(Task task) EXCLUDES(mMutex);
    bool IsWaiting(const Task& task) const REQUIRES(mMutex);
    std::size_t Count() const REQUIRES(mMutex) { return mTasks.size() + mSearched + mQuestions.size(); }
    void EndSearch() EXCLUDES(mMutex);
    void Hasten(const Task& task) REQUIRES(mMutex);
    void Again(Task task) EXCLUDES(mMutex);

    void RunSearches();
    std::vector<Task> TakeDue() REQUIRES(mMutex);
    void Search(const std::string& type, std::vector<Task> tasks);
    void RunQuestions();
    void Ask(Question question);

    const std::vector<std::string> mTypes;
    const std::size_t mMostNodes;
    const Events mEvents;

    mutable lumora::Mutex mMutex;
    lumora::Condition mChanged;
    std::vector<Task> mTasks GUARDED_BY(mMutex);
    std::size_t mSearched GUARDED_BY(mMutex) = 0;  // tasks that a search is under way for
    std::deque<Question> mQuestions GUARDED_BY(mMutex);
    bool mStop GUARDED_BY(mMutex) = false;

    std::unique_ptr<lumora_nodes::LinkNode> mNode;
    std::vector<std::thread> mThreads;
};

}  // namespace lumora_hub
