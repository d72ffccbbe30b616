// The sockets beside libcoap's: one that hears the group, and one per interface that speaks.
//
// The group's socket is bound to the group's address and not to any address, so that it takes no
// unicast away from others; SO_REUSEADDR lets every node of the host have one. What is sent leaves
// from the interface's own socket, where answers to probes come back.
#pragma once

#include <functional>
#include <map>
#include <vector>

#include "base/unique_fd.h"
#include "platform/link/io/event_loop.h"
#include "platform/link/wire/coap_message.h"
#include "platform/link/wire/types.h"

namespace lumora_link {

class GroupSockets {
public:
    struct Listener {
        // interface is the index of the one that the datagram came in by.
        std::function<void(const CoapMessage&, const Endpoint& source, unsigned interface)> onGroupMessage;
        std::function<void(const CoapMessage&, const Endpoint& source)> onAnswer;
    };

    GroupSockets(EventLoop& loop, Listener listener);
    ~GroupSockets();
    GroupSockets(const GroupSockets&) = delete;
    GroupSockets& operator=(const GroupSockets&) = delete;

    bool Open();
    // Joins and leaves the group so that these are the interfaces that take part.
    // False if one of them could not be used.
    bool Use(const std::vector<LocalInterface>& interfaces);
    void Send(const LocalInterface& via, const Endpoint& to, const CoapMessage& message);

private:
    struct Member {
        LocalInterface local;
        lumora::UniqueFd socket;
    };

    void Join(const LocalInterface& local);
    void Leave(unsigned index);
    void Membership(const LocalInterface& local, int option);
    void ReadGroup();
    void ReadAnswers(int fd);

    EventLoop& mLoop;
    const Listener mListener;
    lumora::UniqueFd mGroup;
    std::map<unsigned, Member> mMembers;  // by the interface's index
};

}  // namespace lumora_link
