"""Runs the user's own programs in bricks."""

import asyncio
import os
import re
import shlex
import signal
import sys
import termios
import time
import tty
from pathlib import Path

from bricks import Lab, Setup, together
from image import ARCHS, Problem

BRICK = re.compile(r"(?P<name>[^=@/]+)(@(?P<address>([0-9A-Fa-f]{2}:){5}[0-9A-Fa-f]{2}))?(=(?P<program>.+))?", re.S)
FAULTS = {"out": 0, "back": 0, "nameless": 0, "named": 0, "refuse": 0, "accept": 0, "slow": 1}  # numbers after the name


def say(text):
    print(text, file=sys.stderr, flush=True)


def split(text):
    try:
        return shlex.split(text)
    except ValueError as error:
        raise Problem(f"{text}: {error}") from None


def parse_brick(text, position):
    """Name, address and program of BRICK[@ADDRESS][=PROGRAM]; Robot2 gets an address that ends in 02."""
    match = BRICK.fullmatch(text)
    if not match or len(match["name"].encode()) > 248:
        raise Problem(f"'{text}' is not BRICK[@ADDRESS][=PROGRAM], with an address like 02:00:00:00:00:01")
    number = re.search(r"(?<!\d)\d{1,2}$", match["name"])
    byte = int(number[0]) if number else 0x80 + position
    return match["name"], (match["address"] or f"02:00:00:00:00:{byte:02X}").upper(), match["program"]


def parse_program(text, setup, arch):
    """The command for the brick; files of this machine that it names become the brick's."""
    if "\n" in text:
        raise Problem(f"{setup.name}: a program is one line; put more into a script")
    words = split(text)
    for position, word in enumerate(words):
        if "/" in word and Path(word).is_file():
            check_program(word, setup, arch)
            setup.files.append(word)
            words[position] = f"./{Path(word).name}"
        elif "/" in word and position == 0:
            raise Problem(f"there is no program {word}")
    return " ".join(map(shlex.quote, words))


def check_program(file, setup, arch):
    """What the brick could not run is refused here, where it can be explained."""
    with open(file, "rb") as program:
        start = program.read(64)
    machine = int.from_bytes(start[18:20], "little")
    if start.startswith(b"\x7fELF") and machine != arch.elf_machine:
        raise Problem(f"{file} is built for another processor than the brick's ({arch.name}); docs/lab.md says more")
    if start.startswith(b"#!") and b"python" in start.split(b"\n")[0] and not setup.python:
        raise Problem(f"{file} needs Python: --python {setup.name}")


def parse_fault(text, ids):
    """Seconds and command of '[SECONDS] COMMAND NAME [NUMBER]'."""
    words = split(text)
    seconds = float(words.pop(0)) if words and re.fullmatch(r"\d+(\.\d+)?", words[0]) else 0
    word, name, *numbers = words if len(words) >= 2 else ["", ""]
    if len(numbers) != FAULTS.get(word) or not all(re.fullmatch(r"\d{1,9}", number) for number in numbers):
        raise Problem(f"--radio '{text}' is none of '[SECONDS] {' | '.join(FAULTS)} NAME', slow with bytes a second")
    if name not in ids:
        raise Problem(f"--radio '{text}' names {name}, which is neither a brick nor a device")
    return seconds, " ".join([word, ids[name], *numbers])


def parse(arguments, specifications):
    """What the command line says: setups, programs by brick, other devices, and faults."""
    setups, programs = [], {}
    for position, text in enumerate(specifications):
        name, address, program = parse_brick(text, position)
        setup = Setup(name, address, files=[*arguments.file])
        setup.card, setup.sdp, setup.python = (name in getattr(arguments, flag) for flag in ("card", "sdp", "python"))
        setups.append(setup)
        if program:
            programs[name] = parse_program(program, setup, ARCHS[arguments.arch])
        for file in setup.files:
            if not Path(file).is_file():
                raise Problem(f"there is no file {file}")
        if len({Path(file).name for file in setup.files}) < len(set(setup.files)):
            raise Problem(f"two files for {name} have the same name")
    devices = [parse_brick(text, 0x40 + position) for position, text in enumerate(arguments.device)]
    for name, _, program in devices:
        if program or re.search(r"\s", name):
            raise Problem(f"--device {name}: a device has a name without blanks, and no program")
    phantoms = [(name, address) for name, address, _ in devices]
    ids = {setup.name: setup.id for setup in setups} | {name: name for name, _ in phantoms}
    addresses = [setup.address for setup in setups] + [address for _, address in phantoms]
    if min(len(set(ids.values())), len(set(addresses))) < len(addresses):
        raise Problem("two bricks or devices have the same name or address")
    for name in filter(None, [*arguments.card, *arguments.sdp, *arguments.python, arguments.shell]):
        if name not in [setup.name for setup in setups]:
            raise Problem(f"an option names {name}, which is none of the bricks")
    if arguments.until and arguments.until not in programs:
        raise Problem(f"--until names {arguments.until}, which runs no program")
    if arguments.shell in programs:
        raise Problem(f"{arguments.shell} has a program already; start it from the shell, with --file")
    if arguments.shell and not sys.stdin.isatty():
        raise Problem("--shell needs a terminal")
    return setups, programs, phantoms, [parse_fault(text, ids) for text in arguments.radio]


async def run(image, arguments, setups, programs, phantoms, faults):
    """Boots the bricks and runs their programs; the highest of their statuses."""
    form = f"{{name:{max(len(setup.name) for setup in setups)}}} | "
    started = time.monotonic()
    options = arguments.speed or 1, arguments.trace, arguments.keep, form, arguments.shell
    async with Lab(image, setups, phantoms, *options) as lab:
        say(f"Ready after {time.monotonic() - started:.0f} s")
        jobs = {name: run_program(lab.bricks[name], program) for name, program in programs.items()}
        if arguments.shell:
            jobs[arguments.shell] = open_shell(lab.bricks[arguments.shell])
        ended = asyncio.Event()

        async def work():
            ordered = sorted(jobs, key=lambda name: name != arguments.until)
            statuses = await together(*(jobs[name] for name in ordered), first=1 if arguments.until else None)
            ended.set()
            return max(statuses, default=0)

        status, *_ = await together(work(), *(steer(lab.radio, *fault, ended) for fault in faults))
        if not arguments.until:
            await lab.switch_off()
    return status


async def run_program(brick, command):
    status = await brick.run(command)
    if status > 128:
        say(f"{brick.setup.name}'s program was ended by signal {status - 128} ({signal.strsignal(status - 128)})")
    elif status == 127:
        say(
            f"{brick.setup.name}: the program, or a library that it needs, is not in the brick; "
            "one of this machine is named with a / (./my_program)"
        )
    elif status:
        say(f"{brick.setup.name}'s program ended with status {status}")
    return status


async def steer(radio, seconds, command, ended):
    try:
        await asyncio.wait_for(ended.wait(), seconds)
        say(f"All programs had ended before '{command}'")
    except TimeoutError:
        await radio.command(command)


async def open_shell(brick):
    """Connects this terminal with a shell in the brick, until it exits."""
    say(f"A shell in {brick.setup.name}; leave it with exit")
    reader, writer = brick.screen
    before = termios.tcgetattr(sys.stdin)
    loop = asyncio.get_running_loop()

    async def show():
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
