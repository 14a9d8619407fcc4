"""Conducts scenarios: gives their steps to the bricks that play them, in order, on the lab or on the simulated air.

The scenarios are those of tests/scenarios/; the program scenario_brick plays one brick's steps and tells how each went.
"""

import asyncio
import os
import shutil
import signal
import subprocess
import tempfile
import time
from contextlib import suppress
from dataclasses import dataclass, field
from pathlib import Path

from bricks import Lab, Setup, together
from image import LAB, Problem, die_with_parent, run

ROOT = LAB.parent
PEERS = ROOT / "tests" / "scenarios"  # programs of other authorship that bricks meet
AIR, LAB_PLACE = 1, 2  # as in scenario.h
SETTLE = 0.5  # s, between scenarios, for connections to be released
PATIENCE = 20  # s, on top of the time that a step may take
AT_ONCE = 6  # scenarios on simulated airs at the same time


@dataclass
class Step:
    who: str
    places: int
    begins: bool  # the story goes on while it lasts
    hangs: bool  # it is not to return
    most: float  # seconds
    line: int  # in the source of the scenarios
    command: str  # for "radio" and "pause"


@dataclass
class Actor:
    """A brick of a scenario, or a device that nobody plays."""

    name: str
    address: str
    traits: list


@dataclass
class Scenario:
    name: str
    title: str
    places: int
    is_core: bool
    actors: list = field(default_factory=list)
    story: list = field(default_factory=list)

    def bricks(self):
        return [actor for actor in self.actors if "device" not in actor.traits]

    def devices(self):
        return [actor for actor in self.actors if "device" in actor.traits]


class Failure(Exception):
    """A scenario that did not go as written."""


def read_scenarios(program):
    scenarios = []
    for line in run(program, "--list").splitlines():
        kind, *words = line.split("\t")
        if kind == "scenario":
            scenarios.append(Scenario(words[0], words[3], int(words[1]), words[2] == "1"))
        elif kind == "brick":
            name, *traits = words[1].split()
            scenarios[-1].actors.append(Actor(name, words[0], traits))
        else:
            flags = [word == "1" for word in words[2:4]]
            scenarios[-1].story.append(Step(words[0], int(words[1]), *flags, float(words[4]), int(words[5]), words[6]))
    return scenarios


class Player:
    """Plays one brick of a scenario: a connection to scenario_brick, wherever that runs."""

    def __init__(self, reader, writer, log):
        self.writer = writer
        self.log = log
        self.answers = {}  # by step
        self.ready = asyncio.Event()
        self.ended = asyncio.Event()
        self.listening = asyncio.create_task(self.listen(reader))

    def answer(self, number):
        return self.answers.setdefault(number, asyncio.get_running_loop().create_future())

    async def listen(self, reader):
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

    async def outcome(self, number, patience):
        """How a step went; an early end of the program is a failure, too."""
        answer, ended = self.answer(number), asyncio.create_task(self.ended.wait())
        await asyncio.wait([answer, ended], timeout=patience, return_when=asyncio.FIRST_COMPLETED)
        ended.cancel()
        if answer.done():
            return answer.result()
        return "failed", "its program ended" if self.ended.is_set() else f"it did not end in {patience:.0f} s"

    def order(self, order):
        if not self.ended.is_set():  # else the brick's init would take it
            self.writer.write(f"{order}\n".encode())

    async def end(self):
        """Kills the program; the next one may be started then."""
        if not self.ended.is_set():
            self.order("kill")
            with suppress(TimeoutError):
                await asyncio.wait_for(self.ended.wait(), PATIENCE)
        self.listening.cancel()


class LabStage:
    """Booted bricks, on which scenarios are played one after the other."""

    place = LAB_PLACE

    def __init__(self, lab, devices):
        self.lab = lab
        self.devices = devices  # names

    async def enter(self, scenario):
        inside = {actor.name: actor for actor in scenario.actors}
        for name in [*self.lab.bricks, *self.devices]:  # as if no scenario had been before
            for command in f"{'back' if name in inside else 'out'} {name}", f"accept {name}", f"slow {name} 0":
                await self.lab.radio.command(command)
        for actor in scenario.bricks():
            folder = "/brick/prjs/SD_Card" if "card" in actor.traits else "/brick/prjs"
            await self.lab.bricks[actor.name].run(f"rm -rf /brick/prjs; mkdir -p {folder}")

    async def start(self, scenario, actor, log):
        brick = self.lab.bricks[actor.name]
        await brick.order(f"talk scenario_brick {scenario.name} {actor.name}")
        return Player(*brick.control, log)

    async def command_radio(self, command, players):
        await self.lab.radio.command(command)

    async def leave(self):
        await asyncio.sleep(SETTLE)


class AirStage:
    """A simulated air for one scenario."""

    place = AIR

    def __init__(self, build, name):
        self.build = build
        self.air = f"scenario-{os.getpid()}-{name}"
        self.world = Path(tempfile.mkdtemp(prefix="tav-air-"))
        self.processes = []

    def environment(self, actor):
        states = ["nameless"] * ("nameless" in actor.traits) + ["no-sdp"] * ("sdp" not in actor.traits)
        settings = {
            "TAV_AIR": self.air,
            "TAV_AIR_ADDRESS": actor.address,
            "TAV_AIR_STATE": " ".join(states),
            "TAV_AIR_SERVICES": "Serial Port|COM Port|BlueZ=1\nSerial Port|COM Port|BlueZ=16",
            "LD_PRELOAD": str(self.build / "sim" / "libtav_air.so"),
            "PATH": f"{self.build / 'examples'}:{os.environ['PATH']}",
        }
        if "no-adapter" not in actor.traits:
            settings["TAV_AIR_BRICK"] = actor.name
        inherited = {name: value for name, value in os.environ.items() if not name.startswith("TAV_")}
        return {**inherited, **settings}

    async def launch(self, actor, *command):
        folder = self.world / actor.name / "run"
        folder.mkdir(parents=True, exist_ok=True)
        (folder.parent / "prjs" / ("SD_Card" if "card" in actor.traits else "")).mkdir(parents=True, exist_ok=True)
        process = await asyncio.create_subprocess_exec(
            *command,
            env=self.environment(actor),
            cwd=folder,
            stdin=asyncio.subprocess.PIPE,
            stdout=asyncio.subprocess.PIPE,
            limit=2**20,
            start_new_session=True,
            preexec_fn=die_with_parent,
        )
        self.processes.append(process)
        return process

    async def enter(self, scenario):
        for actor in scenario.devices():
            await self.launch(actor, "sleep", "1000")

    async def start(self, scenario, actor, log):
        program = self.build / "tests" / "scenario_brick"
        process = await self.launch(actor, program, scenario.name, actor.name)
        return Player(process.stdout, process.stdin, log)

    async def command_radio(self, command, players):
        word, name = command.split()
        if word != "out":
            raise Failure(f"the simulated air does not know '{command}'")
        players[name].order("vanish")

    async def leave(self):
        for process in self.processes:
            with suppress(ProcessLookupError):
                os.killpg(process.pid, signal.SIGKILL)
        shutil.rmtree(self.world, ignore_errors=True)
        for process in self.processes:
            await process.wait()


async def check(player, number, step):
    word, text = await player.outcome(number, step.most + PATIENCE)
    if word == "failed":
        raise Failure(f"  {step.who}, scenarios.cpp:{step.line}: {text}".replace("\t", "\n"))


async def play(scenario, stage, logs):
    """Plays the story step by step; a Failure at the first step that goes wrong."""
    players, begun = {}, []
    try:
        await stage.enter(scenario)

        async def start(actor):
            players[actor.name] = await stage.start(scenario, actor, logs.setdefault(actor.name, []))

        for actor in scenario.bricks():
            await start(actor)
        for player in players.values():
            await player.ready.wait()
        actors = {actor.name: actor for actor in scenario.bricks()}
        for number, step in enumerate(scenario.story):
            if not step.places & stage.place:
                continue
            if step.who == "pause":
                await asyncio.sleep(float(step.command))
            elif step.who == "radio":
                await stage.command_radio(step.command, players)
            elif step.command == "kill":
                await players[step.who].end()
                await start(actors[step.who])
            else:
                players[step.who].order(number)
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
        await stage.leave()


class Report:
    """Tells how scenarios went, and keeps their logs."""

    def __init__(self, where, keep):
        self.where = where
        self.keep = keep
        self.failed = []

    async def run(self, scenario, stage):
        started, logs, failure = time.monotonic(), {}, None
        try:
            await play(scenario, stage, logs)
        except Failure as caught:
            failure = caught
            self.failed.append(scenario.name)
        seconds = time.monotonic() - started
        print(f"{'FAILED' if failure else 'passed'}  {self.where}  {scenario.name:<16}{seconds:6.1f} s", flush=True)
        if failure:
            print(failure, flush=True)
        if self.keep:
            self.keep.mkdir(parents=True, exist_ok=True)
            for name, lines in logs.items():
                (self.keep / f"{scenario.name}.{name}.log").write_text("\n".join(lines) + "\n")


async def play_on_air(scenarios, build, report):
    room = asyncio.Semaphore(AT_ONCE)

    async def one(scenario):
        async with room:
            await report.run(scenario, AirStage(build, scenario.name))

    await together(*map(one, scenarios))


def crew(scenario):
    """What a scenario needs to be booted; scenarios with the same needs are played in one boot."""
    return tuple((actor.name, "sdp" in actor.traits, "python" in actor.traits) for actor in scenario.bricks())


async def play_in_lab(scenarios, build, image, arguments, report):
    files = [build / "tests" / "scenario_brick", build / "examples" / "brick_echo", *PEERS.glob("*.py")]
    for needs in dict.fromkeys(map(crew, scenarios)):
        playing = [scenario for scenario in scenarios if crew(scenario) == needs]
        addresses = {actor.name: actor.address for actor in playing[0].bricks()}
        setups = [Setup(name, addresses[name], files, sdp=sdp, python=python) for name, sdp, python in needs]
        devices = {actor.name: actor for scenario in playing for actor in scenario.devices()}
        phantoms = [(device.name, device.address) for device in devices.values()]
        trace, keep = (folder and folder / playing[0].name for folder in (arguments.trace, arguments.keep))
        async with Lab(image, setups, phantoms, trace=trace, keep=keep, form="    {name} | ") as lab:
            for device in devices.values():
                if "nameless" in device.traits:
                    await lab.radio.command(f"nameless {device.name}")
            for scenario in playing:
                await report.run(scenario, LabStage(lab, devices))
            await lab.switch_off()


def build_programs(preset):
    """Builds what plays the scenarios, unless TAV_BUILD names a build folder."""
    if preset == "dev" and "TAV_BUILD" in os.environ:
        return Path(os.environ["TAV_BUILD"]).resolve()
    packages = (
        "scripts/armel-sysroot" if preset == "armel" else "need g++ cmake ninja-build libbluetooth-dev libgtest-dev"
    )
    script = f"source scripts/common.sh && {packages} && build {preset}"
    if subprocess.run(["bash", "-c", script, "lab"], cwd=ROOT, preexec_fn=die_with_parent).returncode:
        raise Problem("the scenarios' program could not be built")
    return ROOT / "build" / preset


def choose(arguments, known):
    """The scenarios that are named and played at this place."""
    names = {scenario.name for scenario in known}
    unknown = [name for name in arguments.scenarios if name not in names | {"all"}]
    if unknown:
        hint = "bricks and their programs go after --" if "=" in unknown[0] else "lab/run --list names them"
        raise Problem(f"there is no scenario {unknown[0]}; {hint}")
    place = AIR if arguments.air else LAB_PLACE
    chosen = []
    for scenario in known:
        fits = scenario.places & place and (scenario.is_core or not arguments.core)
        if scenario.name in arguments.scenarios and not fits:
            raise Problem(f"{scenario.name} is not played {'with --core' if scenario.places & place else 'here'}")
        if fits and ("all" in arguments.scenarios or scenario.name in arguments.scenarios):
            chosen.append(scenario)
    return chosen


def main(arguments, current_image):
    build = build_programs("dev")
    program = build / "tests" / "scenario_brick"
    if not program.is_file():
        raise Problem(f"there is no {program}; does TAV_BUILD name a build folder?")
    known = read_scenarios(program)
    if arguments.list:
        for scenario in known:
            print(f"{scenario.name:<16} {scenario.title}")
        return 0
    chosen = choose(arguments, known)
    if arguments.air:
        report = Report("air  ", arguments.keep)
        asyncio.run(play_on_air(chosen, build, report))
    else:
        build = build_programs("armel") if arguments.arch == "armel" else build
        image = current_image(arguments.arch)
        report = Report(arguments.arch, arguments.keep)
        asyncio.run(play_in_lab(chosen, build, image, arguments, report))
    print(f"{len(chosen) - len(report.failed)} of {len(chosen)} scenarios passed", flush=True)
    return 1 if report.failed else 0
