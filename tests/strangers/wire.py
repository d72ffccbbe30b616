"""The datagrams of the link platform, built byte by byte; see docs/wire.md."""

import dataclasses
import random
import re
import struct

GROUP = ("224.0.1.187", 5683)

CON, NON, ACK, RST = range(4)
GET, POST, PUT, DELETE = 1, 2, 3, 4
CONTENT, CHANGED = 0x45, 0x44

URI_PATH, CONTENT_FORMAT, URI_QUERY, BLOCK1, REQUESTER = 11, 12, 15, 27, 65000
LINK_FORMAT = b"\x28"
FIRST_OF_MORE_BLOCKS = b"\x0c"  # number 0, more follow, 256 bytes


def _extended(value):
    """Nibble and further bytes of a delta or a length."""
    if value < 13:
        return value, b""
    if value < 269:
        return 13, bytes([value - 13])
    return 14, struct.pack(">H", value - 269)


def encode(kind, code, message_id, token=b"", options=(), payload=b""):
    out = bytes([0x40 | kind << 4 | len(token), code]) + struct.pack(">H", message_id & 0xFFFF) + token
    previous = 0
    for number, value in options:
        delta, delta_bytes = _extended(number - previous)
        length, length_bytes = _extended(len(value))
        out += bytes([delta << 4 | length]) + delta_bytes + length_bytes + value
        previous = number
    return out + (b"\xff" + payload if payload else b"")


@dataclasses.dataclass
class Message:
    kind: int
    code: int
    message_id: int
    token: bytes
    options: list
    payload: bytes

    def path(self):
        return b"/".join(value for number, value in self.options if number == URI_PATH).decode()

    def query(self):
        return b"".join(value for number, value in self.options if number == URI_QUERY).decode(errors="replace")


def decode(datagram):
    """Decodes a datagram of the library. Other bytes raise IndexError or struct.error."""
    length = datagram[0] & 15
    kind, code, message_id = datagram[0] >> 4 & 3, datagram[1], struct.unpack(">H", datagram[2:4])[0]
    token, rest = datagram[4:4 + length], datagram[4 + length:]
    options, number = [], 0
    while rest and rest[0] != 0xFF:
        sizes = [rest[0] >> 4, rest[0] & 15]
        rest = rest[1:]
        for at, size in enumerate(sizes):
            if size == 13:
                sizes[at], rest = rest[0] + 13, rest[1:]
            elif size == 14:
                sizes[at], rest = struct.unpack(">H", rest[:2])[0] + 269, rest[2:]
        number += sizes[0]
        options.append((number, rest[:sizes[1]]))
        rest = rest[sizes[1]:]
    return Message(kind, code, message_id, token, options, rest[1:])


@dataclasses.dataclass(frozen=True)
class Node:
    """What a link says of a node."""

    address: str
    port: int
    id: int
    instance: int
    type: str = ""

    def link(self):
        kind = f';rt="{self.type}"' if self.type else ""
        return f'<coap://{self.address}:{self.port}/lumora>{kind};ep="{self.id:016x}";ins={self.instance}'.encode()


def node_of(link, address):
    """The node that a link describes, at the address that the datagram came from. None for other texts."""
    text = link.decode(errors="replace")
    port = re.search(r"<coap://[\d.]+:(\d+)/lumora>", text)
    node = re.search(r'ep="([0-9a-f]+)"', text)
    instance = re.search(r"ins=(\d+)", text)
    kind = re.search(r'rt="([^"]*)"', text)
    if not (port and node and instance):
        return None
    return Node(address, int(port[1]), int(node[1], 16), int(instance[1]), kind[1] if kind else "")


def path(*segments):
    return [(URI_PATH, segment.encode()) for segment in segments]


def hello(node, message_id):
    options = [*path("lumora", "hello"), (CONTENT_FORMAT, LINK_FORMAT)]
    return encode(NON, POST, message_id, b"", options, node.link())


def goodbye(node, message_id):
    options = [*path("lumora", "goodbye"), (CONTENT_FORMAT, LINK_FORMAT)]
    return encode(NON, POST, message_id, b"", options, node.link())


def requester(node, sequence=1, oldest_open=1, first_of_body=1, secret=b""):
    """The option that tells a device which node asks."""
    head = struct.pack(">QIH", node.id, node.instance, node.port)
    return (REQUESTER, head + struct.pack(">III", sequence, oldest_open, first_of_body) + secret)


def request(code, key, message_id, token, value=b"", options=()):
    """A request to a node's resource. The options follow the key in ascending order."""
    return encode(CON, code, message_id, token, [*path("lumora"), (URI_QUERY, key.encode()), *options], value)


def probe(device_type):
    query = [(URI_QUERY, f"rt={device_type}".encode())]
    return encode(NON, GET, random.getrandbits(16), random.randbytes(8), [*path(".well-known", "core"), *query])


def core(message_id, token):
    return encode(CON, GET, message_id, token, path(".well-known", "core"))
