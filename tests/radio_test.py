"""The lab's radio as bricks meet it: HCI over H4 on its sockets, faults on its stdin, times a hundredth of the real ones."""

import socket
import struct
import subprocess
import sys
import time
from collections.abc import Iterator
from pathlib import Path

import pytest

RADIO = Path(__file__).resolve().parent.parent / "lab" / "radio.py"
SPEED = 100
COMMAND, ACL, EVENT = 1, 2, 4
INQUIRY, CREATE, DISCONNECT, ACCEPT, REJECT, NAME, RESET, SCAN = 0x401, 0x405, 0x406, 0x409, 0x40A, 0x419, 0xC03, 0xC1A
INQUIRY_OVER, FOUND, CONNECTED, REQUESTED, DISCONNECTED, NAMED = 1, 2, 3, 4, 5, 7
COMPLETE, STATUS, SENT = 0x0E, 0x0F, 0x13


def address(number: int) -> bytes:
    return bytes([number, 0, 0, 0, 0, 2])


class Host:
    """What runs behind a controller: here, a test."""

    def __init__(self, path: Path) -> None:
        self.socket = socket.socket(socket.AF_UNIX)
        self.socket.settimeout(10)
        self.socket.connect(str(path))

    def take(self, size: int) -> bytes:
        data = b""
        while len(data) < size:
            part = self.socket.recv(size - len(data))
            if not part:
                raise EOFError
            data += part
        return data

    def packet(self) -> tuple[int, int, bytes]:
        """Type, event code or handle, and the rest of the next packet."""
        if self.take(1)[0] == EVENT:
            code, size = self.take(2)
            return EVENT, code, self.take(size)
        handle, size = struct.unpack("<HH", self.take(4))
        return ACL, handle & 0xFFF, self.take(size)

    def wait(self, kind: int, code: int | None = None) -> bytes:
        """The next packet of this kind, and of this event code or handle; others are passed over."""
        while True:
            found, number, rest = self.packet()
            if found == kind and code in (None, number):
                return rest

    def send(self, opcode: int, parameters: bytes = b"") -> None:
        self.socket.sendall(struct.pack("<BHB", COMMAND, opcode, len(parameters)) + parameters)

    def ask(self, opcode: int, parameters: bytes = b"") -> int:
        """The status that a command is answered with at once."""
        self.send(opcode, parameters)
        while True:
            _, code, rest = self.packet()
            if code == COMPLETE and rest[1:3] == struct.pack("<H", opcode):
                return rest[3]
            if code == STATUS and rest[2:4] == struct.pack("<H", opcode):
                return rest[0]

    def say(self, handle: int, data: bytes) -> None:
        self.socket.sendall(struct.pack("<BHH", ACL, handle, len(data)) + data)

    def page(self, whom: bytes) -> None:
        self.send(CREATE, whom + bytes(7))

    def connected(self) -> tuple[int, int]:
        """Status and handle of the connection that is complete now."""
        status, handle = struct.unpack_from("<BH", self.wait(EVENT, CONNECTED))
        return status, handle

    def listens(self) -> None:
        """Reset and visible."""
        assert self.ask(RESET) == 0 and self.ask(SCAN, b"\3") == 0


class Radio:
    """The radio with three bricks, of which Robot3 is off, and a bare device, Lamp."""

    def __init__(self, folder: Path) -> None:
        bricks = [f"Robot{number}=02:00:00:00:00:0{number}" for number in (1, 2, 3)]
        self.folder = folder
        self.process = subprocess.Popen(
            [sys.executable, RADIO, "--speed", str(SPEED), folder, *bricks],
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            text=True,
            bufsize=1,
        )
        assert self.line() == "ready"
        assert self.order("device Lamp 02:00:00:00:00:21") == "ok"
        self.one, self.two = (Host(folder / f"Robot{number}") for number in (1, 2))
        self.one.listens()
        self.two.listens()

    def line(self) -> str:
        assert self.process.stdout
        return self.process.stdout.readline().rstrip()

    def order(self, line: str) -> str:
        assert self.process.stdin
        self.process.stdin.write(line + "\n")
        return self.line()

    def link(self) -> tuple[int, int]:
        """Connects Robot1 with Robot2: the handles of both."""
        return self.connect(self.one, 1)

    def connect(self, caller: Host, number: int) -> tuple[int, int]:
        caller.page(address(2))
        assert self.two.wait(EVENT, REQUESTED)[:6] == address(number)
        self.two.send(ACCEPT, address(number) + b"\1")
        (status, theirs), (accepted, ours) = self.two.connected(), caller.connected()
        assert status == accepted == 0
        return ours, theirs


@pytest.fixture
def air(tmp_path: Path) -> Iterator[Radio]:
    air = Radio(tmp_path)
    yield air
    assert air.process.poll() is None, "the radio died"
    air.process.communicate()
    assert air.process.returncode == 0


def test_inquiry(air: Radio) -> None:
    started = time.monotonic()
    assert air.one.ask(INQUIRY, b"\x33\x8b\x9e\x08\0") == 0
    found = {air.one.wait(EVENT, FOUND)[1:7] for _ in range(2)}
    air.one.wait(EVENT, INQUIRY_OVER)
    assert found == {address(2), address(0x21)}
    assert time.monotonic() - started >= 10.24 / SPEED
    air.order("out Lamp")
    assert air.two.ask(SCAN, b"\2") == 0  # pages only
    air.one.ask(INQUIRY, b"\x33\x8b\x9e\x08\0")
    assert [code for _, code, _ in (air.one.packet(),)] == [INQUIRY_OVER]


@pytest.mark.parametrize(
    "orders, name, status", [([], b"Lamp", 0), (["nameless Lamp"], b"", 4), (["out Lamp"], b"", 4)]
)
def test_name(air: Radio, orders: list[str], name: bytes, status: int) -> None:
    for order in orders:
        assert air.order(order) == "ok"
    assert air.one.ask(NAME, address(0x21) + bytes(4)) == 0
    answer = air.one.wait(EVENT, NAMED)
    assert (answer[0], answer[7:].rstrip(b"\0")) == (status, name)


@pytest.mark.parametrize(
    "whom, orders, scan, reason, status",
    [
        (2, ["refuse Robot2"], 3, None, 0x0D),
        (2, ["refuse Robot2", "accept Robot2"], 3, 0x0F, 0x0F),
        (2, [], 3, None, 0x10),  # its host never answers
        (2, [], 1, None, 0x04),  # it does not look for pages
        (2, ["out Robot2"], 3, None, 0x04),
        (0x21, [], 3, None, 0x04),  # a bare device
        (0x99, [], 3, None, 0x04),
    ],
)
def test_no_connection(air: Radio, whom: int, orders: list[str], scan: int, reason: int | None, status: int) -> None:
    air.two.ask(SCAN, bytes([scan]))
    for order in orders:
        assert air.order(order) == "ok"
    started = time.monotonic()
    air.one.page(address(whom))
    if reason is not None:
        air.two.wait(EVENT, REQUESTED)
        air.two.send(REJECT, address(1) + bytes([reason]))
    assert air.one.connected()[0] == status
    assert status != 0x04 or time.monotonic() - started >= 5.12 / SPEED
    assert air.one.ask(DISCONNECT, struct.pack("<HB", 1, 0x13)) == 0x02  # there is no link


def test_data_and_disconnect(air: Radio) -> None:
    air.connect(Host(air.folder / "Robot3"), 3)
    ours, theirs = air.link()
    assert ours != theirs
    for sender, handle, receiver, other in (air.one, ours, air.two, theirs), (air.two, theirs, air.one, ours):
        for size in 0, 1, 255:
            sender.say(handle, bytes(range(256))[:size] * 4)
            assert receiver.wait(ACL, other) == bytes(range(256))[:size] * 4
            assert sender.wait(EVENT, SENT) == struct.pack("<BHH", 1, handle, 1)
    air.one.page(address(2))
    assert air.one.wait(EVENT, STATUS)[0] == 0x0B  # a second link
    packet = struct.pack("<BHH", ACL, ours, 5) + b"parts"
    for part in packet[:3], packet[3:6], packet[6:]:
        air.one.socket.sendall(part)
        for _ in range(2):  # when the second is answered, the radio has taken what came before
            assert air.order("back Lamp") == "ok"
    assert air.two.wait(ACL, theirs) == b"parts"
    assert air.one.ask(DISCONNECT, struct.pack("<HB", ours, 0x13)) == 0
    assert air.one.wait(EVENT, DISCONNECTED) == struct.pack("<BHB", 0, ours, 0x16)
    assert air.two.wait(EVENT, DISCONNECTED) == struct.pack("<BHB", 0, theirs, 0x13)
    assert air.link() != (ours, theirs)  # handles are not soon used again


def test_out_of_range(air: Radio) -> None:
    ours, theirs = air.link()
    assert air.order("out Robot2") == "ok"
    air.one.say(ours, b"held")
    assert air.order("back Robot2") == "ok"
    assert air.two.wait(ACL, theirs) == b"held"
    started = time.monotonic()
    assert air.order("out Robot1") == "ok"
    assert air.one.wait(EVENT, DISCONNECTED)[3] == 0x08 and air.two.wait(EVENT, DISCONNECTED)[3] == 0x08
    assert time.monotonic() - started >= 20 / SPEED


def test_slow_link(air: Radio) -> None:
    ours, theirs = air.link()
    assert air.order("slow Robot2 100") == "ok"  # 10000 bytes a second at this speed
    started = time.monotonic()
    for _ in range(2):
        air.one.say(ours, bytes(1000))
    assert [len(air.two.wait(ACL, theirs)) for _ in range(2)] == [1000, 1000]
    assert time.monotonic() - started >= 0.2


@pytest.mark.parametrize(
    "packets",
    [
        b"\0",
        b"\xff" * 64,
        b"\4\1\0",  # an event, from a host
        b"\1\3\x0c",  # a command that never ends
        b"\2\xff\x0f\xff\xff",  # data for no link, and less than it says
    ],
)
def test_hostile_bytes(air: Radio, packets: bytes) -> None:
    ours, theirs = air.link()
    air.two.socket.sendall(packets)
    air.two.socket.close()  # to its peer, as when its power fails
    air.one.say(ours, b"anybody?")
    assert air.one.wait(EVENT, DISCONNECTED)[3] == 0x08
    again = Host(air.folder / "Robot2")
    again.listens()


def test_hostile_commands(air: Radio) -> None:
    for opcode, parameters, status in (
        (CREATE, b"", 0x12),
        (CREATE, bytes(200), 0x12),
        (DISCONNECT, b"\xff\x0f\x13", 0x02),
        (0x041B, b"\1", 0x12),
        (0xFFFF, b"\0" * 255, 0x01),
        (SCAN, b"", 0x12),
    ):
        assert air.one.ask(opcode, parameters) == status, hex(opcode)
    air.one.say(0xFFF, b"for no link")
    assert air.one.ask(SCAN, b"\3") == 0
    second = Host(air.folder / "Robot1")  # a controller has one host
    with pytest.raises((EOFError, ConnectionResetError)):
        second.take(1)
    for line in "", "fly Robot1", "out", "out Nobody", "slow Lamp fast", "device Lamp 02:00:00:00:00:22", "out 'Lamp":
        assert air.order(line).startswith("error: "), line


def test_trace(air: Radio, tmp_path: Path) -> None:
    folder = tmp_path / "with a blank"
    folder.mkdir()
    assert air.order(f"trace '{folder}'") == "ok"
    assert air.one.ask(SCAN, b"\3") == 0
    capture = (folder / "Robot1.pcapng").read_bytes()
    packets, position = [], 0
    while position < len(capture):
        kind, size = struct.unpack_from("<II", capture, position)
        if kind == 6:
            length = struct.unpack_from("<I", capture, position + 20)[0]
            packets.append(capture[position + 28 : position + 28 + length])
        position += size
        assert capture[position - 4 : position] == struct.pack("<I", size)
    assert packets == [b"\0\0\0\0\1\x1a\x0c\1\3", b"\0\0\0\1\4\x0e\4\1\x1a\x0c\0"]
    assert air.order(f"trace '{folder}/none'").startswith("error: ")
