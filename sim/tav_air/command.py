"""tav-air: one program as a brick on the simulated air, or several bricks on an air of their own."""

import argparse
import os
import re
import sys
from collections.abc import Sequence
from typing import NoReturn

from . import air
from .process import Problem, guarded, say

EXAMPLES = """examples:
  {me} Robot2 -- ./program argument ...
  {me} --speed 20 Robot1 -- ./program
  {me} --service 'Lights|On and off|Me=16' Robot2 -- ./program
  {me} --faults 'connect:1=ECONNREFUSED send:3=vanish' Robot1 -- ./program
  {me} run Robot2='./server' Robot1='./client Robot2'
  {me} run --help
"""
CHECKOUT = """
The library is taken from the build folder $TAV_BUILD, else from the newer of
build/dev and build/release.
"""


class Parser(argparse.ArgumentParser):
    """Tells in one line what is wrong."""

    def error(self, message: str) -> NoReturn:
        say(f"tav-air: {message} ({self.prog} --help)")
        sys.exit(2)


def own_name() -> str:
    return "tav-air" if air.INSTALLED.is_file() else "sim/tav-air"


def get_version(filled_in: str) -> str:
    """The version that was filled in where this is installed; in a checkout the header's."""
    if not filled_in.startswith("@"):
        return filled_in
    header = (air.ROOT / "bluetooth" / "tav_version.h").read_text()
    return ".".join(re.findall(r"(?:MAJOR|MINOR|PATCH) (\d+)", header))


def make_parser(version: str) -> Parser:
    me = own_name()
    parser = Parser(
        prog=me,
        usage=f"{me} [options] BRICK -- PROGRAM [ARGUMENT ...]\n       {me} run [options] BRICK=PROGRAM ...",
        description="Runs a program as the brick of this name on the simulated air. Bricks on the same air see each "
        "other; when a program ends, its brick is gone. With run: several bricks, on an air of their own.",
        epilog=EXAMPLES.format(me=me) + ("" if air.INSTALLED.is_file() else CHECKOUT),
        formatter_class=argparse.RawDescriptionHelpFormatter,
        allow_abbrev=False,
    )
    add = parser.add_argument
    add("brick", nargs="?", metavar="BRICK", help="its name")
    add("--air", metavar="NAME", help="the air (default: $TAV_AIR, else one of your own)")
    add("--address", metavar="ADDRESS", help="like 02:00:00:00:00:01 (default: made from the name)")
    add("--speed", metavar="N", help="time on the air runs N times as fast (default: $TAV_AIR_SPEED, else 1)")
    add(
        "--service",
        action="append",
        default=[],
        metavar="TEXT",
        help="an SDP record: NAME=CHANNEL or NAME|DESCRIPTION|PROVIDER=CHANNEL, or 0x and its bytes; several times",
    )
    add(
        "--state",
        metavar="WORDS",
        help="down (adapter switched off), absent (out of range), hidden (from inquiries), nameless, no-sdp; "
        "several in one argument",
    )
    add(
        "--faults",
        metavar="RULES",
        help="calls that fail: CALL:N=ERRNO (* for every call), send:N=short:BYTES, CALL:N=vanish",
    )
    add("--record", metavar="FOLDER", help="write what it sends and receives to FOLDER/BRICK.pcapng, for Wireshark")
    add("--no-adapter", action="store_true", help="a brick without Bluetooth; give no name then")
    add("--trace", action="store_true", help="print every Bluetooth call to stderr")
    add("--version", action="version", version=f"tav-air {get_version(version)}", help="print the version")
    return parser


def run_one(parser: Parser, words: Sequence[str]) -> int:
    """Becomes the program; returns only when that cannot be started."""
    end = words.index("--") if "--" in words else len(words)
    arguments, others = parser.parse_known_args(words[:end])
    command = words[end + 1 :]
    if others and others[0].startswith("-"):
        parser.error(f"unknown option {others[0]}")
    if arguments.no_adapter and arguments.brick:
        others.insert(0, arguments.brick)
    elif not arguments.no_adapter and not arguments.brick:
        parser.error("the brick's name is missing")
    if others or end == len(words):
        parser.error(f"-- is missing before the program{', at ' + others[0] if others else ''}")
    if not command:
        parser.error("the program is missing")
    settings = {
        "TAV_AIR": arguments.air,
        "TAV_AIR_BRICK": arguments.brick,
        "TAV_AIR_ADDRESS": arguments.address,
        "TAV_AIR_SPEED": arguments.speed,
        "TAV_AIR_SERVICES": "".join(f"{text}\n" for text in arguments.service) or None,
        "TAV_AIR_STATE": arguments.state,
        "TAV_AIR_FAULTS": arguments.faults,
        "TAV_AIR_RECORD": arguments.record,
        "TAV_AIR_TRACE": "1" if arguments.trace else None,
    }
    library = air.find_library()
    given = {name: value for name, value in settings.items() if value is not None}
    environment = air.put_on_air(os.environ, library, given)
    if not air.can_be_brick(command[0], library):
        say(
            f"tav-air: {command[0]} is linked statically, or for another machine: it cannot be a brick on the simulated air"
        )
    try:
        os.execvpe(command[0], list(command), environment)
    except FileNotFoundError:
        say(f"tav-air: there is no program {command[0]}")
        return 127
    except OSError as error:
        say(f"tav-air: {command[0]}: {error.strerror}")
        return 126


def main(version: str) -> int:
    words = sys.argv[1:]
    if words[:1] == ["run"]:
        from .run import run_several  # here: what one program needs not is not loaded for it

        return guarded("tav-air", lambda: run_several(Parser, own_name(), words[1:]))
    if words[:1] == ["watch"]:
        from .watch import watch_air

        return guarded("tav-air", lambda: watch_air(Parser, own_name(), words[1:]))
    try:
        return run_one(make_parser(version), words)
    except Problem as problem:
        say(f"tav-air: {problem}")
        return 1
