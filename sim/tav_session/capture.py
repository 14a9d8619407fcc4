"""Reads captures: what tshark and our dissector find in them, as events of bricks."""

import os
import re
import shutil
import subprocess
from collections.abc import Iterable, Iterator
from dataclasses import dataclass, field
from itertools import chain
from pathlib import Path
from tempfile import TemporaryDirectory
from typing import IO, Any
from xml.etree import ElementTree

from tav_air.process import Problem, die_with_parent

HERE = Path(__file__).resolve().parent
PLUGIN = "wireshark/plugins/tav.lua"  # where it is installed
NOBODY = 65534
SABM, UA, DM, DISC = 0x2F, 0x63, 0x0F, 0x43  # RFCOMM's frames, without their P/F bit
CONNECTED, DISCONNECTED, COMPLETE = 3, 5, 14  # HCI's events; the last one answers a command
CALLS = "simulated air, a frame for each call"  # what interfaces of its recordings are
NO_ADDRESS = "00:00:00:00:00:00"
# What HCI calls errors, as the errno that programs see.
HCI_ERRORS = {0x04: "EHOSTDOWN", 0x08: "ETIMEDOUT", 0x09: "EMLINK", 0x10: "EHOSTDOWN", 0x22: "ETIMEDOUT"}
KINDS = {1: "text", 3: "bool", 4: "data"}
COLUMNS = {
    "time": "frame.time_epoch",
    "direction": "frame.p2p_dir",
    "interface": "frame.interface_name",
    "description": "frame.interface_description",
    "comment": "frame.comment",
    "source": "bthci_acl.src.bd_addr",
    "source_name": "bthci_acl.src.name",
    "target": "bthci_acl.dst.bd_addr",
    "target_name": "bthci_acl.dst.name",
    "handle": "bthci_acl.chandle",
    "begun": "bthci_acl.connect_in",
    "dlci": "btrfcomm.dlci",
    "frame": "btrfcomm.frame_type",
    "event": "bthci_evt.code",
    "status": "bthci_evt.status",
    "reason": "bthci_evt.reason",
    "event_handle": "bthci_evt.connection_handle",
    "command_address": "bthci_cmd.bd_addr",
    "event_address": "bthci_evt.bd_addr",
    "event_name": "bthci_evt.remote_name",
    "own_name": "bthci_evt.device_name",
}
OURS = ("tav", "tav_classic")  # protocols
NO_XML = re.compile("\ufffe|\uffff".encode())  # which tshark writes; the bytes are there in hexadecimal, too
BLOCK = 1 << 16  # bytes that are read at once
WANTED = "btrfcomm.dlci > 1 or bthci_evt.code in {3, 5, 7, 14} or bthci_cmd.opcode == 0x0405 or frame.comment"


class Missing(Problem):
    """What reads captures is not installed."""


@dataclass
class Field:
    at: int  # from the beginning of what was sent or received
    data: bytes
    name: str
    value: str


@dataclass
class Message:
    """What the dissector found: a message, or a part of one."""

    classic: bool
    at: int
    size: int = 0
    kind: str = ""
    sender: bytes | None = None
    id: bytes | None = None
    value: bytes | None = None  # of a bool its byte
    value_at: int = 0
    length: int = 0  # that data, or what is classic, say that they have
    is_part: bool = False  # of a message that an earlier frame began
    fields: list[Field] = field(default_factory=list)
    findings: list[tuple[str, str]] = field(default_factory=list)  # damaged, odd, joined or cut; and in words

    def found(self, *kinds: str) -> list[str]:
        return [text for kind, text in self.findings if kind in kinds]


@dataclass(eq=False)
class Link:
    """A connection, as one brick sees it."""

    brick: str
    peer: str
    channel: int
    calls: bool  # this brick called the other
    key: str
    events: list["Event"] = field(default_factory=list)


@dataclass(eq=False)
class Event:
    """Something that a brick did, or that it noticed."""

    time: float
    brick: str
    what: str  # start, connect, linked, connected, accepted, failed, end, send, receive or note
    link: Link | None = None
    peer: str = ""
    channel: int = 0
    error: str = ""  # an errno's name
    text: str = ""
    data: bytes = b""
    asked: int = 0  # bytes that were to be sent or received, where that is known
    messages: list[Message] = field(default_factory=list)
    number: int = 0  # of those of its reader
    key: str = ""


@dataclass
class Session:
    events: list[Event] = field(default_factory=list)  # by time
    bricks: list[str] = field(default_factory=list)  # by name
    recorded: set[str] = field(default_factory=set)  # those of them whose captures were read
    frames: set[str] = field(default_factory=set)  # those whose captures hold the radio's frames, not what calls moved


# ---- tshark ---------------------------------------------------------------------------------------------------------


def find_dissector() -> Path | None:
    """Of a checkout, or installed beside this; else tshark may find it by itself."""
    libraries = HERE.parents[2]
    places = [HERE.parent.parent / "tools/wireshark/tav.lua", libraries / PLUGIN, *libraries.glob(f"*/{PLUGIN}")]
    return next((place for place in places if place.is_file()), None)


def quiet_environment(folder: str) -> dict[str, str]:
    """Without what is set for the user; and not a brick on the air."""
    return {name: value for name, value in os.environ.items() if name != "LD_PRELOAD"} | {"HOME": folder}


def run_tshark(file: Path | None, *options: str, folder: str) -> subprocess.Popen[bytes]:
    """Of a file, or of what is written to its stdin, packet by packet.

    Newer ones run no scripts for root, so they are run as nobody then, who gets what to read as open files.
    """
    script = []
    as_user: dict[str, Any] = {}
    if dissector := find_dissector():
        if os.geteuid() == 0:
            as_user = {"user": NOBODY, "group": NOBODY, "extra_groups": []}
        script = [f"-Xlua_script:{shutil.copyfile(dissector, Path(folder) / dissector.name)}"]
    channels = ["-d", "btrfcomm.dlci==4-31,tav", "-d", "btrfcomm.dlci==34-61,tav"]  # those that it does not know
    capture = file.open("rb") if file else None
    try:
        return subprocess.Popen(
            ["tshark", *script, *channels, "-n", "-r", "-", *([] if file else ["-l"]), "-Y", WANTED, *options],
            stdin=capture or subprocess.PIPE,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            env=quiet_environment(folder),
            preexec_fn=die_with_parent,
            **as_user,
        )
    finally:
        if capture:
            capture.close()


def start_tshark(file: Path | None, folder: str) -> tuple[subprocess.Popen[bytes], subprocess.Popen[bytes]]:
    """One that tells of frames, and one that tells of the messages in the same ones."""
    fields = [option for column in COLUMNS.values() for option in ("-e", column)]
    quick = [option for name in OURS for option in ("--disable-protocol", name)]  # most of the time is theirs
    try:
        table = run_tshark(file, "-T", "fields", *fields, *quick, folder=folder)
        tree = run_tshark(file, "-T", "pdml", "-J", " ".join(OURS), folder=folder)
    except FileNotFoundError as error:
        if error.filename != "tshark":
            raise
        raise Missing("captures are read by tshark; on Debian: apt-get install tshark") from None
    return table, tree


def finish(process: subprocess.Popen[bytes], file: Path) -> bool:
    """Whether it was read to its end; one that is cut, as that of a killed brick, is read as far as it goes."""
    assert process.stderr
    said = process.stderr.read().decode(errors="replace")
    status = process.wait()
    if re.search("is not a valid protocol|Unknown protocol|is neither a field nor a protocol", said):
        raise Missing("tshark does not know our messages; the package tavbt brings the dissector")
    if status and not re.search("cut short|appears to have been", said):
        lines = [line for line in said.splitlines() if not line.startswith("Running as user")]
        raise Problem(f"{file}: {lines[0] if lines else 'tshark failed'}")
    return status == 0


def read_rows(stream: IO[bytes]) -> Iterator[dict[str, str]]:
    for line in stream:
        values = line.decode(errors="replace").rstrip("\n").split("\t")
        yield dict(zip(COLUMNS, values))


def read_messages(stream: IO[bytes]) -> Iterator[list[Message]]:
    """Frame by frame, what the dissector found in it; that stands last in its packet, and only that is parsed."""
    rest = b""
    while block := os.read(stream.fileno(), BLOCK):
        *packets, rest = (rest + block).split(b"</packet>")
        for packet in packets:
            packet = NO_XML.sub("\N{REPLACEMENT CHARACTER}".encode(), packet)
            at = packet.find(b'<proto name="tav')
            tree = ElementTree.fromstring(b"<packet>" + (packet[at:] if at >= 0 else b"") + b"</packet>")
            yield [take_message(proto) for proto in tree if proto.get("name") in OURS]
    if b"</pdml>" not in rest:
        raise EOFError


def read_frames(table: IO[bytes], tree: IO[bytes]) -> Iterator[tuple[dict[str, str], list[Message]]]:
    return zip(read_rows(table), read_messages(tree))


def take_message(proto: ElementTree.Element) -> Message:
    message = Message(False, int(proto.get("pos", "0")), int(proto.get("size", "0")))
    for element in proto:
        name, _, rest = (element.get("name") or "").partition(".")
        if name == "tav" and element.get("value"):
            take_field(message, rest, element)
        for expert in element.iter("field"):
            if (kind := expert.get("name", "").partition(".")[2]) in ("damaged", "odd", "joined", "cut"):
                message.findings.append((kind, expert.get("showname", "")))
    return message


def take_field(message: Message, name: str, element: ElementTree.Element) -> None:
    data = bytes.fromhex(element.get("value", ""))
    at = int(element.get("pos", "0"))
    label, _, value = element.get("showname", "").partition(": ")
    message.fields.append(Field(at, data, label, value))
    if name == "length":
        message.classic = True
    elif name == "type":
        message.kind = KINDS.get(data[0], "")
    elif name == "sender" and data.endswith(b"\0"):
        message.sender = data[:-1]
    elif name == "id":
        message.id = data[:-1]
    elif name in ("size", "payload_length"):
        message.length = int.from_bytes(data, "little")
        if message.classic and not message.length:  # a text reader takes all that follows, if only nothing
            message.kind, message.value, message.value_at = "text", b"", at + len(data)
    elif name == "part":
        message.is_part = True
    elif name.startswith("value."):
        message.kind = name[len("value.") :]
        message.value, message.value_at = data, at


# ---- One capture ----------------------------------------------------------------------------------------------------


def last(text: str) -> int | None:
    """Of a number, or several; tshark writes some in hexadecimal."""
    return int(text.split(",")[-1], 0) if text else None


class Reader:
    """Turns the rows of a brick's capture into events. Peers are known by their addresses, for now."""

    def __init__(self, file: Path, name: str, description: str, names: dict[str, str]) -> None:
        self.key = name or str(file)
        self.names = names  # by address
        self.has_calls = description == CALLS
        is_brick = name and not re.match(r"(bluetooth|hci|usbmon)\d", name)
        self.own = name if is_brick else file.stem  # where frames are those of a radio, a better name may come
        self.address = ""
        self.links: dict[tuple[str, int], Link] = {}  # by handle and DLCI
        self.last_sent: dict[Link, Event] = {}
        self.events: list[Event] = []
        self.number = 0  # of the next one
        self.count = 0  # of links

    def add(self, row: dict[str, str], what: str, link: Link | None = None, **more: Any) -> Event:
        event = Event(float(row["time"]), self.own, what, link, **more, number=self.number)
        self.number += 1
        if link:
            event.peer, event.channel = link.peer, link.channel
            link.events.append(event)
        self.events.append(event)
        return event

    def take(self, row: dict[str, str], messages: list[Message]) -> None:
        comment = parse_comment(row["comment"])
        if last(row["event"]) == COMPLETE and row["event_address"]:
            if self.number and self.has_calls:  # another section, after one in which something happened
                self.add(row, "start")
            self.address = row["event_address"]
        elif row["event_address"] and row["event_name"]:
            self.names[row["event_address"]] = row["event_name"]
        if row["dlci"]:
            self.take_frame(row, messages, comment)
        elif row["command_address"]:
            self.add(row, "connect", peer=row["command_address"], channel=comment.channel)
        elif last(row["event"]) == CONNECTED and not last(row["status"]):
            self.add(row, "linked", peer=row["event_address"])
        elif last(row["event"]) == CONNECTED:
            error = comment.error or HCI_ERRORS.get(last(row["status"]) or 0, "EIO")
            self.add(row, "failed", peer=row["event_address"], channel=comment.channel, error=error)
        elif last(row["event"]) == DISCONNECTED:
            self.end_links(row)
        elif comment.text:
            self.add(row, "note", text=comment.text)

    def end_links(self, row: dict[str, str]) -> None:
        error = HCI_ERRORS.get(last(row["reason"]) or 0, "")
        for handle, dlci in [*self.links]:
            if last(handle) == last(row["event_handle"]):
                link = self.links[handle, dlci]
                if not any(event.what == "end" for event in link.events):
                    self.add(row, "end", link, error=error)

    def take_frame(self, row: dict[str, str], messages: list[Message], comment: "Comment") -> None:
        sent = row["direction"] == "0"
        own, peer = ("source", "target") if sent else ("target", "source")
        if row[own] and row[own] != NO_ADDRESS:
            self.address = row[own]
            for side in own, peer:
                if row[f"{side}_name"] and row[side] not in self.names:
                    self.names[row[side]] = row[f"{side}_name"]
        frame, dlci = last(row["frame"]), last(row["dlci"]) or 0
        key = row["handle"], dlci
        if frame == SABM:
            self.count += 1
            self.links[key] = Link(self.own, row[peer], dlci >> 1, sent, f"{self.key}/{self.count}")
            return
        link = self.links.get(key)
        if not link:
            self.count += 1
            link = self.links[key] = Link(self.own, row[peer], dlci >> 1, True, f"{self.key}/{self.count}")
        if frame == UA and not link.events:
            self.add(row, "connected" if link.calls else "accepted", link)
        elif frame == DM:
            if not link.events:
                self.add(row, "failed", link, error=comment.error or "ECONNREFUSED")
            elif not any(event.what == "end" for event in link.events):
                self.add(row, "end", link, error=comment.error)
        elif frame == DISC:
            self.add(row, "end", link, error=comment.error or ("" if sent else "ECONNRESET"))
        elif frame not in (SABM, UA):
            self.take_data(row, link, sent, messages, comment)

    def take_data(
        self, row: dict[str, str], link: Link, sent: bool, messages: list[Message], comment: "Comment"
    ) -> None:
        data = b"".join(field.data for message in messages for field in message.fields)
        if not data and not comment.text:
            return  # credits
        shift(messages)
        if sent and not self.has_calls and messages and messages[0].is_part and link in self.last_sent:
            begun = self.last_sent[link]
            begun.data += data
            begun.messages += messages
            first = begun.messages[0]
            first.value = (first.value or b"") + messages[0].fields[0].data
            return
        if sent and len(messages) > 1:
            join_text(messages, data)
        event = self.add(row, "send" if sent else "receive", link, data=data, messages=messages)
        event.error, event.asked = comment.error, comment.asked
        if sent:
            self.last_sent[link] = event


def shift(messages: list[Message]) -> None:
    """Places in a frame become places in what was sent or received."""
    start = messages[0].fields[0].at if messages and messages[0].fields else 0
    for message in messages:
        message.at -= start
        message.value_at -= start
        for one in message.fields:
            one.at -= start


def join_text(messages: list[Message], data: bytes) -> None:
    """What is sent at once is one message: a NUL in its text does not end that."""
    first = messages[0]
    if first.kind == "text" and not first.classic and first.value is not None:
        first.value = first.fields[-1].data = data[first.value_at :]
        first.findings = [(kind, text) for kind, text in first.findings if kind != "joined"]
        del messages[1:]


@dataclass
class Comment:
    text: str = ""
    error: str = ""
    channel: int = 0
    asked: int = 0


def parse_comment(text: str) -> Comment:
    """Of the air's recordings: "connect to channel 16: ECONNREFUSED, ...", "send: 5 of 19 bytes"."""
    error = re.search(r": (E[A-Z0-9]+),", text)
    channel = re.search(r"channel (\d+)", text)
    asked = re.search(r"(\d+) of (\d+) bytes", text)
    return Comment(text, error[1] if error else "", int(channel[1]) if channel else 0, int(asked[2]) if asked else 0)


def take_frame(
    row: dict[str, str], messages: list[Message], readers: dict[str, Reader], file: Path, names: dict[str, str]
) -> None:
    """By the reader of its brick."""
    name = row["interface"]
    reader = readers.get(name) or readers.setdefault(name, Reader(file, name, row["description"], names))
    reader.take(row, messages)


def read_capture(file: Path, names: dict[str, str], folder: str) -> list[Reader]:
    """Of one brick, or of several that mergecap joined."""
    readers: dict[str, Reader] = {}
    table, tree = start_tshark(file, folder)
    assert table.stdout and tree.stdout
    with table, tree:
        is_broken = False
        try:
            for row, messages in read_frames(table.stdout, tree.stdout):
                take_frame(row, messages, readers, file, names)
        except (EOFError, ElementTree.ParseError):
            is_broken = True
        for _ in chain(table.stdout, tree.stdout):  # else they would not end; one has more where a file grows
            pass
        are_read = [finish(table, file), finish(tree, file)]
        if is_broken and all(are_read):
            raise Problem(f"{file}: tshark did not show all messages")
    return [*readers.values()]


# ---- All of them ----------------------------------------------------------------------------------------------------


def is_recording(file: Path) -> bool:
    with file.open("rb") as stream:
        return CALLS.encode() in stream.read(1000)


def merge(files: list[Path], folder: str) -> list[Path]:
    """Recordings say whose they are, so they are read as one file: each run of tshark takes its time."""
    recordings = [file for file in files if is_recording(file)]
    merged = Path(folder) / "recordings"
    command = ["mergecap", "-w", str(merged), *map(str, recordings)]
    if len(recordings) < 2 or not shutil.which("mergecap"):
        return files
    if subprocess.run(command, capture_output=True, check=False, env=quiet_environment(folder)).returncode:
        return files  # one is cut short
    return [merged, *(file for file in files if file not in recordings)]


def read(files: Iterable[Path]) -> Session:
    names: dict[str, str] = {}
    return join(read_captures(files, names), names)


def read_captures(files: Iterable[Path], names: dict[str, str]) -> list[Reader]:
    with TemporaryDirectory(prefix="tav-") as folder:
        os.chmod(folder, 0o755)
        return [reader for file in merge([*files], folder) for reader in read_capture(file, names, folder)]


def join(readers: list[Reader], names: dict[str, str]) -> Session:
    """Also again, when they have read more."""
    session = Session()
    for reader in readers:
        if reader.address:
            names[reader.address] = reader.own if reader.has_calls else names.get(reader.address, reader.own)
            reader.own = names[reader.address]
    for position, reader in enumerate(readers):
        is_alone = all(other.key != reader.key for other in readers[:position])
        session.recorded.add(reader.own)
        if not reader.has_calls:
            session.frames.add(reader.own)
        for event in reader.events:
            event.key = f"{reader.key if is_alone else position}:{event.number}"  # the same when more is read later
            event.brick = reader.own
            event.peer = names.get(event.peer, event.peer)
            if event.link:
                event.link.brick = reader.own
                event.link.peer = names.get(event.link.peer, event.link.peer)
        session.events += reader.events
    session.events.sort(key=lambda event: event.time)  # stable: as they stand in their file
    people = {event.brick for event in session.events} | {event.peer for event in session.events} - {""}
    session.bricks = sorted(people.union(session.recorded), key=by_number)
    return session


def by_number(name: str) -> list[tuple[int, str]]:
    """Robot2 before Robot10."""
    return [(int(part), "") if part.isdecimal() else (0, part) for part in re.split(r"(\d+)", name)]
