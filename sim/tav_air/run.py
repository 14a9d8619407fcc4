"""tav-air run: several bricks on an air of their own."""

import argparse
import asyncio
import os
import shutil
import signal
from argparse import ArgumentParser, Namespace
from collections.abc import Callable, Sequence
from concurrent.futures import ThreadPoolExecutor
from contextlib import AbstractContextManager, nullcontext
from pathlib import Path
from typing import Any

from .air import Air, can_be_brick
from .process import Printer, Problem, say
from .world import Plan, Setup, add_options, check_names, parse, parse_arguments, play

EXAMPLES = """examples:
  {me} run Robot2=./my_server Robot1='./my_client Robot2'
  {me} run --speed 20 --radio '5 out Robot2' --radio '9 back Robot2' Robot2=./my_server Robot1=./my_client
  {me} run world.txt

tav-lab takes the same line.
"""
COMMANDS = {"out": 0, "back": 0, "nameless": 0, "named": 0}  # of the radio; no numbers follow the name
STATES = {"out": "absent", "nameless": "nameless"}  # what a brick is by them
OPPOSITES = {"back": "absent", "named": "nameless"}  # and no longer is
SERIAL_PORTS = [f"Serial Port|COM Port|BlueZ={channel}" for channel in (1, 16)]  # as bricks of the lab list them
GRACE = 2.0  # s, to end well
LOOK = 0.05  # s, between looks at what listens


def parse_brick_options(texts: Sequence[str], option: str, setups: Sequence[Setup]) -> dict[str, list[str]]:
    """Of BRICK=TEXT: what is said of each brick."""
    said: dict[str, list[str]] = {}
    for text in texts:
        name, equals, rest = text.partition("=")
        if not equals:
            raise Problem(f"{option} '{text}' is not BRICK=TEXT")
        said.setdefault(name, []).append(rest)
    check_names([*said], setups)
    return said


class AirStage:
    """Bricks on the simulated air, each there from start to end, whether its program runs or not, as in the lab."""

    def __init__(self, air: Air, plan: Plan, arguments: Namespace) -> None:
        self.air = air
        self.libraries = ":".join(str(folder.resolve()) for folder in arguments.libraries)
        self.names = {setup.id: setup.name for setup in plan.setups} | {name: name for name, _ in plan.phantoms}
        self.states: dict[str, set[str]] = {name: set() for name in self.names.values()}
        self.services = parse_brick_options(arguments.service, "--service", plan.setups)
        self.faults = parse_brick_options(arguments.faults, "--faults", plan.setups)
        air.addresses |= {setup.name: setup.address for setup in plan.setups} | dict(plan.phantoms)
        for setup in plan.setups:
            folder = air.run_folder(setup.name)
            if setup.card:
                (folder.parent / "prjs" / "SD_Card").mkdir()
            for name, file in setup.files.items():
                shutil.copy2(file, folder / name)
            if setup.sdp:
                self.services.setdefault(setup.name, [])[:0] = SERIAL_PORTS
            if not setup.program or "vanish" not in "".join(self.faults.get(setup.name, [])):
                air.device(setup.name, **self.options(setup.name))
        for name, _ in plan.phantoms:
            air.device(name, **self.options(name))

    def options(self, name: str) -> dict[str, Any]:
        states = self.states[name] | (set() if name in self.services else {"no-sdp"})
        return {"services": self.services.get(name, []), "state": " ".join(sorted(states))}

    async def run(self, setup: Setup, listens: Callable[[], None] | None) -> int:
        options: dict[str, Any] = self.options(setup.name) | {"faults": " ".join(self.faults.get(setup.name, []))}
        if self.libraries:
            options["LD_LIBRARY_PATH"] = self.libraries
        try:
            brick = self.air.brick(setup.name, *setup.program, **options)
        except FileNotFoundError:
            raise Problem(f"{setup.name}: there is no program {setup.program[0]}") from None
        except OSError as error:
            raise Problem(f"{setup.name}: {setup.program[0]}: {error.strerror}") from None
        brick.close_input()
        waiting = asyncio.get_running_loop().run_in_executor(None, brick.end)
        try:
            before: set[int] = set()
            while listens and not waiting.done():
                channels = self.air.channels(setup.name)
                if channels and channels == before:  # it may open several, one after the other
                    listens()
                    break
                before = channels
                await asyncio.wait([waiting], timeout=LOOK)
            await asyncio.wait([waiting])
            return waiting.result()
        except asyncio.CancelledError:
            brick.signal(signal.SIGTERM)
            await asyncio.wait([waiting], timeout=GRACE)
            raise

    async def command(self, line: str) -> None:
        word, brick = line.split()
        name = self.names[brick]
        states = self.states[name]
        (states.add if word in STATES else states.discard)(STATES.get(word) or OPPOSITES[word])
        try:
            self.air.set_state(name, self.options(name)["state"])
        except AssertionError as failed:
            raise Problem(str(failed)) from None


def run_several(make_parser: Callable[..., ArgumentParser], me: str, words: Sequence[str]) -> int:
    parser = make_parser(
        prog=f"{me} run",
        usage=f"{me} run [options] BRICK[@ADDRESS][=PROGRAM] ...",
        description="Runs programs as bricks on a simulated air of their own, each in a folder of its own, and ends with "
        "the highest of their statuses. A program starts when the bricks that it needs listen on a channel: those before "
        "it that its arguments name, or the first if they name none.",
        epilog=EXAMPLES.format(me=me),
        formatter_class=argparse.RawDescriptionHelpFormatter,
    )
    add_options(parser, "sim/README.md")
    add = parser.add_argument
    add("--service", action="append", default=[], metavar="BRICK=TEXT", help="an SDP record of a brick")
    add("--faults", action="append", default=[], metavar="BRICK=RULES", help="calls of a brick's program that fail")
    add("--watch", action="store_true", help="prints the address of a page that shows what happens")
    arguments = parse_arguments(parser, words)
    plan = parse(arguments, COMMANDS)
    printer = Printer(f"{{name:{max(len(setup.name) for setup in plan.setups)}}} | ")
    try:
        with Air(arguments.speed or get_speed(), printer.put, arguments.record) as air:
            warn(air, plan)
            with watched(air) if arguments.watch else nullcontext():
                return asyncio.run(run_plan(air, plan, arguments))
    finally:
        printer.close()


def watched(air: Air) -> AbstractContextManager[None]:
    from .watch import Watch, served_beside  # here: it is much

    return served_beside(
        Watch(air.name, Path(air.record or air.folder / "recordings"), records=True if air.record else None)
    )


def get_speed() -> float:
    text = os.environ.get("TAV_AIR_SPEED") or "1"
    try:
        return float(text)
    except ValueError:
        raise Problem(f"TAV_AIR_SPEED: '{text}' is no number") from None


def warn(air: Air, plan: Plan) -> None:
    for setup in plan.programs():
        if not can_be_brick(setup.program[0], air.library):
            say(f"{setup.name}: {setup.program[0]} is linked statically, or for another machine: it is not on the air")


async def run_plan(air: Air, plan: Plan, arguments: Namespace) -> int:
    threads = ThreadPoolExecutor(max_workers=len(plan.setups))
    asyncio.get_running_loop().set_default_executor(threads)  # one waits for each program
    stage = AirStage(air, plan, arguments)
    try:
        return await play(stage, plan, arguments.until)
    finally:
        for brick in air.bricks:
            brick.kill()
