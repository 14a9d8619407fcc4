"""Bricks of the lab: virtual machines on one emulated radio."""

import asyncio
import ctypes
import shutil
import signal
import sys
import tempfile
from contextlib import suppress
from dataclasses import dataclass, field
from pathlib import Path

from image import LAB, Archive, Problem

BOOT_TIMEOUT = 120  # s; 15 when eight bricks start on two cores
OFF_TIMEOUT = 20


def die_with_parent():
    """For children: whatever ends the runner ends them too."""
    pr_set_pdeathsig = 1
    ctypes.CDLL(None).prctl(pr_set_pdeathsig, signal.SIGKILL)


@dataclass
class Setup:
    """What the user says of a brick."""

    name: str
    address: str
    files: list = field(default_factory=list)  # copied into the program's folder
    card: bool = False  # project folders with SD_Card
    sdp: bool = False  # runs bluetoothd
    python: bool = False  # has Python
    on_radio: list = field(default_factory=list)  # commands to the radio, {} for the name


class Radio:
    """The radio's process."""

    def __init__(self, folder):
        self.folder = folder
        self.process = None

    async def start(self, controllers, speed, trace):
        if trace:
            trace.mkdir(parents=True, exist_ok=True)
        options = ["--speed", str(speed)] + (["--trace", str(trace)] if trace else [])
        self.process = await asyncio.create_subprocess_exec(
            *(sys.executable, str(LAB / "radio.py"), *options, str(self.folder)),
            *(f"{setup.name}={setup.address}" for setup in controllers),
            stdin=asyncio.subprocess.PIPE,
            stdout=asyncio.subprocess.PIPE,
            start_new_session=True,
            preexec_fn=die_with_parent,
        )
        if await self.process.stdout.readline() != b"ready\n":
            raise Problem("the radio did not start; what it said is above")

    async def command(self, line):
        self.process.stdin.write(f"{line}\n".encode())
        answer = (await self.process.stdout.readline()).decode().strip()
        if answer != "ok":
            raise Problem(f"radio: {line}: {answer or 'it has ended'}")


class Brick:
    """One virtual machine."""

    def __init__(self, setup, image, radio_socket, folder, print_line):
        self.setup = setup
        self.image = image
        self.radio_socket = radio_socket
        self.folder = folder  # of this brick alone; holds its sockets, program files and the log of its console
        self.print_line = print_line
        self.process = None
        self.control = None  # reader and writer of the port for orders
        self.screen = None  # of the port for what programs say
        self.connected = asyncio.Event()

    async def start(self):
        """Starts the machine; `ready` waits for it."""
        self.folder.mkdir()
        await asyncio.start_unix_server(self.take_control, self.folder / "control")
        await asyncio.start_unix_server(self.take_screen, self.folder / "screen")
        arch = self.image.arch
        ports = []
        for path in self.radio_socket, self.folder / "screen", self.folder / "control":
            port = f"port{len(ports)}"
            ports += ["-chardev", f"socket,path={path},id={port}", "-device", f"virtconsole,chardev={port}"]
        settings = {"brick": self.setup.name, "card": "1" * self.setup.card, "sdp": "1" * self.setup.sdp}
        self.process = await asyncio.create_subprocess_exec(
            *arch.qemu,
            *("-m", "320" if self.setup.python else "128", "-nodefaults", "-no-user-config", "-display", "none"),
            *("-no-reboot", "-kernel", self.image.kernel, "-initrd", self.pack_initrd()),
            *("-serial", f"file:{self.folder / 'console.log'}", "-device", arch.serial, *ports),
            "-append",
            f"console={arch.console} quiet panic=-1 no_timer_check cryptomgr.notests "
            + " ".join(f"{key}={value}" for key, value in settings.items() if value),
            stdin=asyncio.subprocess.DEVNULL,
            stderr=(self.folder / "qemu.log").open("wb"),
            start_new_session=True,
            preexec_fn=die_with_parent,
        )

    def pack_initrd(self):
        """The image's archives and one with the program; the kernel unpacks them one after the other."""
        files = Archive(None, self.folder / "files")
        files.path("brick/run/.").mkdir(parents=True, exist_ok=True)
        for file in self.setup.files:
            shutil.copy2(file, files.path(f"brick/run/{Path(file).name}"))
        initrd = self.folder / "initrd"
        files.pack(initrd.with_suffix(".job"))
        with initrd.open("wb") as output:
            for archive in *self.image.archives(self.setup.sdp, self.setup.python), initrd.with_suffix(".job"):
                output.write(archive.read_bytes())
        return initrd

    async def take_control(self, reader, writer):
        self.control = reader, writer
        self.connected.set()

    async def take_screen(self, reader, writer):
        self.screen = reader, writer
        if self.print_line:
            while line := await reader.readline():
                self.print_line(line.decode(errors="replace").rstrip("\r\n"))

    async def order(self, line):
        self.control[1].write(f"{line}\n".encode())

    async def answer(self):
        """The next line from the brick; a Problem when it has gone."""
        line = await self.control[0].readline()
        if not line:
            raise Problem(f"{self.setup.name} has ended unexpectedly\n{self.last_words()}")
        return line.decode(errors="replace").strip()

    async def ready(self):
        async def wait():
            await self.connected.wait()
            while not (await self.answer()).startswith("ready"):
                pass

        ended = asyncio.create_task(self.process.wait())
        waiting = asyncio.create_task(wait())
        await asyncio.wait([ended, waiting], timeout=BOOT_TIMEOUT, return_when=asyncio.FIRST_COMPLETED)
        if not waiting.done():
            waiting.cancel()
            raise Problem(f"{self.setup.name} did not start\n{self.last_words()}")
        waiting.result()
        ended.cancel()

    async def run(self, command):
        """Runs a command in the brick; its status."""
        await self.order(f"run {command}")
        return int((await self.answer()).removeprefix("ended "))

    async def switch_off(self):
        await self.order("off")
        with suppress(asyncio.TimeoutError):
            await asyncio.wait_for(self.process.wait(), OFF_TIMEOUT)

    def last_words(self):
        """The end of what the machine and its kernel said."""
        words = []
        for name in "qemu.log", "console.log":
            with suppress(OSError):
                words += (self.folder / name).read_text(errors="replace").splitlines()[-12:]
        return "\n".join(words)


class Lab:
    """The radio and its bricks, from start to end; nothing of them is left afterwards, whatever happens between."""

    def __init__(self, image, setups, phantoms=(), speed=1, trace=None, print_line=None, shell=None):
        self.folder = Path(tempfile.mkdtemp(prefix="tav-lab-"))
        self.image = image
        self.setups = setups
        self.phantoms = phantoms  # devices without a host, as the radio knows them: name, address
        self.speed = speed
        self.trace = trace
        self.radio = Radio(self.folder)
        printer = lambda name: print_line and name != shell and (lambda line: print_line(name, line))
        self.bricks = {
            setup.name: Brick(
                setup, image, self.folder / setup.name, self.folder / f"{setup.name}.brick", printer(setup.name)
            )
            for setup in setups
        }

    async def __aenter__(self):
        try:
            await self.radio.start(self.setups, self.speed, self.trace)
            for name, address in self.phantoms:
                await self.radio.command(f"device {name} {address}")
            for brick in self.bricks.values():
                await brick.start()
            await asyncio.gather(*(brick.ready() for brick in self.bricks.values()))
        except BaseException:
            await self.__aexit__()
            raise
        return self

    async def __aexit__(self, *_):
        for process in *(brick.process for brick in self.bricks.values()), self.radio.process:
            if process and process.returncode is None:
                with suppress(ProcessLookupError):
                    process.kill()
                await process.wait()
        shutil.rmtree(self.folder, ignore_errors=True)

    async def switch_off(self):
        await asyncio.gather(*(brick.switch_off() for brick in self.bricks.values()))

    def keep_logs(self, folder):
        folder.mkdir(parents=True, exist_ok=True)
        for name, brick in self.bricks.items():
            with suppress(OSError):
                shutil.copy(brick.folder / "console.log", folder / f"{name}.console.log")


async def self_test(image):
    """Whether failed connects leave the kernel of an image alive."""
    async with Lab(image, [Setup("Probe", "02:00:00:00:00:01")]) as lab:
        status = await lab.bricks["Probe"].run("/self-test")
        await lab.switch_off()
        return status == 0
