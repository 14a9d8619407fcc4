"""The machine that the lab runs on: its release, its tools, and the commands that the lab runs on it."""

import os
import platform
import subprocess
import sys
import threading
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path

from tav_air.process import Problem, die_with_parent

LAB = Path(__file__).resolve().parent


def in_checkout() -> bool:
    """Whether this is not the installed lab."""
    return (LAB.parent / "CMakeLists.txt").is_file()


def cache() -> Path:
    """Where images are kept: below build/ in a checkout, else with the user's other caches."""
    if in_checkout():
        return LAB.parent / "build" / "lab"
    return Path(os.environ.get("XDG_CACHE_HOME") or Path.home() / ".cache") / "tav-bluetooth" / "lab"


def release() -> str:
    """The name of this machine's release: its programs need the libc of a brick of the same one."""
    try:
        about = platform.freedesktop_os_release()
    except OSError:
        return "unknown"
    return about.get("VERSION_CODENAME") or about["ID"]


@contextmanager
def step(text: str) -> Iterator[None]:
    """Says what goes on now, and with a dot every two seconds that it still does."""
    over = threading.Event()

    def show_life() -> None:
        while not over.wait(2):
            print(".", end="", file=sys.stderr, flush=True)

    print(f"{text} ...", end="", file=sys.stderr, flush=True)
    showing = threading.Thread(target=show_life, daemon=True)
    showing.start()
    try:
        yield
    finally:
        over.set()
        showing.join()
        print(file=sys.stderr, flush=True)


def search_path() -> str:
    return os.environ.get("PATH", "") + ":/usr/sbin:/sbin"


def attempt(
    *command: str | Path, text: str | None = None, cwd: Path | None = None, scratch: Path | None = None
) -> tuple[int, str]:
    """Runs a command with `text` on its stdin; its status and what it says. It may leave files in `scratch`."""
    settings = {"PATH": search_path(), "LC_ALL": "C"} | ({"TMPDIR": str(scratch)} if scratch else {})
    done = subprocess.run(
        command,
        text=True,
        input=text,
        stdin=subprocess.DEVNULL if text is None else None,
        stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT,
        cwd=cwd,
        env=os.environ | settings,
        preexec_fn=die_with_parent,
    )
    return done.returncode, done.stdout


def failure(command: tuple[str | Path, ...], said: str) -> Problem:
    return Problem(f"{' '.join(map(str, command[:3]))} ... failed:\n" + "\n".join(said.splitlines()[-8:]))


def run(*command: str | Path, text: str | None = None, cwd: Path | None = None, scratch: Path | None = None) -> str:
    """What a command says; a Problem with its last lines when it fails."""
    status, said = attempt(*command, text=text, cwd=cwd, scratch=scratch)
    if status:
        raise failure(command, said)
    return said
