"""Who is on an air, and what they are told: bricks with their channels and links, as the kernel and they themselves say."""

import os
import re
import socket
import struct
from collections.abc import Iterator
from contextlib import suppress
from dataclasses import dataclass, field
from pathlib import Path

ADDRESS = r"(?:[0-9A-F]{2}:){5}[0-9A-F]{2}"
ENTRY = re.compile(
    rf" (0[13]) +\d+ @tav-air/([^/\n]+)/({ADDRESS})([^\n]*)$", re.M
)  # of /proc/net/unix, but what waits to be accepted: state, air, whose
CONNECTED = "03"
ANSWER_TIME = 2.0  # s, for what takes a moment unless a program is stopped
STRANGERS_TIME = 0.5  # s, for bricks of other users
LARGEST = 65536


@dataclass
class Link:
    """A connection, as who called has it."""

    peer: str  # its address
    channel: int


@dataclass
class Seen:
    """A brick."""

    address: str
    name: str = ""
    state: list[str] = field(default_factory=list)  # words of tav-air's --state
    channels: list[int] = field(default_factory=list)  # that it listens on
    calls: list[Link] = field(default_factory=list)  # connections that it began
    programs: list[str] = field(default_factory=list)  # names of their sockets for orders
    recording: str = ""  # the file that it is written to


def own_air() -> str:
    """The air of programs that are told none."""
    return os.environ.get("TAV_AIR") or ("air" if is_shared() else f"air-{os.geteuid()}")


def is_shared() -> bool:
    """With other users who say so, too."""
    return os.environ.get("TAV_AIR_SHARED") == "1"


def list_names(air: str) -> Iterator[tuple[str, str, bool]]:
    """Sockets of an air: address of the brick, the rest of the name, whether it is connected."""
    for state, where, address, rest in ENTRY.findall(Path("/proc/net/unix").read_text(errors="replace")):
        if where == air:
            yield address, rest, state == CONNECTED


def reach(air: str, name: str, timeout: float = ANSWER_TIME) -> socket.socket:
    """A connection to a brick or a program of it. PermissionError: another user has it, who is not to be believed."""
    asker = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
    try:
        asker.settimeout(timeout)
        asker.connect(f"\0tav-air/{air}/{name}")
        _, user, _ = struct.unpack("3i", asker.getsockopt(socket.SOL_SOCKET, socket.SO_PEERCRED, struct.calcsize("3i")))
        if user != os.geteuid():
            if not is_shared() or "!" in name:
                raise PermissionError(f"{name} is another user's")
            asker.settimeout(min(timeout, STRANGERS_TIME))
    except OSError:
        asker.close()
        raise
    return asker


def is_strange(air: str, name: str) -> bool:
    """Whether another user has it, who is not to be believed."""
    try:
        reach(air, name).close()
    except OSError as error:
        return isinstance(error, PermissionError)
    return False


def ask(air: str, name: str, order: bytes, timeout: float = ANSWER_TIME) -> bytes:
    """What a brick or a program of it answers; b"": it is not there any more, or has no time, or another user has it."""
    with suppress(OSError), reach(air, name, timeout) as asker:
        if order:
            asker.send(order)
        return asker.recv(LARGEST)
    return b""


def look(air: str) -> list[Seen]:
    """All bricks, by address."""
    found: dict[str, Seen] = {}
    heard = set()
    for address, rest, is_connected in list_names(air):
        if (not rest or rest.startswith("!")) and (is_connected or is_strange(air, address + rest)):
            continue
        seen = found.setdefault(address, Seen(address))
        if rest.startswith("!"):
            seen.programs.append(address + rest)
        elif not rest:
            heard.add(address)
        elif match := re.fullmatch(r"/(\d+)", rest):
            seen.channels = sorted({*seen.channels, int(match[1])})
        elif (match := re.fullmatch(rf">({ADDRESS})/(\d+)", rest)) and is_connected:
            seen.calls.append(Link(match[1], int(match[2])))
    for seen in found.values():
        tell(air, seen)
    return [seen for address, seen in sorted(found.items()) if seen.programs or address in heard]


def tell(air: str, seen: Seen) -> None:
    """What the brick says of itself."""
    for program in seen.programs:
        description = ask(air, program, b"?")
        if not description:
            continue  # nor would it answer more
        take(seen, description)
        recording = ask(air, program, b"record ").decode(errors="surrogateescape")
        seen.recording = seen.recording or recording.removesuffix("\n")
    if not seen.name:
        take(seen, b"" if seen.programs else ask(air, seen.address, b""))


def take(seen: Seen, description: bytes) -> None:
    name, words, *_ = [*description.split(b"\0"), b""]
    seen.name = name.decode(errors="replace") or seen.address
    seen.state = words.decode(errors="replace").split()


# ---- Orders, which programs of the same user obey -------------------------------------------------------------------


def order(air: str, seen: Seen, text: bytes) -> str:
    """Tells all programs of a brick to do something; what is wrong with that."""
    wrong = [ask(air, program, text) for program in seen.programs]
    return "; ".join(sorted({answer.decode(errors="replace").strip() for answer in wrong} - {""}))


def set_state(air: str, seen: Seen, words: str) -> None:
    """Makes this of a brick, by the words of tav-air's --state."""
    for program in seen.programs:
        ask(air, program, f"\0{words}".encode())


def out_of_range(air: str, seen: Seen) -> None:
    set_state(air, seen, " ".join({*seen.state, "absent"}))


def back(air: str, seen: Seen) -> None:
    set_state(air, seen, " ".join(word for word in seen.state if word != "absent"))


def cut_next(air: str, seen: Seen, size: int = 5) -> str:
    """The next call of each program that sends moves at most so many bytes."""
    return order(air, seen, f"faults send:1=short:{size}".encode())


def record(air: str, seen: Seen, file: Path) -> str:
    """From now on, unless it is recorded already; what is wrong with that."""
    for program in seen.programs:
        path, _, wrong = ask(air, program, b"record " + os.fsencode(file)).decode(errors="replace").partition("\n")
        if wrong:
            return f"{file}: {wrong}"
        seen.recording = path
    return ""


def stop_recording(air: str, seen: Seen) -> None:
    """Until it is recorded again, or another program of the brick starts with a file to write."""
    for program in seen.programs:
        ask(air, program, b"stop recording")
    seen.recording = ""
