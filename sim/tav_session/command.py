"""tav-session: what it is told, and what it writes."""

import argparse
import gc
import os
import sys
from pathlib import Path

from tav_air.command import Parser, get_version
from tav_air.process import Problem, guarded, say

from . import render, replay
from .analysis import Row, analyse
from .capture import read
from .follow import Follower

PAUSE = 0.5  # s, between looks at files that are still to come

EXAMPLES = """examples:
  tav-session recording/*.pcapng -o session.html
  tav-session captures/*.pcapng --text
  tav-session recording/*.pcapng --text --follow
  tav-session recording/*.pcapng --replay Robot2 -- tavbt pipe Robot1
"""


def make_parser(version: str) -> argparse.ArgumentParser:
    parser = Parser(
        prog="tav-session",
        usage="tav-session FILE ... [-o PAGE | --text [--follow] | --json | --mermaid]\n"
        "       tav-session FILE ... --replay BRICK [--to PEER] [-- PROGRAM [ARGUMENT ...]]",
        description="Shows what bricks said to each other: recordings of tav-air, captures of tav-lab and of btmon, as a "
        "page that needs no network, or as text.",
        epilog=EXAMPLES,
        formatter_class=argparse.RawDescriptionHelpFormatter,
        allow_abbrev=False,
    )
    add = parser.add_argument
    add("files", nargs="+", type=Path, metavar="FILE", help="captures, of one brick each, or joined by mergecap")
    add("-o", "--output", type=Path, metavar="PAGE", help="the page (default: session.html)")
    form = parser.add_mutually_exclusive_group()
    form.add_argument("--text", action="store_true", help="lines of text instead")
    form.add_argument("--json", action="store_true", help="an object a line instead")
    form.add_argument("--mermaid", action="store_true", help="a Mermaid diagram instead, for documents")
    form.add_argument(
        "--replay",
        metavar="BRICK",
        help="the messages that this brick sent, at their times, as lines for tavbt pipe; with a program, that is given "
        "each when as many answers have come",
    )
    add("--to", default="", metavar="PEER", help="with --replay: to whom, where it sent to several")
    add("--follow", action="store_true", help="with --text: go on as the files grow, until Ctrl-C")
    add("--title", default="", help="the page's title")
    add("--version", action="version", version=f"tav-session {get_version(version)}", help="print the version")
    return parser


def follow(files: list[Path]) -> int:
    """Each row when it is there; one that waits is told again when it is known what became of it."""
    begin = 0.0
    with Follower(lambda: files) as follower:
        while True:
            rows: list[Row] = [row for row in follower.look(PAUSE) if "removed" not in row]
            begin = begin or (rows[0]["time"] if rows else 0.0)
            for row in rows:
                print(render.text_line(row, begin, sys.stdout.isatty()), flush=True)


def run(version: str) -> int:
    parser = make_parser(version)
    words = sys.argv[1:]
    end = words.index("--") if "--" in words else len(words)
    arguments, program = parser.parse_args(words[:end]), words[end + 1 :]
    if arguments.follow and not arguments.text:
        parser.error("--follow goes with --text")
    if (program or arguments.to) and not arguments.replay:
        parser.error("--to and a program go with --replay")
    for file in arguments.files:
        if not file.is_file() and arguments.follow:
            say(f"there is no file {file} yet")
        elif not file.is_file():
            raise Problem(f"there is no file {file}")
    return follow(arguments.files) if arguments.follow else show(arguments, program)


def show(arguments: argparse.Namespace, program: list[str]) -> int:
    gc.disable()  # all that is made is kept to the end
    session = read(arguments.files)
    if arguments.replay:
        steps, command = replay.plan(session, arguments.replay, arguments.to)
        return replay.play(steps, program) if program else replay.write(steps, command)
    rows = analyse(session)
    if not any((arguments.text, arguments.json, arguments.mermaid)):
        title = arguments.title or " ".join(session.bricks[:4]) or "Session"
        (arguments.output or Path("session.html")).write_text(render.page(session, rows, title))
        return 0
    lines = render.mermaid(session, rows) if arguments.mermaid else render.text(rows, sys.stdout.isatty())
    print(*(render.json_lines(rows) if arguments.json else lines), sep="\n", flush=True)
    return 0


def run_to_end(version: str) -> int:
    try:
        return run(version)
    except BrokenPipeError:  # nobody listens any more
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
        return 1


def main(version: str) -> int:
    return guarded("tav-session", lambda: run_to_end(version))
