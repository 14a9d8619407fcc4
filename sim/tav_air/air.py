"""Bricks on the simulated air: how a program becomes one, and an air of one's own with bricks that come and go."""

import os
import pty
import re
import shutil
import signal
import struct
import subprocess
import tempfile
import threading
import time
import tty
import warnings
from collections.abc import Callable, Mapping, Sequence
from contextlib import suppress
from pathlib import Path
from typing import Any, TypeVar

from . import sky
from .names import get_address, get_id
from .process import Problem, die_with_parent, screen_settings

HERE = Path(__file__).resolve().parent
ROOT = HERE.parent.parent  # in a checkout
INSTALLED = HERE.parents[2] / "tav-bluetooth" / "libtav_air.so"  # beside lib/python3/dist-packages/tav_air/
PATIENCE = 30.0  # s, for what takes milliseconds when nothing is wrong and the machine is not busy
LOOK = 0.01  # s, between looks at what listens
LAST_WORDS = 5.0  # s, for what a program has said at its end, while others keep its output open
SPEED = 50.0
T = TypeVar("T")


# ---- How a program becomes a brick ----------------------------------------------------------------------------------


def find_library() -> Path:
    """The library that is preloaded: the installed one, or of a checkout the one of TAV_BUILD, else the newest."""
    if INSTALLED.is_file():
        return INSTALLED
    if build := os.environ.get("TAV_BUILD"):
        library = Path(build) / "sim" / "libtav_air.so"
        if not library.is_file():
            raise Problem(f"there is no {library}; does TAV_BUILD name a build folder?")
        return library.resolve()
    built = [file for name in ("release", "dev") if (file := ROOT / "build" / name / "sim" / "libtav_air.so").is_file()]
    if not built:
        raise Problem("the simulated air is not built yet; scripts/demo builds it")
    return max(built, key=lambda file: file.stat().st_mtime)


def make_record_folder(folder: str | Path) -> Path:
    made = Path(folder).resolve()
    try:
        made.mkdir(parents=True, exist_ok=True)
    except OSError as error:
        raise Problem(f"recordings cannot be in {folder}: {error.strerror}") from None
    return made


def put_on_air(inherited: Mapping[str, str], library: Path, settings: Mapping[str, str]) -> dict[str, str]:
    """The variables of a program that is a brick: those of the air are its own, not those of whoever starts it."""
    if re.search("[:;]", str(library)):
        raise Problem(f"no program can load {library}, since a : or ; is in its path")
    kept = ("TAV_AIR", "TAV_AIR_SPEED", "TAV_AIR_SHARED", "TAV_AIR_RECORD")
    environment = {name: value for name, value in inherited.items() if name in kept or not name.startswith("TAV_AIR")}
    environment |= settings
    brick, folder = environment.get("TAV_AIR_BRICK"), environment.get("TAV_AIR_RECORD")
    if brick and folder:
        environment["TAV_AIR_RECORD"] = str(make_record_folder(folder))
        environment["TAV_AIR_RECORDING"] = str(Path(environment["TAV_AIR_RECORD"]) / f"{get_id(brick)}.pcapng")
    name = str(library)
    if re.search(r"\s", name):  # no path to preload, but one to look for libraries in
        before = environment.get("LD_LIBRARY_PATH")
        environment["LD_LIBRARY_PATH"] = ":".join(filter(None, [str(library.parent), before]))
        name = library.name
    environment["LD_PRELOAD"] = ":".join(filter(None, [environment.get("LD_PRELOAD"), name]))
    return environment


def can_be_brick(program: str, library: Path) -> bool:
    """False for a program that is linked statically, or for another machine than the library."""
    try:
        with open(shutil.which(program) or program, "rb") as file:
            start = file.read(4096)
        with open(library, "rb") as file:
            ours = file.read(20)
    except OSError:
        return True  # what is wrong is told when it is started
    if not start.startswith(b"\x7fELF"):
        return True
    wide = start[4] == 2
    table = struct.unpack_from("<Q" if wide else "<I", start, 32 if wide else 28)[0]
    size, count = struct.unpack_from("<HH", start, 54 if wide else 42)
    kinds = [struct.unpack_from("<I", start, table + i * size)[0] for i in range(count) if table + i * size < 4092]
    interpreter = 3  # PT_INTERP
    return interpreter in kinds and (start[4], start[18:20]) == (ours[4], ours[18:20])


# ---- An air of one's own --------------------------------------------------------------------------------------------


class Brick:
    """A program of a brick, and what it says."""

    def __init__(
        self,
        air: "Air",
        name: str,
        command: Sequence[str],
        environment: Mapping[str, str],
        terminal: bool,
        print_line: Callable[[str, bytes], None] | None,
    ) -> None:
        self.air = air
        self.name = name
        self.command = command
        self.state = environment["TAV_AIR_STATE"].replace("absent", "")
        self.address = air.address(name)
        self.bytes = b""  # said so far
        self.print_line = print_line
        self.output, theirs = pty.openpty() if terminal else os.pipe()
        if terminal:
            tty.setraw(theirs)  # a line is ended by \n alone
        try:
            with warnings.catch_warnings():
                warnings.simplefilter("ignore", DeprecationWarning)  # of threads at a fork: they only read
                self.process = subprocess.Popen(
                    command,
                    env=environment,
                    cwd=air.run_folder(name),
                    stdin=subprocess.PIPE,
                    stdout=theirs,
                    stderr=theirs,
                    start_new_session=True,
                    preexec_fn=die_with_parent,
                )
        except OSError:
            os.close(self.output)
            raise
        finally:
            os.close(theirs)
        self.listener = threading.Thread(target=self.listen, daemon=True)
        self.listener.start()

    def listen(self) -> None:
        rest = b""
        while True:
            try:
                data = os.read(self.output, 65536)
            except OSError:  # the end of a terminal
                data = b""
            *lines, rest = (rest + data).split(b"\n")
            for line in [*lines, *([rest] if rest and not data else [])]:
                if self.print_line:
                    self.print_line(self.name, line)
            self.bytes += data
            if not data:
                return

    @property
    def said(self) -> str:
        """All that it has said, on stdout and stderr, without carriage returns."""
        return self.bytes.decode(errors="replace").replace("\r", "")

    def wait_for(self, pattern: str, timeout: float | None = None) -> re.Match[str]:
        """Until what it has said matches a regular expression; AssertionError when it never does."""
        return self.wait_until(lambda: re.search(pattern, self.said, re.M), f"say {pattern!r}", timeout)

    def wait_for_channel(self, *channels: int, timeout: float | None = None) -> None:
        """Until its brick listens on these channels, or on any; AssertionError when it never does."""
        what = f"listen on {', '.join(map(str, channels)) or 'any channel'}"
        self.wait_until(lambda: (open := self.air.channels(self.name)) and open.issuperset(channels), what, timeout)

    def wait_until(self, condition: Callable[[], T | None], what: str, timeout: float | None = None) -> T:
        """Until a condition holds, while it runs; its value. AssertionError, which says that it did not do `what`."""
        timeout = self.air.patience if timeout is None else timeout
        until = time.monotonic() + timeout
        while True:
            status = self.status
            if status is not None:
                self.listener.join(LAST_WORDS)
            if result := condition():
                return result
            if status is not None or time.monotonic() > until:
                why = f"in {timeout:g} s" if status is None else f"and ended with status {status}"
                raise AssertionError(f"{self.name} did not {what} {why}; it said:\n{self.said}")
            time.sleep(LOOK)

    @property
    def status(self) -> int | None:
        """As a shell has it: 128 and a signal's number for what a signal ended. None: it runs."""
        status = self.process.poll()
        return 128 - status if status is not None and status < 0 else status

    def wait(self, timeout: float | None = None) -> int:
        """Its status, when it has ended; its input ends now. AssertionError when it does not end in time."""
        self.close_input()
        self.wait_until(lambda: self.status is not None, "end", timeout)
        return self.end()

    def type(self, text: str | bytes) -> None:
        """Sends it this on stdin, if it still reads."""
        assert self.process.stdin
        with suppress(BrokenPipeError):
            self.process.stdin.write(text.encode() if isinstance(text, str) else text)
            self.process.stdin.flush()

    def is_on_air(self) -> bool:
        """Whether the program itself takes orders, which it does before its main starts."""
        return f"!{self.process.pid}" in self.air.names(self.name)

    def out_of_range(self) -> None:
        """Its brick falls silent: peers notice after the link supervision time-out of 20 s, divided by the speed."""
        self.air.set_state(self.name, f"{self.state} absent")

    def back(self) -> None:
        """Its brick is in range again, and else as it was started."""
        self.air.set_state(self.name, self.state)

    def end(self) -> int:
        """Its status, whenever it ends of its own."""
        status = self.process.wait()
        self.listener.join(LAST_WORDS)
        return status if status >= 0 else 128 - status

    def close_input(self) -> None:
        if self.process.stdin:
            with suppress(BrokenPipeError):
                self.process.stdin.close()

    def signal(self, number: signal.Signals) -> None:
        """Sends it, and what it started, a signal."""
        with suppress(ProcessLookupError):
            os.killpg(self.process.pid, number)

    def stop(self, timeout: float | None = None) -> int:
        """Ends it as Ctrl-C does; its status."""
        self.signal(signal.SIGINT)
        return self.wait(timeout)

    def kill(self) -> None:
        """Ends it, and what it started, at once: its connections end, and its brick is gone."""
        self.signal(signal.SIGKILL)
        self.process.wait()

    def close(self) -> None:
        self.kill()
        self.close_input()
        self.listener.join(LAST_WORDS)
        if not self.listener.is_alive():
            os.close(self.output)


class Air:
    """A simulated air that nobody else is on. Each brick has folders of its own; nothing is left after close().

    Not for several threads: what starts a program must outlive it. With `record`, a folder, it keeps what each brick
    sends and receives there.
    """

    def __init__(
        self,
        speed: float = SPEED,
        print_line: Callable[[str, bytes], None] | None = None,
        record: str | Path | None = None,
    ) -> None:
        self.record = record
        self.speed = speed  # of bricks that are started from now on
        self.patience = PATIENCE  # s, of what waits for a brick, unless it is told
        self.print_line = print_line
        self.name = f"own-{os.urandom(8).hex()}"
        self.prefix = f"tav-air/{self.name}/"  # of names of its sockets
        self.library = find_library()
        self.folder = Path(tempfile.mkdtemp(prefix="tav-air-"))
        self.addresses: dict[str, str] = {}
        self.bricks: list[Brick] = []

    def __enter__(self) -> "Air":
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def close(self) -> None:
        """Ends all programs."""
        for brick in self.bricks:
            brick.close()
        shutil.rmtree(self.folder, ignore_errors=True)

    def address(self, name: str) -> str:
        """Of this brick: Robot2 has 02:00:00:00:00:02, unless that is taken."""
        position = len(self.addresses)
        if name not in self.addresses:
            address = get_address(name, position)
            taken = address in self.addresses.values()
            self.addresses[name] = f"02:00:00:00:01:{position:02X}" if taken else address
        return self.addresses[name]

    def run_folder(self, name: str) -> Path:
        """Where programs of this brick run, beside ../prjs/."""
        folder = self.folder / get_id(name) / "run"
        if not folder.is_dir():
            folder.mkdir(parents=True)
            (folder.parent / "prjs").mkdir()
        return folder

    def environment(
        self,
        name: str,
        *,
        services: Sequence[str] = (),
        state: str = "",
        faults: str = "",
        trace: bool = False,
        adapter: bool = True,
        **variables: str,
    ) -> dict[str, str]:
        """The variables of a program that runs as this brick, for those that are not started by brick().

        `services`, `state`, `faults` and `trace` are tav-air's; without `adapter` it is a brick without Bluetooth;
        `variables` are added.
        """
        settings = {"TAV_AIR": self.name, "TAV_AIR_SPEED": f"{self.speed:g}"}
        settings |= {"TAV_AIR_STATE": state, "TAV_AIR_FAULTS": faults, "TAV_AIR_SERVICES": "\n".join(services)}
        if adapter:
            settings |= {"TAV_AIR_BRICK": name, "TAV_AIR_ADDRESS": self.address(name)}
        if trace:
            settings["TAV_AIR_TRACE"] = "1"
        if self.record:
            settings["TAV_AIR_RECORD"] = str(self.record)
        inherited = {name: value for name, value in os.environ.items() if name != "TAV_BRICK_NAME"}
        return put_on_air(inherited, self.library, settings | variables)

    def brick(self, name: str, *command: str | Path, terminal: bool = True, **options: Any) -> Brick:
        """Starts a program as this brick, with `options` as environment() has them.

        A word of the command with a / in it that names a file is one of the working directory; the program itself runs
        in a folder of its brick. Its output goes to a terminal, so that a line is here as soon as it is written, or to
        a pipe.
        """
        words = [str(Path(word).absolute()) if "/" in str(word) and Path(word).is_file() else word for word in command]
        given: dict[str, Any] = screen_settings() | options if terminal else options
        environment = self.environment(name, **given)
        self.bricks.append(Brick(self, name, [*map(str, words)], environment, terminal, self.print_line))
        return self.bricks[-1]

    def device(self, name: str, **options: Any) -> Brick:
        """A brick that answers inquiries and runs nothing."""
        return self.brick(name, "sleep", "infinity", **options)

    def names(self, name: str) -> list[str]:
        """What programs of a brick have open on the air: names of sockets that the kernel lists, after its address."""
        address = re.escape(f"@{self.prefix}{self.address(name)}")
        return re.findall(f" {address}(.*)$", Path("/proc/net/unix").read_text(errors="replace"), re.M)

    def channels(self, name: str) -> set[int]:
        """The RFCOMM channels that a brick listens on."""
        return {int(match[1]) for rest in self.names(name) if (match := re.fullmatch(r"/(\d+)", rest))}

    def set_state(self, name: str, words: str) -> None:
        """Makes this of a brick while its programs run, by the words of tav-air's --state."""
        for brick in self.bricks:
            if brick.name == name:  # it may have been started just now
                brick.wait_until(lambda: brick.status is not None or brick.is_on_air(), "come on the air")
        for order in [rest for rest in self.names(name) if rest.startswith("!")]:
            sky.ask(
                self.name, f"{self.address(name)}{order}", f"\0{words}".encode(), self.patience
            )  # it keeps its name
