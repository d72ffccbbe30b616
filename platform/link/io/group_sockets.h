// The sockets besides libcoap's: two receive from the multicast group, and one per interface sends.
//
// The group's socket is bound to the group's address, not to INADDR_ANY, so that it receives no unicast that
// belongs to another socket. SO_REUSEADDR lets every node of the host have such a socket. Each interface
// sends from its own socket, and answers to probes come back to that socket.
//
// Hellos come to a group socket of their own. Among many nodes they come all the time, and waking the thread
// for each would be most of what an idle node costs. They are then read together, a few times in a second.
// What needs an answer, or tells of an end, comes to the other group socket and wakes the thread at once,
// which reads the hellos that came before it.
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

    static constexpr Milliseconds READ_HELLOS_EVERY{100};

    bool Open();
    // Whether hellos are read together from now on. Until this is called each wakes the thread.
    void ReadHellosTogether(bool together);
    // When they are to be read. The caller wakes up for it and calls ReadHellos.
    TimePoint NextHellos() const { return mNextHellos; }
    void ReadHellos();
    // Joins and leaves the group until exactly these interfaces take part. False if one of them cannot be
    // used.
    bool Use(const std::vector<LocalInterface>& interfaces);
    void Send(const LocalInterface& via, const Endpoint& to, const CoapMessage& message);
    bool IsClogged() const;

private:
    struct Member {
        LocalInterface local;
        lumora::UniqueFd socket;
    };

    void Join(const LocalInterface& local);
    void Leave(unsigned index);
    void Membership(const LocalInterface& local, int option);
    bool OpenHellos();
    void ReadGroup();
    bool ReadFromGroup(int fd);
    void ReadAnswers(int fd);

    EventLoop& mLoop;
    const Listener mListener;
    lumora::UniqueFd mGroup;
    lumora::UniqueFd mHellos;  // none if the kernel refuses its filter: hellos then come to mGroup
    TimePoint mNextHellos = TimePoint::max();
    std::map<unsigned, Member> mMembers;  // by the interface's index
};

}  // namespace lumora_link
