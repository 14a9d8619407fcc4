"""Bricks of the lab: virtual machines on one emulated radio."""

import asyncio
import re
import shlex
import shutil
import sys
import tempfile
from asyncio import StreamReader, StreamWriter
from asyncio.subprocess import Process
from collections.abc import Callable, Sequence
from contextlib import suppress
from dataclasses import dataclass
from pathlib import Path

from image import ARCHS, Archive, Image, missing_packages
from machine import LAB
from tav_air.process import Printer, Problem, die_with_parent, screen_settings
from tav_air.world import Setup, together

BOOT_TIMEOUT = 120  # s; 15 when eight bricks start on two cores
OFF_TIMEOUT = 20
FOLLOW_PAUSE = 0.05
LONGEST_LINE = 65536  # a program may say anything


class Radio:
    """The radio's process."""

    def __init__(self, folder: Path) -> None:
        self.folder = folder
        self.process: Process | None = None
        self.lock = asyncio.Lock()  # one command at a time: the next line is its answer

    async def start(self, controllers: Sequence[Setup], speed: float) -> None:
        self.process = await asyncio.create_subprocess_exec(
            *(sys.executable, str(LAB / "radio.py"), "--speed", str(speed), str(self.folder)),
            *(f"{setup.id}={setup.address}" for setup in controllers),
            stdin=asyncio.subprocess.PIPE,
            stdout=asyncio.subprocess.PIPE,
            start_new_session=True,
            preexec_fn=die_with_parent,
        )
        assert self.process.stdout
        if await self.process.stdout.readline() != b"ready\n":
            raise Problem("the radio did not start; what it said is above")

    async def command(self, line: str) -> None:
        assert self.process and self.process.stdin and self.process.stdout
        async with self.lock:
            self.process.stdin.write(f"{line}\n".encode())
            answer = (await self.process.stdout.readline()).decode().strip()
        if answer != "ok":
            raise Problem(f"radio: {line}: {answer or 'it has ended'}")

    async def trace(self, folder: Path) -> None:
        """From now on, HCI captures are written to this folder."""
        folder.mkdir(parents=True, exist_ok=True)
        await self.command(f"trace {shlex.quote(str(folder.resolve()))}")


class Brick:
    """One virtual machine."""

    def __init__(
        self, setup: Setup, image: Image, folder: Path, print_line: Callable[[str, bytes], None] | None
    ) -> None:
        self.setup = setup
        self.image = image
        self.radio_socket = folder / setup.id
        self.folder = folder / f"{setup.id}.brick"  # of this brick alone: sockets, program files, logs
        self.output = self.folder / "output.log"  # what programs say
        self.print_line = print_line  # None: the screen is for a shell
        self.following: asyncio.Task[None] | None = None
        self.process: Process | None = None
        self.control: tuple[StreamReader, StreamWriter] | None = None  # the port for orders
        self.screen: tuple[StreamReader, StreamWriter] | None = None  # the port for a shell

    async def start(self) -> None:
        """Starts the machine; ready() waits for it."""
        self.folder.mkdir()
        await asyncio.start_unix_server(self.take_control, self.folder / "control", limit=2**20)
        await asyncio.start_unix_server(self.take_screen, self.folder / "screen")
        self.output.touch()
        arch = self.image.arch
        # What programs say goes to a file: to a socket, QEMU drops what does not fit.
        screen = f"file,path={self.output}" if self.print_line else f"socket,path={self.folder / 'screen'}"
        ports: list[str] = []
        for backend in f"socket,path={self.radio_socket}", screen, f"socket,path={self.folder / 'control'}":
            port = f"port{len(ports)}"
            ports += ["-chardev", f"{backend},id={port}", "-device", f"virtconsole,chardev={port}"]
        # What the brick brings along is in memory twice while the kernel unpacks it, and it may fill half of the rest.
        initrd = self.pack_initrd()
        memory = (320 if self.setup.python else 128) + 4 * (self.folder / "files.cpio").stat().st_size // 2**20
        settings = " card=1" * self.setup.card + " sdp=1" * self.setup.sdp
        self.process = await asyncio.create_subprocess_exec(
            *arch.qemu,
            *("-m", str(memory), "-nodefaults", "-no-user-config", "-display", "none"),
            *("-no-reboot", "-kernel", self.image.kernel, "-initrd", initrd),
            *("-serial", f"file:{self.folder / 'console.log'}", "-device", arch.serial, *ports),
            "-append",
            f"console={arch.console} quiet panic=-1 no_timer_check cryptomgr.notests{settings}",
            stdin=asyncio.subprocess.DEVNULL,
            stderr=(self.folder / "qemu.log").open("wb"),
            start_new_session=True,
            preexec_fn=die_with_parent,
        )
        if self.print_line:
            self.following = asyncio.create_task(self.follow_output(self.process, self.print_line))

    def pack_initrd(self) -> Path:
        """The image's archives and one with the brick's name and files; the kernel unpacks one after the other."""
        files = Archive(self.folder / "files")
        files.write("brick/name", f"{self.setup.name}\n")
        settings = [f"export {name}={shlex.quote(value)}\n" for name, value in screen_settings().items()]
        files.write("brick/environment", "".join(settings))
        for name, file in self.setup.files.items():
            shutil.copy2(file, files.path(f"brick/run/{name}"))
        files.pack(self.folder / "files.cpio")
        with (self.folder / "initrd").open("wb") as initrd:
            for archive in *self.image.archives(self.setup.sdp, self.setup.python), self.folder / "files.cpio":
                initrd.write(archive.read_bytes())
        return self.folder / "initrd"

    async def take_control(self, reader: StreamReader, writer: StreamWriter) -> None:
        self.control = reader, writer

    async def take_screen(self, reader: StreamReader, writer: StreamWriter) -> None:
        self.screen = reader, writer

    async def follow_output(self, process: Process, print_line: Callable[[str, bytes], None]) -> None:
        """Prints what the brick says as it comes, until the machine has ended."""
        rest = b""
        with self.output.open("rb") as output:
            while True:
                ended = process.returncode is not None
                data = output.read(LONGEST_LINE)
                *lines, rest = (rest + data).split(b"\n")
                if len(rest) >= LONGEST_LINE or (ended and not data and rest):
                    lines, rest = [*lines, rest], b""
                for line in lines:
                    print_line(self.setup.name, line)
                if not data and ended:
                    return
                await asyncio.sleep(0 if data else FOLLOW_PAUSE)

    async def order(self, line: str) -> None:
        assert self.control
        self.control[1].write(f"{line}\n".encode())

    async def answer(self) -> str:
        """The next line from the brick; a Problem when it has gone."""
        assert self.control
        line = await self.control[0].readline()
        if not line:
            raise Problem(f"{self.setup.name} has ended unexpectedly\n{self.last_words()}")
        return line.decode(errors="replace").strip()

    async def ready(self) -> None:
        assert self.process
        try:
            async with asyncio.timeout(BOOT_TIMEOUT):
                while not self.control:
                    if self.process.returncode is not None:
                        raise Problem(f"{self.setup.name} did not start\n{self.last_words()}")
                    await asyncio.sleep(0.02)
                while not (await self.answer()).startswith("ready"):
                    pass
        except TimeoutError:
            raise Problem(f"{self.setup.name} did not start in {BOOT_TIMEOUT} s\n{self.last_words()}") from None

    async def run(self, command: str, listens: Callable[[], None] | None = None) -> int:
        """Runs a command in the brick; its status. Calls `listens`, if that is given, when a channel of it listens."""
        await self.order(f"{'serve' if listens else 'run'} {command}")
        while (answer := await self.answer()) == "listens":
            if listens:
                listens()
        return int(answer.removeprefix("ended "))

    async def switch_off(self) -> None:
        assert self.process
        await self.order("off")
        try:
            await asyncio.wait_for(self.process.wait(), OFF_TIMEOUT)
        except TimeoutError:
            raise Problem(f"{self.setup.name} did not switch off\n{self.last_words()}") from None
        if re.search("kernel BUG|Oops", (self.folder / "console.log").read_text(errors="replace")):
            raise Problem(f"the kernel of {self.setup.name} failed\n{self.last_words()}")

    def last_words(self) -> str:
        """The end of what the machine and its kernel said."""
        words = []
        for name in "qemu.log", "console.log":
            with suppress(OSError):
                words += (self.folder / name).read_text(errors="replace").splitlines()[-12:]
        return "\n".join(words)


@dataclass
class Lab:
    """The radio and its bricks, from start to end; nothing of them is left afterwards, whatever happens between."""

    image: Image
    setups: Sequence[Setup]
    phantoms: Sequence[tuple[str, str]] = ()  # devices without a host: names and addresses
    speed: float = 1
    trace: Path | None = None  # folder for HCI captures
    keep: Path | None = None  # folder for logs of kernels, QEMU and programs
    form: str = "{name} | "  # how what a brick says is printed
    shell: str | None = None  # the brick whose screen is for a shell

    def __post_init__(self) -> None:
        self.folder = Path(tempfile.mkdtemp(prefix="tav-lab-"))
        self.printer = Printer(self.form, b"\r\n" if self.shell else b"\n")  # a shell has the terminal in raw mode
        self.radio = Radio(self.folder)
        self.bricks: dict[str, Brick] = {}
        for setup in self.setups:
            print_line = None if setup.name == self.shell else self.printer.put
            self.bricks[setup.name] = Brick(setup, self.image, self.folder, print_line)

    async def __aenter__(self) -> "Lab":
        try:
            if self.keep:
                self.keep.mkdir(parents=True, exist_ok=True)
            await self.radio.start(self.setups, self.speed)
            if self.trace:
                await self.radio.trace(self.trace)
            for name, address in self.phantoms:
                await self.radio.command(f"device {name} {address}")
            for brick in self.bricks.values():
                await brick.start()
            await together(*(brick.ready() for brick in self.bricks.values()))
        except BaseException:
            await self.__aexit__()
            raise
        return self

    async def __aexit__(self, *_: object) -> None:
        processes = [brick.process for brick in self.bricks.values()] + [self.radio.process]
        running = [process for process in processes if process and process.returncode is None]
        for process in running:
            with suppress(ProcessLookupError):
                process.kill()
        self.keep_logs()
        shutil.rmtree(self.folder, ignore_errors=True)
        for process in running:
            await process.wait()
        for brick in self.bricks.values():
            if brick.following:
                await brick.following
        self.printer.close()

    async def switch_off(self) -> None:
        await together(*(brick.switch_off() for brick in self.bricks.values()))

    def keep_logs(self) -> None:
        for brick in self.bricks.values():
            for name in "console.log", "qemu.log", "output.log":
                if self.keep:
                    with suppress(OSError):
                        shutil.copy(brick.folder / name, self.keep / f"{brick.setup.id}.{name}")


async def self_test(image: Image) -> bool:
    """Whether failed connects leave the kernel of an image alive."""
    async with Lab(image, [Setup("Probe", "02:00:00:00:00:01")]) as lab:
        status = await lab.bricks["Probe"].run("/self-test >/dev/null 2>&1")
        await lab.switch_off()
        return status == 0


def current_image(arch: str) -> Image:
    """The image of this architecture, built if need be."""
    missing = missing_packages(ARCHS[arch])
    if missing:
        raise Problem(f"the lab needs Debian packages; as root: apt-get install {' '.join(missing)}")
    image = Image(arch)
    image.ensure(lambda: asyncio.run(self_test(image)))
    return image
