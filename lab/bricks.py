"""Bricks of the lab: virtual machines on one emulated radio."""

import asyncio
import os
import queue
import re
import shutil
import signal
import sys
import tempfile
import threading
from contextlib import suppress
from dataclasses import dataclass, field
from pathlib import Path

from image import LAB, Archive, Problem, die_with_parent

BOOT_TIMEOUT = 120  # s; 15 when eight bricks start on two cores
OFF_TIMEOUT = 20
FOLLOW_PAUSE = 0.05
LONGEST_LINE = 65536  # a program may say anything


@dataclass
class Setup:
    """What the user says of a brick."""

    name: str
    address: str
    files: list = field(default_factory=list)  # copied into the program's folder
    card: bool = False  # project folders with SD_Card
    sdp: bool = False  # runs bluetoothd
    python: bool = False  # has Python

    @property
    def id(self):
        """The name as files, paths of sockets and the radio's commands can bear it."""
        return re.sub(r"[^A-Za-z0-9_]", "_", self.name)[:40]


async def together(*coroutines, first=None):
    """Their results. When one fails, the others are cancelled and its exception is raised.

    With `first`, the results of so many: the others are cancelled when those have ended.
    """
    try:
        async with asyncio.TaskGroup() as group:
            tasks = [group.create_task(coroutine) for coroutine in coroutines]
            if first is not None:
                await asyncio.wait(tasks[:first])
                for task in tasks[first:]:
                    task.cancel()
    except BaseExceptionGroup as failed:
        raise failed.exceptions[0] from None
    return [task.result() for task in tasks[:first]]


class Printer:
    """Prints what bricks say, each line with its brick's name before it.

    A thread writes, so that a slow terminal holds up nothing else.
    """

    def __init__(self, form, end):
        self.form = form  # "{name:6} | "
        self.end = end  # of a line
        self.lines = queue.SimpleQueue()
        self.thread = threading.Thread(target=self.write, daemon=True)
        self.thread.start()

    def put(self, name, line):
        self.lines.put(self.form.format(name=name).encode() + line.rstrip(b"\r") + self.end)

    def write(self):
        try:
            for line in iter(self.lines.get, None):
                sys.stdout.buffer.write(line)
                if self.lines.empty():
                    sys.stdout.buffer.flush()
        except OSError:  # nobody listens any more
            os.kill(os.getpid(), signal.SIGINT)

    def close(self):
        self.lines.put(None)
        self.thread.join()


class Radio:
    """The radio's process."""

    def __init__(self, folder):
        self.folder = folder
        self.process = None
        self.lock = asyncio.Lock()  # one command at a time: the next line is its answer

    async def start(self, controllers, speed, trace):
        if trace:
            trace.mkdir(parents=True, exist_ok=True)
        options = ["--speed", str(speed)] + (["--trace", str(trace)] if trace else [])
        self.process = await asyncio.create_subprocess_exec(
            *(sys.executable, str(LAB / "radio.py"), *options, str(self.folder)),
            *(f"{setup.id}={setup.address}" for setup in controllers),
            stdin=asyncio.subprocess.PIPE,
            stdout=asyncio.subprocess.PIPE,
            start_new_session=True,
            preexec_fn=die_with_parent,
        )
        if await self.process.stdout.readline() != b"ready\n":
            raise Problem("the radio did not start; what it said is above")

    async def command(self, line):
        async with self.lock:
            self.process.stdin.write(f"{line}\n".encode())
            answer = (await self.process.stdout.readline()).decode().strip()
        if answer != "ok":
            raise Problem(f"radio: {line}: {answer or 'it has ended'}")


class Brick:
    """One virtual machine."""

    def __init__(self, setup, image, folder, print_line):
        self.setup = setup
        self.image = image
        self.radio_socket = folder / setup.id
        self.folder = folder / f"{setup.id}.brick"  # of this brick alone: sockets, program files, logs
        self.output = self.folder / "output.log"  # what programs say
        self.print_line = print_line  # None: the screen is for a shell
        self.following = None
        self.process = None
        self.control = None  # reader and writer of the port for orders
        self.screen = None  # of the port for a shell

    async def start(self):
        """Starts the machine; ready() waits for it."""
        self.folder.mkdir()
        await asyncio.start_unix_server(self.take_control, self.folder / "control", limit=2**20)
        await asyncio.start_unix_server(self.take_screen, self.folder / "screen")
        self.output.touch()
        arch = self.image.arch
        # What programs say goes to a file: to a socket, QEMU drops what does not fit.
        screen = f"file,path={self.output}" if self.print_line else f"socket,path={self.folder / 'screen'}"
        ports = []
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
            self.following = asyncio.create_task(self.follow_output())

    def pack_initrd(self):
        """The image's archives and one with the brick's name and files; the kernel unpacks one after the other."""
        files = Archive(None, self.folder / "files")
        files.write("brick/name", f"{self.setup.name}\n")
        for file in self.setup.files:
            shutil.copy2(file, files.path(f"brick/run/{Path(file).name}"))
        files.pack(self.folder / "files.cpio")
        with (self.folder / "initrd").open("wb") as initrd:
            for archive in *self.image.archives(self.setup.sdp, self.setup.python), self.folder / "files.cpio":
                initrd.write(archive.read_bytes())
        return self.folder / "initrd"

    async def take_control(self, reader, writer):
        self.control = reader, writer

    async def take_screen(self, reader, writer):
        self.screen = reader, writer

    async def follow_output(self):
        """Prints what the brick says as it comes, until the machine has ended."""
        rest = b""
        with self.output.open("rb") as output:
            while True:
                ended = self.process.returncode is not None
                data = output.read(LONGEST_LINE)
                *lines, rest = (rest + data).split(b"\n")
                if len(rest) >= LONGEST_LINE or (ended and not data and rest):
                    lines, rest = [*lines, rest], b""
                for line in lines:
                    self.print_line(self.setup.name, line)
                if not data and ended:
                    return
                await asyncio.sleep(0 if data else FOLLOW_PAUSE)

    async def order(self, line):
        self.control[1].write(f"{line}\n".encode())

    async def answer(self):
        """The next line from the brick; a Problem when it has gone."""
        line = await self.control[0].readline()
        if not line:
            raise Problem(f"{self.setup.name} has ended unexpectedly\n{self.last_words()}")
        return line.decode(errors="replace").strip()

    async def ready(self):
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

    async def run(self, command):
        """Runs a command in the brick; its status."""
        await self.order(f"run {command}")
        return int((await self.answer()).removeprefix("ended "))

    async def switch_off(self):
        await self.order("off")
        try:
            await asyncio.wait_for(self.process.wait(), OFF_TIMEOUT)
        except TimeoutError:
            raise Problem(f"{self.setup.name} did not switch off\n{self.last_words()}") from None
        if re.search("kernel BUG|Oops", (self.folder / "console.log").read_text(errors="replace")):
            raise Problem(f"the kernel of {self.setup.name} failed\n{self.last_words()}")

    def last_words(self):
        """The end of what the machine and its kernel said."""
        words = []
        for name in "qemu.log", "console.log":
            with suppress(OSError):
                words += (self.folder / name).read_text(errors="replace").splitlines()[-12:]
        return "\n".join(words)


class Lab:
    """The radio and its bricks, from start to end; nothing of them is left afterwards, whatever happens between.

    phantoms  devices without a host: pairs of name and address
    trace     folder for HCI captures, or None
    keep      folder for logs of kernels, QEMU and programs, or None
    form      how what a brick says is printed
    shell     name of the brick whose screen is for a shell, or None
    """

    def __init__(self, image, setups, phantoms=(), speed=1, trace=None, keep=None, form="{name} | ", shell=None):
        self.folder = Path(tempfile.mkdtemp(prefix="tav-lab-"))
        self.phantoms = phantoms
        self.speed = speed
        self.trace = trace
        self.keep = keep
        self.printer = Printer(form, b"\r\n" if shell else b"\n")  # a shell has the terminal in raw mode
        self.radio = Radio(self.folder)
        self.bricks = {
            setup.name: Brick(setup, image, self.folder, None if setup.name == shell else self.printer.put)
            for setup in setups
        }

    async def __aenter__(self):
        try:
            if self.keep:
                self.keep.mkdir(parents=True, exist_ok=True)
            await self.radio.start([brick.setup for brick in self.bricks.values()], self.speed, self.trace)
            for name, address in self.phantoms:
                await self.radio.command(f"device {name} {address}")
            for brick in self.bricks.values():
                await brick.start()
            await together(*(brick.ready() for brick in self.bricks.values()))
        except BaseException:
            await self.__aexit__()
            raise
        return self

    async def __aexit__(self, *_):
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

    async def switch_off(self):
        await together(*(brick.switch_off() for brick in self.bricks.values()))

    def keep_logs(self):
        for brick in self.bricks.values() if self.keep else ():
            for name in "console.log", "qemu.log", "output.log":
                with suppress(OSError):
                    shutil.copy(brick.folder / name, self.keep / f"{brick.setup.id}.{name}")


async def self_test(image):
    """Whether failed connects leave the kernel of an image alive."""
    async with Lab(image, [Setup("Probe", "02:00:00:00:00:01")]) as lab:
        status = await lab.bricks["Probe"].run("/self-test >/dev/null 2>&1")
        await lab.switch_off()
        return status == 0
