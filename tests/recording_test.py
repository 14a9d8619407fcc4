"""What bricks of the air write down of themselves, read back by tshark through tools/wireshark/tav.lua."""

import os
import re
import shutil
import subprocess
from collections.abc import Iterator
from dataclasses import dataclass
from pathlib import Path

import pytest
from tav_air import Air, sky

ROOT = Path(__file__).resolve().parent.parent
SCRIPT = ROOT / "tools" / "wireshark" / "tav.lua"
PYTHON = "/usr/bin/python3"  # Debian's knows Bluetooth
FIELDS = ["frame.time_epoch", "frame.interface_name", "hci_h4.direction", "bthci_acl.chandle", "btrfcomm.dlci"]
FIELDS += ["frame.comment", "_ws.col.Info"]


@dataclass
class Packet:
    time: str
    brick: str
    sent: bool
    link: str
    channel: int
    comment: str
    info: str


def show(*files: Path) -> list[Packet]:
    """All packets of recordings, joined by mergecap if they are several."""
    folder = files[0].parent
    file = files[0]
    if len(files) > 1:
        file = folder / "all.pcapng"
        subprocess.run(["mergecap", "-w", file, *files], check=True)
    # Newer releases run no scripts for root: there the script is where packages install it, or what it says is not seen.
    command = ["tshark", f"-Xlua_script:{shutil.copy(SCRIPT, folder)}", "-r", str(file), "-T", "fields"]
    command += ["-E", "separator=\x01", *(word for field in FIELDS for word in ("-e", field))]
    said = subprocess.run(command, env=dict(os.environ, HOME=str(folder)), capture_output=True, check=False)
    assert said.returncode == 0 and b"Lua" not in said.stderr and b"damaged" not in said.stderr, said
    packets = []
    for line in said.stdout.decode(errors="replace").replace("\\\\", "\\").splitlines():
        time, brick, direction, link, dlci, comment, info = line.split("\x01")
        sent = int(direction, 16) == 0
        packets.append(Packet(time, brick, sent, link, int(dlci or "0", 16) // 2, comment, info))
    return packets


def tell(packets: list[Packet]) -> list[str]:
    """What happened to connections, in a line each."""
    lines = [f"{packet.info} ({packet.comment})" if packet.comment else packet.info for packet in packets]
    return [" ".join(line.split()) for line in lines if not re.search(r"Read |L2CAP|\(RFCOMM|Response - Success", line)]


# Does what it is typed, a line at a time, and says how that ended.
PROGRAM = """
import os, socket, sys
def rfcomm(): return socket.socket(socket.AF_BLUETOOTH, socket.SOCK_STREAM, socket.BTPROTO_RFCOMM)
def listen(channel):
    server = rfcomm()
    server.bind(("00:00:00:00:00:00", channel))
    server.listen(5)
    return server
for line in sys.stdin:
    try:
        exec(line)
        print("done", flush=True)
    except OSError as error:
        print("failed", os.strerror(error.errno), flush=True)
"""
HI, YOU = rb"b'\1Robot1\0a\0Hi\0'", rb"b'\1Robot1\0b\0you\0'"
SAYS_HI, SAYS_YOU = 'text from "Robot1", id "a": "Hi"', 'text from "Robot1", id "b": "you"'
TO_2 = "('02:00:00:00:00:02', 16)"


class Robot:
    """A brick that does what it is told, and is written down."""

    def __init__(self, air: Air, name: str, **options: str) -> None:
        self.brick = air.brick(name, PYTHON, "-c", PROGRAM, terminal=False, **options)
        self.file = Path(str(air.record)) / f"{name}.pcapng"
        self.kill = self.brick.kill
        self.done = 0

    def do(self, line: str | bytes) -> str:
        self.brick.type(line if isinstance(line, bytes) else line.encode())
        self.brick.type("\n")
        self.done += 1
        self.brick.wait_until(lambda: len(self.answers()) >= self.done, "do it")
        return self.answers()[self.done - 1]

    def answers(self) -> list[str]:
        """Without what newer Pythons warn of."""
        return re.findall(r"^(done|failed .*)\n", self.brick.said, re.MULTILINE)


@pytest.fixture
def air(tmp_path: Path) -> Iterator[Air]:
    with Air(record=tmp_path / "session") as made:
        made.patience = 120
        yield made


def call(robot1: Robot, robot2: Robot) -> None:
    robot2.do("s = listen(16)")
    robot1.do(f"c = rfcomm(); c.connect({TO_2})")
    robot2.do("d = s.accept()[0]")


def test_what_happened_is_told_in_order(air: Air) -> None:
    robot2 = Robot(air, "Robot2")
    robot1 = Robot(air, "Robot1", faults="connect:4=ENETDOWN send:4=short:5")
    for channel, address in (5, 2), (16, 9):
        robot1.do(f"c = rfcomm(); c.connect(('02:00:00:00:00:0{address}', {channel}))")
    call(robot1, robot2)
    robot1.do(f"rfcomm().connect({TO_2})")
    for texts in [HI], [YOU, HI], [HI]:  # the second ones are joined, the last one is cut
        for text in texts:
            robot1.do(b"c.send(%s)" % text)
        robot2.do("d.recv(30)")
    robot1.do("c.close()")
    for _ in range(2):
        robot2.do("d.setblocking(False); d.recv(30)")
    robot2.do("d.send(b'x')")
    assert tell(show(robot1.file)) == [
        "Sent Create Connection (connect to channel 5)",
        "Rcvd Connect Complete",
        "Sent SABM Channel=5 (Unknown)",
        "Rcvd DM Channel=5 (connect to channel 5: ECONNREFUSED, Connection refused)",
        "Rcvd Disconnect Complete (close)",
        "Sent Create Connection (connect to channel 16)",
        "Rcvd Connect Complete (connect to channel 16: EHOSTDOWN, Host is down)",
        "Sent Create Connection (connect to channel 16)",
        "Rcvd Connect Complete",
        "Sent SABM Channel=16 (Unknown)",
        "Rcvd UA Channel=16",
        "Rcvd Connect Complete (connect to channel 16: ENETDOWN, Network is down)",
        f"Sent {SAYS_HI}",
        f"Sent {SAYS_YOU}",
        f"Sent {SAYS_HI}",
        "Sent text [no NUL ends the sender] (send: 5 of 13 bytes)",
        "Sent DISC Channel=16",
        "Rcvd Disconnect Complete (close)",
    ]
    assert tell(show(robot2.file)) == [
        "Rcvd Vendor-Specific (listen on channel 16)",
        "Rcvd Connect Complete",
        "Rcvd SABM Channel=16 (Unknown)",
        "Sent UA Channel=16",
        f"Rcvd {SAYS_HI}",
        f"Rcvd {SAYS_YOU} [13 bytes behind it, which a text reader takes into the text]; {SAYS_HI}",
        "Rcvd text [no NUL ends the sender]",
        "Rcvd DISC Channel=16 (end: ECONNRESET, Connection reset by peer)",
        "Rcvd UIH Channel=16 (recv: ECONNRESET, Connection reset by peer)",
        "Sent UIH Channel=16 (send: ENOTCONN, Transport endpoint is not connected)",
    ]


def test_a_link_that_is_lost(air: Air) -> None:
    robot2, robot1 = Robot(air, "Robot2"), Robot(air, "Robot1", faults="send:2=vanish")
    call(robot1, robot2)
    for text in HI, YOU:
        robot1.do(b"c.send(%s)" % text)
    robot2.do("d.recv(30)")
    assert robot2.do("d.recv(30)") == "failed Connection timed out"
    robot1.brick.back()
    assert tell(show(robot1.file))[-4:] == [
        "Rcvd Vendor-Specific (out of range)",
        f"Sent {SAYS_YOU}",
        "Rcvd Disconnect Complete (end: ETIMEDOUT, Connection timed out)",
        "Rcvd Vendor-Specific (in range)",
    ]
    assert tell(show(robot2.file))[-3:] == [
        f"Rcvd {SAYS_HI}",
        "Rcvd Disconnect Complete (end: ETIMEDOUT, Connection timed out)",
        "Rcvd UIH Channel=16 (recv: ETIMEDOUT, Connection timed out)",
    ]


def test_runs_of_a_brick_and_bricks_are_joined(air: Air) -> None:
    """One that is killed, that runs again, and that runs two programs, one of which forks, at the same time."""
    robot2, robot1 = Robot(air, "Robot2"), Robot(air, "Robot1")
    call(robot1, robot2)
    robot1.do(b"c.send(%s)" % HI)
    robot1.brick.kill()
    robot1 = Robot(air, "Robot1")
    robot2.do("t = listen(17)")
    robot1.do(f"c = rfcomm(); c.connect({TO_2})")
    other = Robot(air, "Robot1")  # the second of the two that are recorded at the same time
    other.do("c = rfcomm(); c.connect(('02:00:00:00:00:02', 17))")
    for robot in robot1, other, robot1:
        robot.do(b"c.send(%s)" % YOU)
    robot1.do("p = os.fork(); p or (rfcomm().connect_ex(('02:00:00:00:00:02', 5)), os._exit(0)); os.waitpid(p, 0)")
    packets = show(robot2.file, robot1.file)
    links: dict[str, set[int]] = {}
    for packet in packets:
        if packet.brick == "Robot1" and packet.channel:
            links.setdefault(packet.link, set()).add(packet.channel)
    assert sorted(tuple(channels) for channels in links.values()) == [(5,), (16,), (17,)], links
    # Each section is another adapter to newer releases of tshark, which would lose connections of before.
    assert robot1.file.read_bytes().count(b"\n\r\r\n") == 2
    sent = [(packet.brick, packet.channel, packet.info) for packet in packets if "from" in packet.info]
    assert sent == [("Robot1", 16, f"Sent {text}") for text in (SAYS_HI, SAYS_YOU, SAYS_YOU)]


def test_a_server_that_forks(air: Air) -> None:
    """What it closes is its child's, under a handle that the next connection does not get."""
    robot2, robot1 = Robot(air, "Robot2"), Robot(air, "Robot1")
    call(robot1, robot2)
    robot2.do(b"p = os.fork(); p or (d.recv(1), d.send(%s), d.close(), os._exit(0)); d.close()" % HI)
    robot2.do("t = listen(17)")
    robot1.do("e = rfcomm(); e.connect(('02:00:00:00:00:02', 17))")
    robot2.do("e = t.accept()[0]")
    robot1.do("c.send(b'x'); c.recv(30)")
    robot2.do("os.waitpid(p, 0)")
    robot1.do("e.send(b'x')")
    robot2.do("e.recv(30); e.close()")
    packets = show(robot2.file)
    links = {packet.link: packet.channel for packet in packets if packet.channel}
    assert sorted(links.values()) == [16, 17]
    assert all(packet.channel in (0, links[packet.link]) for packet in packets if packet.link)
    assert [line for line in tell(packets) if re.search("text from|close|UIH", line)] == [
        f"Sent {SAYS_HI}",
        "Rcvd Disconnect Complete (close)",
        "Rcvd UIH Channel=17",
        "Rcvd Disconnect Complete (close)",
    ]


@pytest.mark.parametrize("is_silent", [False, True])
def test_recorded_anew(air: Air, is_silent: bool) -> None:
    """When the files were deleted; with the connection that there is, also when the brick is out of range then."""
    robot2, robot1 = Robot(air, "Robot2"), Robot(air, "Robot1")
    call(robot1, robot2)
    robot1.do(b"c.send(%s)" % HI)
    if is_silent:
        robot1.brick.out_of_range()
    shutil.rmtree(robot1.file.parent)
    robot1.file.parent.mkdir()
    (seen,) = (seen for seen in sky.look(air.name) if seen.name == "Robot1")
    assert sky.record(air.name, seen, robot1.file) == "" and seen.recording == str(robot1.file)
    if is_silent:
        robot1.brick.back()
    robot1.do(b"c.send(%s)" % YOU)
    robot1.do("c.close()")
    assert [line for line in tell(show(robot1.file)) if "Vendor" not in line] == [
        "Rcvd Connect Complete",
        "Sent SABM Channel=16 (Unknown)",
        "Rcvd UA Channel=16",
        f"Sent {SAYS_YOU}",
        "Sent DISC Channel=16",
        "Rcvd Disconnect Complete (close)",
    ]


def test_connections_are_told_apart(air: Air) -> None:
    """Also two between the same bricks, of which each called the other, when long messages take turns."""
    robot2, robot1 = Robot(air, "Robot2"), Robot(air, "Robot1")
    call(robot1, robot2)
    robot1.do("s = listen(16)")
    robot2.do("e = rfcomm(); e.connect(('02:00:00:00:00:01', 16))")
    robot1.do("f = s.accept()[0]")
    for part in rb"b'\1A\0a\0' + b'x' * 150", rb"b'the end\0'":
        for connection in b"c", b"f":
            robot1.do(b"%s.send(%s)" % (connection, part))
    begun = [re.findall(r"begun in frame (\d+)", packet.info) for packet in show(robot1.file) if packet.sent]
    assert [len(frames) for frames in begun[-4:]] == [0, 0, 1, 1] and begun[-2] != begun[-1]


def test_many_messages_are_all_there(air: Air) -> None:
    """They are not written one by one then, and some when the program ends; none before it was sent."""
    robot2, robot1 = Robot(air, "Robot2"), Robot(air, "Robot1")
    call(robot1, robot2)
    robot1.do("import ctypes; leave = ctypes.CDLL(None).exit")
    robot2.brick.type("for _ in range(2000): d.send(d.recv(30))\n")
    robot1.brick.type(rb"for i in range(2000): c.send(b'\3A\0%d\0\1' % i), c.recv(30), i < 1999 or leave(0)" + b"\n")
    robot1.brick.wait()
    robot2.brick.stop()
    times = []
    for robot in robot1, robot2:
        packets = [packet for packet in show(robot.file) if packet.info.endswith(": true")]
        assert [re.findall(r'"(\d+)"', packet.info)[0] for packet in packets] == [str(i // 2) for i in range(4000)]
        assert [packet.sent == (robot == robot1) for packet in packets] == [True, False] * 2000
        assert packets == sorted(packets, key=lambda packet: packet.time)
        times.append([packet.time for packet in packets])
    assert all(sent <= received for sent, received in zip(times[0][::2], times[1][::2]))


@pytest.mark.parametrize("name", ["../up/.", "-Xlua_script:x", "<b>\x1b[2J\u202e&amp;", "\udcff\udce0", "x" * 248])
def test_any_name_is_written(air: Air, name: str) -> None:
    brick = Robot(air, name)
    brick.do("listen(16)")
    brick.kill()
    files = list(Path(str(air.record)).iterdir())
    assert [re.sub("[A-Za-z0-9_]", "", file.name) for file in files] == ["."]
    assert show(*files)[-1].comment == "listen on channel 16"
