"""Several bricks by one command line, which means the same on the simulated air and in the lab: its options, what they
ask for, and when programs start."""

import asyncio
import os
import re
import shlex
import signal
from argparse import ArgumentParser, Namespace
from collections.abc import Callable, Coroutine, Mapping, Sequence
from dataclasses import dataclass, field
from pathlib import Path
from typing import Any, Protocol

from .names import LONGEST_NAME, get_address, get_id
from .process import Problem, say

BRICK = re.compile(r"(?P<name>[^=@/]+)(@(?P<address>([0-9A-Fa-f]{2}:){5}[0-9A-Fa-f]{2}))?(=(?P<program>.+))?", re.S)
BRICKS = "BRICK[@ADDRESS][=PROGRAM]"
TRAITS = "card", "sdp", "python"  # options that name bricks
PATIENCE = 10  # s, until it is told what a program waits for


@dataclass
class Setup:
    """What the user says of a brick."""

    name: str
    address: str
    program: list[str] = field(default_factory=list)  # its words; none: it only is there
    needs: list[str] = field(default_factory=list)  # bricks that must listen before the program starts
    files: dict[str, Path] = field(default_factory=dict)  # for the program's folder, under these names
    card: bool = False  # project folders with SD_Card
    sdp: bool = False  # has an SDP server
    python: bool = False  # has Python

    @property
    def id(self) -> str:
        return get_id(self.name)


@dataclass
class Plan:
    """What the command line asks for."""

    setups: list[Setup]
    phantoms: list[tuple[str, str]]  # devices without a program: names and addresses
    faults: list[tuple[float, str]]  # seconds, and commands to the radio, with names as Setup.id

    def programs(self) -> list[Setup]:
        return [setup for setup in self.setups if setup.program]


class Stage(Protocol):
    """Where bricks are."""

    async def run(self, setup: Setup, listens: Callable[[], None] | None) -> int:
        """Runs a brick's program; its status. Calls `listens`, if that is given, when a channel of it listens."""

    async def command(self, line: str) -> None:
        """A command to the radio."""


# ---- The command line -----------------------------------------------------------------------------------------------


def add_options(parser: ArgumentParser, more: str) -> None:
    """Those that mean the same everywhere; `more` names the document that says more."""
    add = parser.add_argument
    add("bricks", nargs="*", metavar=BRICKS, help="a brick, and what it runs, with arguments; or a file of such words")
    add("--file", action="append", default=[], metavar="FILE", help="a file for the folder that programs run in")
    add("--libraries", action="append", default=[], type=Path, metavar="FOLDER", help="holds libraries of programs")
    add("--card", action="append", default=[], metavar="BRICK", help="a brick with ../prjs/SD_Card/")
    add("--sdp", action="append", default=[], metavar="BRICK", help="a brick with an SDP server")
    add("--python", action="append", default=[], metavar="BRICK", help="a brick with Python")
    add("--device", action="append", default=[], metavar="NAME[@ADDRESS]", help="one more device, which never connects")
    add("--radio", action="append", default=[], metavar="'[SECONDS] COMMAND'", help=f"a fault, and when ({more})")
    add("--record", type=Path, metavar="FOLDER", help="writes what bricks do to FOLDER/BRICK.pcapng, for Wireshark")
    add("--speed", type=float, metavar="N", help="all times of the radio run N times as fast")
    add("--at-once", action="store_true", help="starts all programs at once, whatever they need")
    add("--until", metavar="BRICK", help="ends when the program of this brick has ended")


def read_world(path: Path) -> list[str]:
    """The words of a file: quoted as for a shell, on as many lines as wanted; # begins a comment."""
    try:
        return shlex.split(path.read_text(), comments=True)
    except ValueError as error:
        raise Problem(f"{path}: {error}") from None


def parse_arguments(parser: ArgumentParser, words: Sequence[str]) -> Namespace:
    """The command line, with what the files say that it names in place of bricks. It has the last word."""
    arguments = parser.parse_intermixed_args(words)
    worlds = [word for word in arguments.bricks if "=" not in word and Path(word).is_file()]
    if worlds:
        bricks = [word for word in arguments.bricks if word not in worlds]
        said = parser.parse_intermixed_args([word for world in worlds for word in read_world(Path(world))])
        bricks = said.bricks + bricks
        arguments = parser.parse_intermixed_args(words, said)
        arguments.bricks = bricks
    if arguments.speed is not None and not arguments.speed > 0:
        parser.error("--speed is a number above 0")
    return arguments


def split(text: str) -> list[str]:
    try:
        return shlex.split(text)
    except ValueError as error:
        raise Problem(f"{text}: {error}") from None


def parse_brick(text: str, position: int) -> Setup:
    match = BRICK.fullmatch(text)
    if not match or len(match["name"].encode()) > LONGEST_NAME:
        raise Problem(f"'{text}' is not {BRICKS}, with an address like 02:00:00:00:00:01")
    address = match["address"] or get_address(match["name"], position)
    program = split(match["program"] or "")
    if program and "/" in program[0]:
        if not Path(program[0]).is_file():
            raise Problem(f"there is no program {program[0]}")
        if not os.access(program[0], os.X_OK):
            raise Problem(f"{program[0]} may not be run: chmod +x {shlex.quote(program[0])}")
    return Setup(match["name"], address.upper(), program)


def find_needs(setup: Setup, before: Sequence[Setup]) -> list[str]:
    """The bricks that a program needs: those before it that its arguments name; if they name none, the first.

    But none that needs it: whose arguments name it, where it names none.
    """
    named = [other.name for other in before if other.name in setup.program[1:]]
    return named or [other.name for other in before[:1] if setup.name not in other.program[1:]]


def parse_fault(text: str, ids: Mapping[str, str], commands: Mapping[str, int]) -> tuple[float, str]:
    """Seconds and command of '[SECONDS] COMMAND NAME [NUMBER]'."""
    words = split(text)
    seconds = float(words.pop(0)) if words and re.fullmatch(r"\d+(\.\d+)?", words[0]) else 0
    word, name, *numbers = words if len(words) >= 2 else ["", ""]
    if len(numbers) != commands.get(word) or not all(re.fullmatch(r"\d{1,9}", number) for number in numbers):
        forms = " | ".join(f"{word} NAME{' NUMBER' * count}" for word, count in commands.items())
        raise Problem(f"--radio '{text}' is not '[SECONDS] COMMAND', with one of {forms}")
    if name not in ids:
        raise Problem(f"--radio '{text}' names {name}, which is neither a brick nor a device")
    return seconds, " ".join([word, ids[name], *numbers])


def add_file(text: str, setup: Setup) -> None:
    file = Path(text)
    if not file.is_file():
        raise Problem(f"there is no file {file}")
    if setup.files.setdefault(file.name, file) != file:
        raise Problem(f"two files for {setup.name} have the same name, {file.name}")


def parse(arguments: Namespace, commands: Mapping[str, int]) -> Plan:
    """What the command line asks for; a Problem where it makes no sense.

    `commands` are those that the radio knows, with the count of numbers that follow the name.
    """
    if not arguments.bricks:
        raise Problem("no brick is named")
    setups: list[Setup] = []
    for position, text in enumerate(arguments.bricks):
        setup = parse_brick(text, position)
        setup.card, setup.sdp, setup.python = (setup.name in getattr(arguments, trait) for trait in TRAITS)
        for file in arguments.file:
            add_file(file, setup)
        if not arguments.at_once:
            setup.needs = find_needs(setup, [other for other in setups if other.program])
        setups.append(setup)
    phantoms: list[tuple[str, str]] = []
    for position, text in enumerate(arguments.device):
        device = parse_brick(text, 0x40 + position)
        if device.program or re.search(r"\s", device.name):
            raise Problem(f"--device {device.name}: a device has a name without blanks, and no program")
        phantoms.append((device.name, device.address))
    ids = {setup.name: setup.id for setup in setups} | {name: name for name, _ in phantoms}
    addresses = [setup.address for setup in setups] + [address for _, address in phantoms]
    if min(len(set(ids.values())), len(set(addresses))) < len(addresses):
        raise Problem("two bricks or devices have the same name or address")
    check_names([name for trait in TRAITS for name in getattr(arguments, trait)], setups)
    plan = Plan(setups, phantoms, [parse_fault(text, ids, commands) for text in arguments.radio])
    if arguments.until and arguments.until not in [setup.name for setup in plan.programs()]:
        raise Problem(f"--until names {arguments.until}, which runs no program")
    return plan


def check_names(names: Sequence[str], setups: Sequence[Setup]) -> None:
    for name in names:
        if name not in [setup.name for setup in setups]:
            raise Problem(f"an option names {name}, which is none of the bricks")


# ---- The run --------------------------------------------------------------------------------------------------------


async def together(*coroutines: Coroutine[Any, Any, Any], first: int | None = None) -> list[Any]:
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


def tell_end(name: str, status: int) -> None:
    if status > 128:
        say(f"{name}'s program was ended by signal {status - 128} ({signal.strsignal(status - 128)})")
    elif status:
        say(f"{name}'s program ended with status {status}")


async def play(
    stage: Stage, plan: Plan, until: str | None, more: Mapping[str, Coroutine[None, None, int]] | None = None
) -> int:
    """Runs the programs of a plan, and `more`, each one when the bricks that it needs listen or have ended.

    The highest of their statuses; or with `until`, that of this brick's program as soon as it ends: the others are
    cancelled. Commands to the radio count their seconds from here.
    """
    ready = {setup.name: asyncio.Event() for setup in plan.programs()}
    needed = {name for setup in plan.setups for name in setup.needs}
    ended = asyncio.Event()

    async def wait_for(setup: Setup, name: str) -> None:
        try:
            async with asyncio.timeout(PATIENCE):
                await ready[name].wait()
        except TimeoutError:
            say(
                f"{setup.name}'s program starts when a channel of {name} listens (--at-once starts all programs at once)"
            )
            await ready[name].wait()

    async def run_program(setup: Setup) -> int:
        for name in setup.needs:
            await wait_for(setup, name)
        status = await stage.run(setup, ready[setup.name].set if setup.name in needed else None)
        if setup.name != until:
            ready[setup.name].set()
        tell_end(setup.name, status)
        return status

    async def steer(seconds: float, command: str) -> None:
        try:
            await asyncio.wait_for(ended.wait(), seconds)
            say(f"All programs had ended before '{command}'")
        except TimeoutError:
            await stage.command(command)

    async def work() -> int:
        jobs = {setup.name: run_program(setup) for setup in plan.programs()} | dict(more or {})
        ordered = sorted(jobs, key=lambda name: name != until)
        statuses: list[int]
        statuses = await together(*(jobs[name] for name in ordered), first=1 if until else None)
        ended.set()
        return max(statuses, default=0)

    status, *_ = await together(work(), *(steer(*fault) for fault in plan.faults))
    return int(status)
