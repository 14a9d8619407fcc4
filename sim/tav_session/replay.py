"""Plays one side of a session again: what it sent, as lines for tavbt pipe."""

import json
import subprocess
import sys
import threading
import time
from collections.abc import Callable, Sequence
from dataclasses import dataclass

from tav_air.process import Problem, die_with_parent, say

from .capture import Event, Message, Session
from .words import count, safe

PATIENCE = 10.0  # s, for an answer that came when it was recorded


@dataclass
class Step:
    line: str
    answers: int  # that had come before, of this connection's other side
    pause: float  # s, since the last message, whoever sent that


def add_text(line: dict[str, object], name: str, data: bytes) -> None:
    line[name] = data.decode(errors="replace")
    try:
        data.decode()
    except UnicodeDecodeError:
        line[f"{name}_hex"] = data.hex().upper()


def line_of(message: Message) -> str:
    line: dict[str, object] = {"kind": message.kind}
    add_text(line, "id", message.id or b"")
    value = message.value or b""
    if message.kind == "bool":
        line["value"] = value[:1] != b"\0"
    elif message.kind == "data":
        line["value"] = value.hex().upper()
    else:
        add_text(line, "value", value.removesuffix(b"\0"))
    return json.dumps(line, separators=(",", ":"))


def whole(event: Event) -> list[Message]:
    return [message for message in event.messages if message.kind and message.id is not None and not message.is_part]


def plan(session: Session, brick: str, peer: str) -> tuple[list[Step], str]:
    """What is to be sent and when; and how tavbt pipe is to be called for it."""
    if brick not in session.recorded:
        raise Problem(f"{brick} was not recorded; these were: {', '.join(sorted(map(safe, session.recorded)))}")
    mine = [
        event for event in session.events if event.brick == brick and event.what in ("send", "receive") and event.data
    ]
    peers = sorted({event.peer for event in mine if event.what == "send"})
    if not peer and len(peers) > 1:
        raise Problem(f"{brick} sent to {', '.join(map(safe, peers))}; --to says which of them is meant")
    peer = peer or (peers[0] if peers else "")
    mine = [event for event in mine if event.peer == peer]
    sends = [event for event in mine if event.what == "send" and whole(event)]
    if not sends:
        raise Problem(f"{brick} sent no messages" + (f" to {safe(peer)}" if peer else ""))
    formats = {message.classic for event in sends for message in whole(event)}
    if len(formats) > 1:
        raise Problem(f"{brick} sent messages of both formats, and tavbt pipe speaks one of them")
    steps = []
    answers = 0
    before = mine[0].time
    for event in mine:
        if event.what == "receive":
            answers += len(whole(event))
        elif event.what == "send":
            for message in whole(event):
                steps.append(Step(line_of(message), answers, max(0.0, event.time - before)))
                before = event.time
        before = event.time
    link = sends[0].link
    assert link
    command = f"tavbt pipe {safe(peer) if link.calls else '--listen'}{' --classic' if True in formats else ''}"
    return steps, command


def write(steps: Sequence[Step], command: str) -> int:
    """The lines, each at its time; without a reader's answers it cannot be known more exactly."""
    if sys.stdout.isatty():
        say(f"tav-session: for {command}")
    for step in steps:
        time.sleep(step.pause)
        print(step.line, flush=True)
    return 0


class Answers:
    """Counts and prints what a program says, line by line."""

    def __init__(self, program: "subprocess.Popen[bytes]") -> None:
        self.program = program
        self.count = 0
        self.changed = threading.Condition()
        self.is_over = False
        self.thread = threading.Thread(target=self.listen, daemon=True)
        self.thread.start()

    def listen(self) -> None:
        assert self.program.stdout
        for line in self.program.stdout:
            sys.stdout.buffer.write(line)
            sys.stdout.buffer.flush()
            self.change(lambda: setattr(self, "count", self.count + 1))
        self.change(lambda: setattr(self, "is_over", True))

    def change(self, act: Callable[[], None]) -> None:
        with self.changed:
            act()
            self.changed.notify_all()

    def wait_for(self, number: int) -> bool:
        with self.changed:
            return self.changed.wait_for(lambda: self.count >= number or self.is_over, PATIENCE)


def play(steps: Sequence[Step], command: Sequence[str]) -> int:
    """Gives the lines to a program, each when as many answers have come as when it was recorded."""
    try:
        program = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, preexec_fn=die_with_parent)
    except FileNotFoundError:
        raise Problem(f"there is no program {command[0]}") from None
    answers = Answers(program)
    assert program.stdin
    for number, step in enumerate(steps, 1):
        if not answers.wait_for(step.answers):
            said = count(answers.count, "answer")
            say(
                f"tav-session: message {number} goes after {said}, as no more came in {PATIENCE:.0f} s; there were {step.answers}"
            )
        time.sleep(step.pause)
        try:
            program.stdin.write(step.line.encode() + b"\n")
            program.stdin.flush()
        except BrokenPipeError:
            break
    try:
        program.stdin.close()
    except BrokenPipeError:
        pass
    status = program.wait()
    answers.thread.join()
    return status
