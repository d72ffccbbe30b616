// The sockets besides libcoap's: one receives from the multicast group, and one per interface sends.
//
// The group's socket is bound to the group's address, not to INADDR_ANY, so that it receives no unicast that
// belongs to another socket. SO_REUSEADDR lets every node of the host have such a socket. Each interface
// sends from its own socket, and answers to probes come back to that socket.
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
        // interface: the index of the interface that received the datagram.
        std::function<void(const CoapMessage&, const Endpoint& source, unsigned interface)> onGroupMessage;
        std::function<void(const CoapMessage&, const Endpoint& source)> onAnswer;
    };

    GroupSockets(EventLoop& loop, Listener listener);
    ~GroupSockets();
    GroupSockets(const GroupSockets&) = delete;
    GroupSockets& operator=(const GroupSockets&) = delete;

    bool Open();
    // Joins and leaves the group until exactly these interfaces take part. False if one of them cannot be
    // used.
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
