"""Follows captures that are being written: tshark runs on, and is given what is new in them."""

import os
import select
import struct
import threading
import time
from bisect import bisect_right
from collections import deque
from collections.abc import Callable, Iterator, Sequence
from contextlib import suppress
from itertools import accumulate
from pathlib import Path
from tempfile import TemporaryDirectory
from typing import BinaryIO
from xml.etree import ElementTree

from tav_air.process import Problem

from .analysis import Analysis, Row, received_by, sent_by
from .capture import Event, Link, Message, Reader, Session, finish, is_recording, join, read_frames
from .capture import read_captures, start_tshark, take_frame

PAUSE = 0.05  # s, between looks at files
CHUNK = 1 << 16  # bytes that are read at once
INTERFACE, PACKET = 1, 6  # blocks of pcapng
SMALLEST = 12  # of its blocks
PIPED = (b"\n\r\r\n", b"\xd4\xc3\xb2\xa1", b"\x4d\x3c\xb2\xa1")  # what pcapng and pcap begin with
SECTION = struct.pack("<IIIHHqI", 0x0A0D0D0A, 28, 0x1A2B3C4D, 1, 0, -1, 28)  # what they all begin with
MANY = 1000  # events, of which those are left out that are told and done
LONG = 30.0  # s, after which nothing more comes of what stands alone


# ---- What is new in files -------------------------------------------------------------------------------------------


class File:
    """A file that grows. When it is deleted and begun anew, the new one comes behind what it was."""

    def __init__(self, path: Path) -> None:
        self.path = path
        self.stream: BinaryIO | None = None

    def is_other(self) -> bool:
        """Whether there is another file of this name now."""
        try:
            now = self.path.stat()
        except OSError:
            return False
        return not self.stream or not os.path.samestat(now, os.fstat(self.stream.fileno()))

    def read(self) -> bytes:
        is_other = self.is_other()
        data = self.stream.read(CHUNK) if self.stream else b""
        if data or not is_other:
            return data
        self.close()
        self.stream = self.path.open("rb", buffering=0)
        return self.stream.read(CHUNK)

    def close(self) -> None:
        if self.stream:
            self.stream.close()


class Recording(File):
    """A brick's, in whole blocks, of which the packets are those of an interface."""

    def __init__(self, path: Path, begin: int, interface: int) -> None:
        super().__init__(path)
        self.begin = begin  # where packets are not left out any more
        self.interface = interface
        self.is_known = False
        self.at = 0
        self.rest = b""

    def read(self) -> bytes:
        before = self.stream
        data = super().read()
        if self.stream is not before:
            self.begin = 0 if before else self.begin
            self.at, self.rest = 0, b""
        self.rest += data
        return b"".join(self.take_blocks())

    def take_blocks(self) -> Iterator[bytes]:
        at = 0
        while len(self.rest) - at >= SMALLEST:
            kind, size = struct.unpack_from("<II", self.rest, at)
            if size < SMALLEST:
                raise Problem(f"{self.path} is no recording any more")
            if len(self.rest) - at < size:
                break
            self.at += size
            if kind == PACKET and self.at > self.begin:
                yield self.rest[at : at + 8] + struct.pack("<I", self.interface) + self.rest[at + 12 : at + size]
            elif kind == INTERFACE and not self.is_known:  # a later section of the same brick goes on with it
                self.is_known = True
                yield self.rest[at : at + size]
            at += size
        self.rest = self.rest[at:]


# ---- What tshark finds in them --------------------------------------------------------------------------------------


class Stream:
    """One capture, or all recordings of bricks as one: each tshark has its memory and takes its time to start."""

    def __init__(self, name: Path, has_news: threading.Event, begin: bytes = b"") -> None:
        self.name = name
        self.files: dict[Path, File] = {}
        self.has_news = has_news
        self.frames: deque[tuple[dict[str, str], list[Message]]] = deque()
        self.readers: dict[str, Reader] = {}
        self.problem: Problem | None = None
        self.is_over = threading.Event()
        self.folder = TemporaryDirectory(prefix="tav-")
        os.chmod(self.folder.name, 0o755)
        self.processes = start_tshark(None, self.folder.name)
        self.inputs = [process.stdin.fileno() for process in self.processes if process.stdin]
        self.waiting = dict.fromkeys(self.inputs, begin)
        self.threads = [threading.Thread(target=act, daemon=True) for act in (self.feed, self.listen)]
        for thread in self.threads:
            thread.start()

    def feed(self) -> None:
        """Both get the same bytes, each as fast as it takes them: what one of them says is heard when the other has, too."""
        for fd in self.inputs:
            os.set_blocking(fd, False)
        try:
            while not self.is_over.is_set():
                if not any(self.waiting.values()):
                    news = b"".join([file.read() for file in [*self.files.values()]])
                    self.waiting = dict.fromkeys(self.inputs, news)
                full = [fd for fd in self.inputs if self.waiting[fd]]
                for fd in select.select([], full, [], PAUSE)[1]:
                    self.waiting[fd] = self.waiting[fd][os.write(fd, self.waiting[fd]) :]
        except BrokenPipeError:
            pass  # that one has ended, which the other thread notices
        except (OSError, Problem) as problem:
            self.end(Problem(str(problem)))

    def listen(self) -> None:
        table, tree = self.processes
        assert table.stdout and tree.stdout
        with suppress(EOFError, ElementTree.ParseError):
            for frame in read_frames(table.stdout, tree.stdout):
                self.frames.append(frame)
                self.has_news.set()
        self.end(self.explain())

    def explain(self) -> Problem:
        """Why it has ended."""
        problem = Problem(f"{self.name}: tshark has ended")
        for process in self.processes:
            process.kill()
            try:
                finish(process, self.name)
            except Problem as reason:
                problem = problem if "tshark failed" in str(reason) else reason
        return problem

    def end(self, problem: Problem) -> None:
        self.problem = self.problem or problem
        self.is_over.set()
        self.has_news.set()

    def take(self, names: dict[str, str]) -> bool:
        """Whether there was something new."""
        count = len(self.frames)
        for _ in range(count):
            take_frame(*self.frames.popleft(), self.readers, self.name, names)
        return count > 0

    def close(self) -> None:
        self.is_over.set()
        for process in self.processes:
            process.kill()
        for thread in self.threads:
            thread.join()
        for process in self.processes:
            with process:
                pass
        for file in self.files.values():
            file.close()
        self.folder.cleanup()


# ---- What is told of it ---------------------------------------------------------------------------------------------


def settled(link: Link, other: Link) -> list[Event]:
    """What one side sent and the other one read, up to where that is the same: of this, all has been told."""
    sent, received = sent_by(link), received_by(other)
    ends = [[*accumulate(len(event.data) for event in events)] for events in (sent, received)]
    last = max({*ends[0]}.intersection(ends[1]), default=0)
    return [*sent[: bisect_right(ends[0], last)], *received[: bisect_right(ends[1], last)]]


def begins(file: Path, heads: Sequence[bytes]) -> bool:
    with file.open("rb") as stream:
        return stream.read(4) in heads


class Follower:
    """Tells which rows are new, or not what they were. To be closed, and used by one thread, which outlives its use."""

    def __init__(self, find: Callable[[], Sequence[Path]]) -> None:
        self.find = find
        self.rows: dict[str, Row] = {}
        self.recent: dict[str, Row] = {}  # those of events that are still looked at
        self.session = Session()
        self.names: dict[str, str] = {}  # by address
        self.streams: dict[Path, Stream] = {}
        self.begin: dict[Path, int] = {}
        self.sizes: dict[Path, int] = {}
        self.others: dict[Path, list[Reader]] = {}
        self.has_news = threading.Event()
        self.removed: list[Row] = []

    def __enter__(self) -> "Follower":
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def close(self) -> None:
        while self.streams:
            self.streams.popitem()[1].close()
        self.others = {}

    def begin_anew(self) -> None:
        """With what comes from now on; all rows are removed."""
        self.close()
        self.begin = {file: file.stat().st_size for file in self.find() if file.is_file()}
        self.removed = [{"key": key, "removed": True} for key in self.rows]
        self.rows, self.recent, self.session = {}, {}, Session()
        self.has_news.set()

    def look(self, timeout: float = 0) -> list[Row]:
        """Waits so long for something new."""
        has_grown = any([self.take_up(file) for file in self.find()])
        if self.has_news.wait(timeout):
            time.sleep(PAUSE)  # the other side of it
            self.has_news.clear()
        is_new = any([stream.take(self.names) for stream in self.streams.values()]) or has_grown
        for name, stream in () if is_new else [*self.streams.items()]:
            if stream.problem:
                self.streams.pop(name).close()  # the next look begins another one
                raise stream.problem
        removed, self.removed = self.removed, []
        return removed + self.tell() if is_new else removed

    def take_up(self, file: Path) -> bool:
        """Whether it was read here, and anew: tshark takes no captures of btmon's but whole files."""
        if any(file in stream.files for stream in self.streams.values()):
            return False
        size = file.stat().st_size if file.is_file() else 0
        if not size or size == self.sizes.get(file):
            return False
        if is_recording(file):
            recordings = self.stream(Path("recordings"), SECTION).files
            recordings[file] = Recording(file, self.begin.get(file, 0), len(recordings))
        elif begins(file, PIPED):
            self.stream(file).files[file] = File(file)
        else:
            self.sizes[file] = size
            self.others[file] = read_captures([file], self.names)
            return True
        return False

    def stream(self, name: Path, begin: bytes = b"") -> Stream:
        if name not in self.streams:
            self.streams[name] = Stream(name, self.has_news, begin)
        return self.streams[name]

    def tell(self) -> list[Row]:
        self.session = join(self.readers(), self.names)
        analysis = Analysis(self.session, live=True)
        recent = {row["key"]: row for row in analysis.rows()}
        news = [row for key, row in recent.items() if self.rows.get(key) != row]
        gone = self.recent.keys() - recent.keys()
        for key in gone:
            del self.rows[key]
        self.rows |= recent
        done = self.list_done(analysis.match.peers)
        self.leave_out(done)
        keys = {event.key for event in done}
        self.recent = {key: row for key, row in recent.items() if key not in keys}
        return [*news, *({"key": key, "removed": True} for key in gone)]

    def readers(self) -> list[Reader]:
        followed = [reader for stream in self.streams.values() for reader in stream.readers.values()]
        return followed + [reader for readers in self.others.values() for reader in readers]

    def list_done(self, peers: dict[Link, Link]) -> set[Event]:
        """Events of which nothing new can be said, when there are many: looks take no longer later than at first."""
        events = self.session.events
        if len(events) < MANY:
            return set()
        old = events[-1].time - LONG
        done = {
            event for event in events if not event.link and event.time < old and event.what not in ("note", "start")
        }
        for link in {event.link for event in events if event.link}:
            other = peers.get(link)
            sides = [link, other] if other else [link]
            has_ended = all(any(event.what in ("end", "failed") for event in side.events) for side in sides)
            if has_ended and all(event.time < old for side in sides for event in side.events):
                done.update(link.events)
            elif other:
                is_radio = link.brick in self.session.frames or other.brick in self.session.frames
                done.update(event for event in settled(link, other) if not is_radio or event.time < old)
            elif link.peer not in self.session.recorded:
                done.update(event for event in link.events[1:] if event.time < old)
        return done

    def leave_out(self, done: set[Event]) -> None:
        for link in {event.link for event in done if event.link}:
            link.events = [event for event in link.events if event not in done]
        for reader in self.readers() if done else []:
            reader.events = [event for event in reader.events if event not in done]
