"""A peer that shares no code with the module: both message formats, built and taken apart over PyBluez.

peer.py client ADDRESS    talks to a brick's servers on channel 16, then 1
peer.py server            waits for a brick on channel 16, then 1
peer.py mutants ADDRESS COUNT    sends damaged messages, and compares what a brick's readers make of each with its own
"""

import random
import struct
import sys
import time
from collections.abc import Callable
from typing import Any

from bluetooth import RFCOMM, BluetoothSocket

NAMED_TEXT, NAMED_BOOL, NAMED_DATA = 1, 3, 4
LARGEST = 500  # that the brick's readers allow for
CLASSIC_BOOL_SIZE = 32  # that a classic bool's reader receives


def named(text: bytes, sender: bytes = b"Robot1") -> bytes:
    return bytes([NAMED_TEXT]) + sender + b"\0" + b"id\0" + text + b"\0"


def named_bool(text: bytes) -> bytes:
    return bytes([NAMED_BOOL]) + b"Robot1\0id\0" + bytes([len(text) % 2])


def named_data(data: bytes, sender: bytes = b"Robot1") -> bytes:
    return bytes([NAMED_DATA]) + sender + b"\0id\0" + struct.pack("<I", len(data)) + data


def classic_payload(payload: bytes) -> bytes:
    rest = struct.pack("<HBBB", 1, 0x81, 0x9E, 4) + b"abc\0" + struct.pack("<H", len(payload)) + payload
    return struct.pack("<H", len(rest)) + rest


def classic(text: bytes) -> bytes:
    return classic_payload(text + b"\0")


def classic_bool(text: bytes) -> bytes:
    return classic_payload(bytes([len(text) % 2]))


# ---- What readers make of bytes; None: they fail ----------------------------------------------------------------------


def named_value(message: bytes, kind: int) -> bytes | None:
    sender, *rest = message[1:].split(b"\0", 2)
    return rest[1] if message[0] == kind and sender == b"Robot1" and len(rest) == 2 and rest[0] == b"id" else None


def read_named_text(message: bytes) -> bytes | None:
    value = named_value(message, NAMED_TEXT)
    return None if value is None else value[:-1]


def read_named_bool(message: bytes) -> bytes | None:
    value = named_value(message, NAMED_BOOL)
    return bytes([value[0] != 0]) if value else None


def read_named_data(message: bytes) -> bytes | None:
    value = named_value(message, NAMED_DATA) or b""
    return value[4:][: min(LARGEST, *struct.unpack("<I", value[:4]))] if len(value) > 4 else None


def classic_rest(message: bytes) -> bytes | None:
    """What follows the id: the payload's length and the payload."""
    message = message[1:] if message[0] == 0 else message
    size, rest = message[6:7], message[7:]
    if not size or size[0] > len(rest) or (rest[: size[0] - 1] if size[0] else rest) != b"abc":
        return None
    return rest[size[0] :]


def read_classic_text(message: bytes) -> bytes | None:
    rest = classic_rest(message)
    if rest is None or len(rest) < 2 or (size := struct.unpack("<H", rest[:2])[0]) > len(rest) - 2:
        return None
    return rest[2:][: size - 1] if size else rest[2:]


def read_classic_bool(message: bytes) -> bytes | None:
    rest = classic_rest(message[:CLASSIC_BOOL_SIZE])
    return bytes([rest[2] != 0]) if rest is not None and len(rest) > 2 else None


# The readers that the brick calls, in this order again and again.
KINDS: list[tuple[Callable[[bytes], bytes], Callable[[bytes], bytes | None]]] = [
    (named, read_named_text),
    (named_data, read_named_data),
    (named_bool, read_named_bool),
    (classic, read_classic_text),
    (classic_bool, read_classic_bool),
]


def mutate(message: bytes) -> bytes:
    for _ in range(random.choice([0, 1, 1, 1, 2, 3])):
        at = random.randrange(len(message))
        byte = bytes([random.choice([0, 1, 3, 4, 0xFF, random.randrange(256)])])
        message = random.choice(
            [
                message[:at] or b"\0",
                message[:at] + byte + message[at + 1 :],
                message[:at] + byte + message[at:],
                message[:at] + message[at + 1 :] or b"\0",
                message[:at] + message[at:] * 2,
            ]
        )[:900]
    return message


def send_mutants(link: Any, count: int) -> None:
    """Each is answered with what the brick's reader returned: "+" and the value, or "-" where it failed."""
    random.seed(count)
    taken = 0
    for number in range(count):
        build, read = KINDS[number % len(KINDS)]
        if random.random() < 0.1:
            build, _ = random.choice(KINDS)
        message = mutate(build(random.randbytes(random.choice([0, 1, 2, 20, 255, 256, 300]))))
        value = read(message)
        link.send(message)
        answer = link.recv(1024)
        expected = named_data(b"-" if value is None else b"+" + value, b"Robot2")
        assert answer == expected, (number, read.__name__, message, answer, expected)
        taken += value is not None
    assert count / 10 < taken < count * 9 / 10, "too many or too few of them are whole"


def expect(link: Any, message: bytes) -> None:
    received = link.recv(1024)
    assert received == message, (received, message)


def connect(address: str, channel: int) -> Any:
    for attempt in range(20):  # until the brick listens
        link = BluetoothSocket(RFCOMM)
        try:
            link.connect((address, channel))
            return link
        except OSError:
            link.close()
            time.sleep(0.5)
    sys.exit(f"no connection to channel {channel}")


def accept(server: Any) -> Any:
    link, _ = server.accept()
    return link


def listen(channel: int) -> Any:
    server = BluetoothSocket(RFCOMM)
    server.bind(("", channel))
    server.listen(1)
    return server


if sys.argv[1] == "mutants":
    link = connect(sys.argv[2], 16)
    send_mutants(link, int(sys.argv[3]))
    time.sleep(1)  # until the brick has seen that it was the last
elif sys.argv[1] == "client":
    link = connect(sys.argv[2], 16)
    link.send(named(b"Hi"))
    expect(link, named(b"Hello", b"Robot2"))
    link.close()
    time.sleep(2)  # until the brick listens again: Linux may miss a refusal and wait for 31 s
    link = connect(sys.argv[2], 1)
    link.send(classic(b"Hi"))
    expect(link, classic(b"Hello"))
else:
    servers = [listen(16), listen(1)]
    link = accept(servers[0])
    expect(link, named(b"Hi", b"Robot2"))
    link.send(named(b"Hi"))
    link = accept(servers[1])
    expect(link, classic(b"Hi"))
    link.send(classic(b"Hi"))
    time.sleep(1)
print("all well")
