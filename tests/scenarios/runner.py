"""Runs scenarios: gives their steps to the bricks, in order, and tells how each scenario went.

The scenarios are those of scenarios.cpp; the program scenario_brick does one brick's steps and tells how each went.
"""

import asyncio
import shutil
import time
from abc import ABC, abstractmethod
from asyncio import StreamReader, StreamWriter
from contextlib import suppress
from dataclasses import dataclass, field
from pathlib import Path
from typing import Any

from machine import run
from tav_air.process import Problem
from tav_session import render
from tav_session.analysis import analyse
from tav_session.capture import read

AIR, LAB = 1, 2  # as in scenario.h
PATIENCE = 20  # s, on top of the time that a step may take


@dataclass
class Step:
    who: str
    places: int
    begins: bool  # the next steps go on while it lasts
    hangs: bool  # it is not to return
    least: float  # seconds
    most: float
    line: int  # in the source of the scenarios
    command: str  # for "radio" and "pause"

    def waits(self) -> float:
        return float(self.command) if self.who == "pause" else 0 if self.begins else self.least


@dataclass
class Device:
    """A brick of a scenario, or a device that nobody runs."""

    name: str
    address: str
    traits: list[str]


@dataclass
class Scenario:
    name: str
    title: str
    places: int
    is_core: bool
    devices: list[Device] = field(default_factory=list)
    steps: list[Step] = field(default_factory=list)

    def bricks(self) -> list[Device]:
        return [device for device in self.devices if "device" not in device.traits]

    def bare_devices(self) -> list[Device]:
        return [device for device in self.devices if "device" in device.traits]

    def waits(self, place: int) -> float:
        """Seconds that it takes at least."""
        return sum(step.waits() for step in self.steps if step.places & place)


class Failure(Exception):
    """A scenario that did not go as written."""


def read_scenarios(program: Path) -> list[Scenario]:
    if not program.is_file():
        raise Problem(f"there is no {program}; does TAV_BUILD name a build folder?")
    scenarios: list[Scenario] = []
    for line in run(program, "--list").splitlines():
        kind, *words = line.split("\t")
        if kind == "scenario":
            scenarios.append(Scenario(words[0], words[3], int(words[1]), words[2] == "1"))
        elif kind == "brick":
            name, *traits = words[1].split()
            scenarios[-1].devices.append(Device(name, words[0], traits))
        else:
            who, places, begins, hangs, least, most, number, command = words
            limits = float(least), float(most)
            scenarios[-1].steps.append(
                Step(who, int(places), begins == "1", hangs == "1", *limits, int(number), command)
            )
    return scenarios


class Player:
    """Does the steps of one brick: a connection to scenario_brick, wherever that runs."""

    def __init__(self, reader: StreamReader, writer: StreamWriter, log: list[str]) -> None:
        self.writer = writer
        self.log = log
        self.answers: dict[int, asyncio.Future[tuple[str, str]]] = {}  # by step
        self.ready = asyncio.Event()
        self.ended = asyncio.Event()
        self.listening = asyncio.create_task(self.listen(reader))

    def answer(self, number: int) -> asyncio.Future[tuple[str, str]]:
        return self.answers.setdefault(number, asyncio.get_running_loop().create_future())

    async def listen(self, reader: StreamReader) -> None:
        try:
            while line := (await reader.readline()).decode(errors="replace").rstrip("\n"):
                word, _, rest = line.partition(" ")
                if word in ("passed", "failed"):
                    number, _, text = rest.partition(" ")
                    self.answer(int(number)).set_result((word, text))
                elif word == "log":
                    self.log.append(rest)
                elif word == "ready":
                    self.ready.set()
                elif word == "ended":
                    break
        finally:
            self.ready.set()
            self.ended.set()

    async def outcome(self, number: int, patience: float) -> tuple[str, str]:
        """How a step went; an early end of the program is a failure, too."""
        answer = self.answer(number)
        ended = asyncio.create_task(self.ended.wait())
        either: list[asyncio.Future[Any]] = [answer, ended]
        await asyncio.wait(either, timeout=patience, return_when=asyncio.FIRST_COMPLETED)
        ended.cancel()
        if answer.done():
            return answer.result()
        return "failed", "its program ended" if self.ended.is_set() else f"it did not end in {patience:.0f} s"

    def order(self, order: str) -> None:
        if not self.ended.is_set():  # else the brick's init would take it
            self.writer.write(f"{order}\n".encode())

    async def end(self) -> None:
        """Kills the program; the next one may be started then."""
        if not self.ended.is_set():
            self.order("kill")
            with suppress(TimeoutError):
                await asyncio.wait_for(self.ended.wait(), PATIENCE)
        self.listening.cancel()


class Place(ABC):
    """Where scenarios are played."""

    kind: int
    recording: Path | None = None  # the folder where it is written down what bricks said

    @abstractmethod
    async def enter(self, scenario: Scenario) -> None:
        """Prepares it for a scenario, as if none had been before."""

    @abstractmethod
    async def start(self, scenario: Scenario, brick: Device, log: list[str]) -> Player:
        """Starts the program of a brick."""

    @abstractmethod
    async def command_radio(self, command: str) -> None:
        """Does a step of the radio."""

    @abstractmethod
    async def leave(self) -> None:
        """Cleans up, however the scenario went."""


async def check(player: Player, number: int, step: Step) -> None:
    word, text = await player.outcome(number, step.most + PATIENCE)
    if word == "failed":
        raise Failure(f"  {step.who}, scenarios.cpp:{step.line}: {text}".replace("\t", "\n"))


async def play(scenario: Scenario, place: Place, logs: dict[str, list[str]]) -> None:
    """Plays a scenario step by step; a Failure at the first step that goes wrong."""
    players: dict[str, Player] = {}
    begun: list[tuple[int, Step]] = []
    bricks = {brick.name: brick for brick in scenario.bricks()}

    async def start(name: str) -> None:
        players[name] = await place.start(scenario, bricks[name], logs.setdefault(name, []))

    try:
        await place.enter(scenario)
        for name in bricks:
            await start(name)
        for player in players.values():
            await player.ready.wait()
        for number, step in enumerate(scenario.steps):
            if not step.places & place.kind:
                continue
            if step.who == "pause":
                await asyncio.sleep(float(step.command))
            elif step.who == "radio":
                await place.command_radio(step.command)
            elif step.command == "kill":
                await players[step.who].end()
                await start(step.who)
            else:
                players[step.who].order(str(number))
                if step.begins:
                    begun.append((number, step))
                else:
                    await check(players[step.who], number, step)
        for number, step in begun:
            if not step.hangs:
                await check(players[step.who], number, step)
            elif players[step.who].answer(number).done() or players[step.who].ended.is_set():
                raise Failure(f"  {step.who}, scenarios.cpp:{step.line}: it was to hang, and returned or ended")
    finally:
        for player in players.values():
            await player.end()
        await place.leave()


def draw_page(recording: Path, title: str) -> Path:
    """The page of what bricks said, where tshark is there to make one; else where it is written down."""
    page = recording / "session.html"
    try:
        session = read(sorted(recording.glob("*.pcapng")))
    except Problem:
        return recording
    page.write_text(render.page(session, analyse(session), title))
    return page


@dataclass
class Report:
    """Tells how scenarios went, and keeps their logs."""

    where: str
    keep: Path | None
    failed: list[str] = field(default_factory=list)

    async def run(self, scenario: Scenario, place: Place) -> None:
        started = time.monotonic()
        logs: dict[str, list[str]] = {}
        failure = ""
        try:
            await play(scenario, place, logs)
        except Failure as caught:
            failure = str(caught)
        if place.recording and failure:
            failure += f"\n  what bricks said: {draw_page(place.recording, scenario.title)}"
        elif place.recording:
            shutil.rmtree(place.recording, ignore_errors=True)
        self.tell(scenario, failure, time.monotonic() - started)
        if self.keep:
            self.keep.mkdir(parents=True, exist_ok=True)
            for name, lines in logs.items():
                (self.keep / f"{scenario.name}.{name}.log").write_text("\n".join(lines) + "\n")

    def tell(self, scenario: Scenario, failure: str, seconds: float = 0) -> None:
        print(f"{'FAILED' if failure else 'passed'}  {self.where:<5}  {scenario.name:<16}{seconds:6.1f} s", flush=True)
        if failure:
            self.failed.append(scenario.name)
            print(failure, flush=True)
