"""What runs programs has in common, on the air and in the lab: problems that are told in a line, children that end with
it, and output line by line."""

import ctypes
import os
import queue
import re
import signal
import sys
import threading
from collections.abc import Callable

PR_SET_PDEATHSIG = 1
OVERWRITTEN = re.compile(rb"^.*\r|\x1b\[K")  # of a line on a terminal, progress bars
LIBC = ctypes.CDLL(None)


class Problem(Exception):
    """Something that the user can mend; the text says what and how."""


def say(text: str) -> None:
    print(text, file=sys.stderr, flush=True)


def die_with_parent() -> None:
    """For children: whatever ends this program ends them too."""
    LIBC.prctl(PR_SET_PDEATHSIG, signal.SIGKILL)


def guarded(name: str, main: Callable[[], int]) -> int:
    """The status that a program ends with: main's, or what a failure or a signal makes of it, in a line."""
    signal.signal(signal.SIGINT, signal.default_int_handler)  # a script's background job inherits it ignored
    for stop in signal.SIGTERM, signal.SIGHUP:
        signal.signal(stop, lambda *_: os.kill(os.getpid(), signal.SIGINT))
    try:
        return main()
    except Problem as problem:
        say(f"{name}: {problem}")
    except OSError as error:
        say(f"{name}: {error.filename or ''}: {error.strerror or error}")
    except KeyboardInterrupt:
        say(f"{name}: stopped")
        return 130
    return 1


def screen_settings() -> dict[str, str]:
    """What programs whose terminal is this one's output must be told of it, since it is a terminal wherever that goes."""
    settings = {name: os.environ[name] for name in ("NO_COLOR", "TERM", "TZ") if name in os.environ}
    return settings if sys.stdout.isatty() else settings | {"NO_COLOR": "1", "TERM": "dumb"}


class Printer:
    """Prints what bricks say, each line with its brick's name before it.

    A thread writes, so that a slow terminal holds up nothing else.
    """

    def __init__(self, form: str, end: bytes = b"\n") -> None:
        self.form = form  # "{name:6} | "
        self.end = end  # of a line
        self.lines: queue.SimpleQueue[bytes | None] = queue.SimpleQueue()
        self.thread = threading.Thread(target=self.write, daemon=True)
        self.thread.start()

    def put(self, name: str, line: bytes) -> None:
        shown = OVERWRITTEN.sub(b"", line.rstrip(b"\r"))
        self.lines.put(self.form.format(name=name).encode() + shown + self.end)

    def write(self) -> None:
        try:
            while (line := self.lines.get()) is not None:
                sys.stdout.buffer.write(line)
                if self.lines.empty():
                    sys.stdout.buffer.flush()
        except OSError:  # nobody listens any more
            os.kill(os.getpid(), signal.SIGINT)

    def close(self) -> None:
        self.lines.put(None)
        self.thread.join()
