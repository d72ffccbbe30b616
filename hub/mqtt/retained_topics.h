// What the broker shall keep: for each topic the last payload, until it is cleared.
#pragma once

#include <list>
#include <map>
#include <optional>
#include <string>

namespace lumora_hub {

// For one thread.
class RetainedTopics {
public:
    // Nothing is to be sent if the topic has this payload already.
    void Set(const std::string& topic, std::string payload);
    // While there is no connection this only forgets the topic. What the broker still has then is found and
    // cleared after the next connection.
    void Clear(const std::string& topic);
    bool Has(const std::string& topic) const { return mPayloads.count(topic) != 0; }

    // After a connection was made: all are to be sent. After one was lost: none can be.
    void Connected();
    void Lost();

    struct Message {
        std::string topic;
        std::string payload;  // empty: the broker forgets the topic
    };
    // What is to be sent next, in the order of the latest changes.
    std::optional<Message> Next();

private:
    void Wait(const std::string& topic);

    bool mIsConnected = false;
    std::map<std::string, std::string> mPayloads;
    // Topics, each once: a device that changes all the time must not fill the memory.
    std::list<std::string> mWaiting;
    std::map<std::string, std::list<std::string>::iterator> mPlaces;  // in mWaiting
};

}  // namespace lumora_hub
