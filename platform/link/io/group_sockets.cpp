#include "platform/link/io/group_sockets.h"

#include <linux/filter.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <optional>

#include "base/socket_option.h"
#include "platform/link/io/send_queue.h"
#include "platform/link/log.h"

namespace lumora_link {

namespace {

// Many nodes answer one probe at the same moment; the default buffer would drop answers. The kernel may grant
// less.
constexpr int RECEIVE_BUFFER = 1 << 20;
// Datagrams read before the loop looks at its other descriptors again. A burst must not starve those.
constexpr int READS_PER_TURN = 64;

sockaddr_in SocketAddressOf(const Endpoint& endpoint) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = endpoint.host;
    address.sin_port = htons(endpoint.port);
    return address;
}

lumora::UniqueFd BoundSocket(const Endpoint& endpoint, bool shared) {
    lumora::UniqueFd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const sockaddr_in address = SocketAddressOf(endpoint);
    const bool ready = fd && (!shared || lumora::SetSocketOption(fd.Get(), SOL_SOCKET, SO_REUSEADDR, 1)) &&
                       bind(fd.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    if (!ready) {
        LINK_LOG_LIMITED(LEVEL_WARNING, "no socket on %s: %s\n", EndpointText(endpoint).c_str(),
                         std::strerror(errno));
        return lumora::UniqueFd();
    }
    lumora::SetSocketOption(fd.Get(), SOL_SOCKET, SO_RCVBUF, RECEIVE_BUFFER);
    return fd;
}

struct Datagram {
    std::string bytes;
    Endpoint source;
    unsigned interface = 0;
};

unsigned InterfaceOf(msghdr& header) {
    for (cmsghdr* at = CMSG_FIRSTHDR(&header); at != nullptr; at = CMSG_NXTHDR(&header, at)) {
        if (at->cmsg_level == IPPROTO_IP && at->cmsg_type == IP_PKTINFO) {
            in_pktinfo info = {};
            std::memcpy(&info, CMSG_DATA(at), sizeof info);
            return static_cast<unsigned>(info.ipi_ifindex);
        }
    }
    return 0;
}

std::optional<Datagram> Receive(int fd) {
    std::array<char, 4096> buffer;
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(in_pktinfo))> control = {};
    sockaddr_in source = {};
    iovec part = {buffer.data(), buffer.size()};
    msghdr header = {};
    header.msg_name = &source;
    header.msg_namelen = sizeof source;
    header.msg_iov = &part;
    header.msg_iovlen = 1;
    // IP_PKTINFO: the kernel tells by which interface a multicast datagram came in.
    header.msg_control = control.data();
    header.msg_controllen = control.size();
    const ssize_t bytes = recvmsg(fd, &header, 0);
    // EAGAIN: nothing is left. EBADF: the socket was closed by an earlier task of this turn.
    if (bytes < 0) {
        // The kernel reports an ICMP error for an earlier datagram here, once. The socket stays usable, so
        // the caller gets an empty datagram and reads on.
        return errno == EAGAIN || errno == EBADF ? std::nullopt : std::make_optional<Datagram>();
    }
    Datagram datagram;
    datagram.bytes.assign(buffer.data(), static_cast<std::size_t>(bytes));
    datagram.source = {source.sin_addr.s_addr, ntohs(source.sin_port)};
    datagram.interface = InterfaceOf(header);
    return datagram;
}

// Lets in hellos only, or all else. Offset 0 is that of the UDP header, of 8 bytes. A hello of another shape,
// such as with a token, counts as something else and is read with it.
bool SetFilter(int fd, bool hellos) {
    constexpr std::uint32_t HEAD = 0x5002;  // NON without a token, POST
    constexpr std::array<std::uint32_t, 3> PATH = {0xb66c756d, 0x6f726105, 0x68656c6c};  // "lumora", "hell"
    const std::uint32_t whole = UINT32_MAX;
    std::array<sock_filter, 12> program = {{
        BPF_STMT(BPF_LD | BPF_H | BPF_ABS, 8),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, HEAD, 0, 9),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, 12),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, PATH[0], 0, 7),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, 16),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, PATH[1], 0, 5),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, 20),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, PATH[2], 0, 3),
        BPF_STMT(BPF_LD | BPF_B | BPF_ABS, 24),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, 'o', 0, 1),
        BPF_STMT(BPF_RET | BPF_K, hellos ? whole : 0),
        BPF_STMT(BPF_RET | BPF_K, hellos ? 0 : whole),
    }};
    const sock_fprog filter = {static_cast<unsigned short>(program.size()), program.data()};
    return lumora::SetSocketOption(fd, SOL_SOCKET, SO_ATTACH_FILTER, filter);
}

// Receives from the group. Each node of the host has such sockets.
lumora::UniqueFd GroupSocket() {
    lumora::UniqueFd fd = BoundSocket(MulticastGroup(), true);
    if (!fd || !lumora::SetSocketOption(fd.Get(), IPPROTO_IP, IP_PKTINFO, 1)) {
        return lumora::UniqueFd();
    }
    // Linux delivers a group's datagrams to every socket of the host if any program joined the group on any
    // interface. This option restricts the socket to its own memberships.
    lumora::SetSocketOption(fd.Get(), IPPROTO_IP, IP_MULTICAST_ALL, 0);
    return fd;
}

}  // namespace

GroupSockets::GroupSockets(EventLoop& loop, Listener listener)
    : mLoop(loop), mListener(std::move(listener)) {}

// Allocates nothing: a node must be able to end without memory.
GroupSockets::~GroupSockets() {
    while (!mMembers.empty()) {
        Leave(mMembers.begin()->first);
    }
    for (const lumora::UniqueFd* fd : {&mGroup, &mHellos}) {
        if (*fd) {
            mLoop.Unwatch(fd->Get());
        }
    }
}

bool GroupSockets::Open() {
    mGroup = GroupSocket();
    if (!mGroup) {
        return false;
    }
    mLoop.Watch(mGroup.Get(), [this] { ReadGroup(); });
    if (OpenHellos()) {
        mLoop.Watch(mHellos.Get(), [this] { ReadHellos(); });
    } else {
        mHellos = lumora::UniqueFd();
    }
    return true;
}

bool GroupSockets::OpenHellos() {
    mHellos = GroupSocket();
    return mHellos && SetFilter(mHellos.Get(), true) && SetFilter(mGroup.Get(), false);
}

void GroupSockets::ReadHellosTogether(bool together) {
    const bool wasTogether = mNextHellos != TimePoint::max();
    if (!mHellos || together == wasTogether) {
        return;
    }
    if (together) {
        mLoop.Unwatch(mHellos.Get());
        mNextHellos = Clock::now() + READ_HELLOS_EVERY;
    } else {
        mLoop.Watch(mHellos.Get(), [this] { ReadHellos(); });
        mNextHellos = TimePoint::max();
    }
}

void GroupSockets::ReadHellos() {
    const bool all = !mHellos || ReadFromGroup(mHellos.Get());
    if (mNextHellos != TimePoint::max()) {
        mNextHellos = Clock::now() + (all ? READ_HELLOS_EVERY : Milliseconds(0));
    }
}

bool GroupSockets::Use(const std::vector<LocalInterface>& interfaces) {
    std::map<unsigned, LocalInterface> wanted;
    for (const LocalInterface& local : interfaces) {
        wanted[local.index] = local;
    }
    // Collected first: Leave changes the map. An interface whose address has changed leaves and joins again.
    std::vector<unsigned> leaving;
    for (const auto& [index, member] : mMembers) {
        const auto at = wanted.find(index);
        if (at == wanted.end() || !(at->second == member.local)) {
            leaving.push_back(index);
        }
    }
    for (const unsigned index : leaving) {
        Leave(index);
    }
    for (const auto& [index, local] : wanted) {
        if (mMembers.count(index) == 0) {
            Join(local);
        }
    }
    return mMembers.size() == wanted.size();
}

void GroupSockets::Send(const LocalInterface& via, const Endpoint& to, const CoapMessage& message) {
    const auto member = mMembers.find(via.index);
    if (member == mMembers.end()) {
        return;
    }
    const std::string bytes = SerializeMessage(message);
    const sockaddr_in address = SocketAddressOf(to);
    const ssize_t sent = sendto(member->second.socket.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL,
                                reinterpret_cast<const sockaddr*>(&address), sizeof address);
    if (sent < 0) {
        LINK_LOG(LEVEL_DETAIL, "nothing sent to %s by %s: %s\n", EndpointText(to).c_str(), via.name.c_str(),
                 std::strerror(errno));
    }
}

bool GroupSockets::IsClogged() const {
    return std::any_of(mMembers.begin(), mMembers.end(),
                       [](const auto& member) { return IsHalfFull(member.second.socket.Get()); });
}

void GroupSockets::Join(const LocalInterface& local) {
    Member member;
    member.local = local;
    member.socket = BoundSocket({local.host, 0}, false);
    ip_mreqn out = {};
    out.imr_address.s_addr = local.host;
    out.imr_ifindex = static_cast<int>(local.index);
    // TTL 1 keeps multicast on this network. Unicast to configured peers is not affected and is routed.
    const bool ready = member.socket &&
                       lumora::SetSocketOption(member.socket.Get(), IPPROTO_IP, IP_MULTICAST_IF, out) &&
                       lumora::SetSocketOption(member.socket.Get(), IPPROTO_IP, IP_MULTICAST_TTL, 1) &&
                       lumora::SetSocketOption(member.socket.Get(), IPPROTO_IP, IP_MULTICAST_LOOP, 1);
    if (!ready) {
        LINK_LOG_LIMITED(LEVEL_WARNING, "interface %s cannot be used\n", local.name.c_str());
        return;
    }
    Membership(local, IP_ADD_MEMBERSHIP);
    const int fd = member.socket.Get();
    mLoop.Watch(fd, [this, fd] { ReadAnswers(fd); });
    mMembers.emplace(local.index, std::move(member));
    LINK_LOG(LEVEL_DETAIL, "uses %s (%s)\n", local.name.c_str(), HostText(local.host).c_str());
}

void GroupSockets::Leave(unsigned index) {
    const auto member = mMembers.find(index);
    mLoop.Unwatch(member->second.socket.Get());
    Membership(member->second.local, IP_DROP_MEMBERSHIP);
    mMembers.erase(member);
}

void GroupSockets::Membership(const LocalInterface& local, int option) {
    ip_mreqn request = {};
    request.imr_multiaddr.s_addr = MulticastGroup().host;
    request.imr_address.s_addr = local.host;
    request.imr_ifindex = static_cast<int>(local.index);
    // Leaving fails if the interface has gone; the kernel dropped the membership with it.
    const bool done = lumora::SetSocketOption(mGroup.Get(), IPPROTO_IP, option, request) &&
                      (!mHellos || lumora::SetSocketOption(mHellos.Get(), IPPROTO_IP, option, request));
    if (!done && option == IP_ADD_MEMBERSHIP) {
        LINK_LOG_LIMITED(LEVEL_WARNING, "cannot join the group on %s: %s\n", local.name.c_str(),
                         std::strerror(errno));
    }
}

void GroupSockets::ReadGroup() { ReadFromGroup(mGroup.Get()); }

// False if more may be left.
bool GroupSockets::ReadFromGroup(int fd) {
    for (int reads = 0; reads < READS_PER_TURN; ++reads) {
        const auto datagram = Receive(fd);
        if (!datagram) {
            return true;
        }
        const auto message = ParseMessage(datagram->bytes);
        if (!message) {
            continue;
        }
        if (fd == mGroup.Get()) {
            // Neither a goodbye nor a search must overtake the hello of the same node: a node that was killed
            // and started again would open its channel before this node knows that the former one is gone.
            ReadHellos();
        }
        mListener.onGroupMessage(*message, datagram->source, datagram->interface);
    }
    return false;
}

void GroupSockets::ReadAnswers(int fd) {
    for (int reads = 0; reads < READS_PER_TURN; ++reads) {
        const auto datagram = Receive(fd);
        if (!datagram) {
            return;
        }
        if (const auto message = ParseMessage(datagram->bytes)) {
            mListener.onAnswer(*message, datagram->source);
        }
    }
}

}  // namespace lumora_link
