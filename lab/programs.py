"""Runs the user's own programs in bricks."""

import asyncio
import os
import shlex
import sys
import termios
import time
import tty
from argparse import Namespace
from collections.abc import Callable
from dataclasses import dataclass
from pathlib import Path

from bricks import Brick, Lab
from image import Arch, Image
from libraries import add_libraries, elf_machine, python_module
from radio import RADIO_COMMANDS
from tav_air.process import Problem, say
from tav_air.world import Plan, Setup, add_file, check_names, parse, play

NO_FAULTS = ["device", "trace"]  # commands of the radio that have options of their own
FAULTS = {word: count - 1 for word, (_, count) in RADIO_COMMANDS.items() if word not in NO_FAULTS}  # numbers after NAME
INTERPRETERS = ["sh", "ash", "awk"]  # of scripts, beside python3


def bring_program(setup: Setup, arch: Arch) -> str:
    """The command for the brick; files of this machine that it names become the brick's."""
    words = list(setup.program)
    if any("\n" in word for word in words):
        raise Problem(f"{setup.name}: a program is one line; put more into a script")
    for position, word in enumerate(words):
        if "/" in word and Path(word).is_file():
            if position == 0:
                check_program(Path(word), setup)
            check_processor(Path(word), arch)
            add_file(word, setup)
            words[position] = f"./{Path(word).name}"
    return " ".join(map(shlex.quote, words))


def check_processor(file: Path, arch: Arch) -> None:
    if elf_machine(file) not in (0, arch.elf_machine):
        raise Problem(f"{file} is built for another processor than the brick's ({arch.name}); docs/lab.md says more")


def check_program(file: Path, setup: Setup) -> None:
    """What the brick could not run is refused here, where it can be explained."""
    if elf_machine(file):
        return
    with open(file, "rb") as script:
        start = script.readline(200).decode(errors="replace")
    if not start.startswith("#!"):
        raise Problem(f"{file} is neither a program nor a script, whose first line is #!/bin/sh or #!/usr/bin/python3")
    words = [word.rpartition("/")[2] for word in start[2:].split() if not word.startswith("-")]
    interpreter = words[1] if words[0:1] == ["env"] and len(words) > 1 else "".join(words[0:1])
    if interpreter == "python3":
        if not setup.python:
            raise Problem(f"{file} needs Python: --python {setup.name}")
    elif interpreter not in INTERPRETERS:
        raise Problem(f"{file} wants to be run by {interpreter}, which a brick has not: sh, awk and python3 are there")


def parse_plan(arguments: Namespace) -> Plan:
    """What the command line says; a Problem where it makes no sense."""
    plan = parse(arguments, FAULTS)
    if arguments.shell:
        check_names([arguments.shell], plan.setups)
        if arguments.shell in [setup.name for setup in plan.programs()]:
            raise Problem(f"{arguments.shell} has a program already; start it from the shell, with --file")
        if not sys.stdin.isatty():
            raise Problem("--shell needs a terminal")
    return plan


@dataclass
class LabStage:
    """Bricks of the lab."""

    lab: Lab
    commands: dict[str, str]  # by brick

    async def run(self, setup: Setup, listens: Callable[[], None] | None) -> int:
        status = await self.lab.bricks[setup.name].run(self.commands[setup.name], listens)
        if status == 127:
            say(
                f"{setup.name}: the program, or what it needs, is not in the brick; "
                "one of this machine is named with a / (./my_program)"
            )
        return status

    async def command(self, line: str) -> None:
        await self.lab.radio.command(line)


async def run(image: Image, arguments: Namespace, plan: Plan) -> int:
    """Boots the bricks and runs their programs; the highest of their statuses."""
    form = f"{{name:{max(len(setup.name) for setup in plan.setups)}}} | "
    started = time.monotonic()
    options = arguments.speed or 1, arguments.record, arguments.keep, form, arguments.shell
    commands = {setup.name: bring_program(setup, image.arch) for setup in plan.programs()}
    for setup in plan.setups:
        if setup.python:
            setup.files |= python_module(image.arch)
        add_libraries(setup.files, image.libraries(), image.arch, arguments.libraries)
    async with Lab(image, plan.setups, plan.phantoms, *options) as lab:
        say(f"Ready after {time.monotonic() - started:.0f} s")
        shell = {arguments.shell: open_shell(lab.bricks[arguments.shell])} if arguments.shell else {}
        status = await play(LabStage(lab, commands), plan, arguments.until, shell)
        if not arguments.until:
            await lab.switch_off()
    return status


async def open_shell(brick: Brick) -> int:
    """Connects this terminal with a shell in the brick, until it exits."""
    say(f"A shell in {brick.setup.name}; leave it with exit")
    assert brick.screen
    reader, writer = brick.screen
    before = termios.tcgetattr(sys.stdin)
    loop = asyncio.get_running_loop()

    async def show() -> None:
        while data := await reader.read(4096):
            os.write(sys.stdout.fileno(), data)

    showing = asyncio.create_task(show())
    try:
        tty.setraw(sys.stdin)
        loop.add_reader(sys.stdin, lambda: writer.write(os.read(sys.stdin.fileno(), 4096)))
        await brick.order("shell")
        return int((await brick.answer()).removeprefix("ended "))
    finally:
        showing.cancel()
        loop.remove_reader(sys.stdin)
        termios.tcsetattr(sys.stdin, termios.TCSADRAIN, before)
        print()
