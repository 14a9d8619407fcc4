"""Where scenarios are played: on the simulated air, or on bricks of the lab."""

import asyncio
import os
import re
import shutil
import signal
from asyncio.subprocess import Process
from collections.abc import AsyncIterator
from contextlib import asynccontextmanager, suppress
from dataclasses import dataclass
from pathlib import Path

from bricks import Lab
from image import Image
from libraries import python_module
from runner import AIR, LAB, Device, Failure, Place, Player, Report, Scenario
from tav_air import Air
from tav_air.process import Problem, die_with_parent
from tav_air.run import SERIAL_PORTS
from tav_air.world import Setup, together

STATES = {"out": "absent", "back": ""}  # what commands to the radio make of a brick on the air
SETTLE = 0.5  # s, between scenarios in one boot, for connections to be released
AIRS_AT_ONCE = 6
BRICKS_A_CORE = 5  # at once: they wait most of the time
BRICK_MB = 300
BOOT_SECONDS = 3  # of each brick, on two cores
BOOT_WORTH = 40  # s of waiting in scenarios that are played in one boot: more of them are split up


class AirPlace(Place):
    """A simulated air for one scenario."""

    kind = AIR

    def __init__(self, build: Path, files: list[Path], recording: Path) -> None:
        shutil.rmtree(recording, ignore_errors=True)
        self.recording = recording
        self.build = build
        self.files = files  # that every brick gets
        self.air = Air(speed=1, record=recording)
        self.processes: list[Process] = []

    def environment(self, device: Device) -> dict[str, str]:
        state = " ".join(["nameless"] * ("nameless" in device.traits) + ["no-sdp"] * ("sdp" not in device.traits))
        adapter = "no-adapter" not in device.traits
        path = f"{self.build / 'examples'}:/usr/bin:{os.environ['PATH']}"  # Debian's python3 has PyBluez
        python = str(self.build / "python")
        return self.air.environment(
            device.name, services=SERIAL_PORTS, state=state, adapter=adapter, PATH=path, PYTHONPATH=python
        )

    async def launch(self, device: Device, *command: str | Path) -> Process:
        folder = self.air.run_folder(device.name)
        if "card" in device.traits:
            (folder.parent / "prjs" / "SD_Card").mkdir(exist_ok=True)
        for file in self.files:
            with suppress(FileExistsError):
                (folder / file.name).symlink_to(file)
        process = await asyncio.create_subprocess_exec(
            *command,
            env=self.environment(device),
            cwd=folder,
            stdin=asyncio.subprocess.PIPE,
            stdout=asyncio.subprocess.PIPE,
            limit=2**20,
            start_new_session=True,
            preexec_fn=die_with_parent,
        )
        self.processes.append(process)
        return process

    async def enter(self, scenario: Scenario) -> None:
        self.air.addresses = {device.name: device.address for device in scenario.devices}
        for device in scenario.bare_devices():
            await self.launch(device, "sleep", "infinity")

    async def start(self, scenario: Scenario, brick: Device, log: list[str]) -> Player:
        program = self.build / "tests" / "scenario_brick"
        process = await self.launch(brick, program, scenario.name, brick.name)
        assert process.stdout and process.stdin
        return Player(process.stdout, process.stdin, log)

    async def command_radio(self, command: str) -> None:
        word, name = command.split()
        if word not in STATES:
            raise Failure(f"the simulated air does not know '{command}'")
        self.air.set_state(name, STATES[word])

    async def leave(self) -> None:
        for process in self.processes:
            with suppress(ProcessLookupError):
                os.killpg(process.pid, signal.SIGKILL)
        for process in self.processes:
            await process.wait()
        self.air.close()


async def play_on_air(scenarios: list[Scenario], build: Path, files: list[Path], report: Report) -> None:
    room = asyncio.Semaphore(AIRS_AT_ONCE)

    async def one(scenario: Scenario) -> None:
        async with room:
            await report.run(scenario, AirPlace(build, files, build / "scenarios" / scenario.name))

    await together(*map(one, scenarios))


class LabPlace(Place):
    """Booted bricks, on which scenarios are played one after the other."""

    kind = LAB

    def __init__(self, lab: Lab, devices: list[str], trace: Path | None) -> None:
        self.lab = lab
        self.devices = devices
        self.trace = trace

    async def enter(self, scenario: Scenario) -> None:
        if self.trace:
            await self.lab.radio.trace(self.trace / scenario.name)
        inside = [device.name for device in scenario.devices]
        for name in [*self.lab.bricks, *self.devices]:
            for command in f"{'back' if name in inside else 'out'} {name}", f"accept {name}", f"slow {name} 0":
                await self.lab.radio.command(command)
        for brick in scenario.bricks():
            folder = "/brick/prjs/SD_Card" if "card" in brick.traits else "/brick/prjs"
            await self.lab.bricks[brick.name].run(f"rm -rf /brick/prjs; mkdir -p {folder}")

    async def start(self, scenario: Scenario, brick: Device, log: list[str]) -> Player:
        there = self.lab.bricks[brick.name]
        await there.order(f"talk scenario_brick {scenario.name} {brick.name}")
        assert there.control
        return Player(*there.control, log)

    async def command_radio(self, command: str) -> None:
        await self.lab.radio.command(command)

    async def leave(self) -> None:
        await asyncio.sleep(SETTLE)


@dataclass
class Boot:
    """Scenarios that are played one after the other on the same bricks."""

    needs: tuple[tuple[str, bool, bool], ...]  # of each brick: its name, an SDP server, Python
    scenarios: list[Scenario]

    def waits(self) -> float:
        return sum(scenario.waits(LAB) for scenario in self.scenarios)

    def takes(self) -> float:
        return self.waits() + BOOT_SECONDS * len(self.needs)


def plan_boots(scenarios: list[Scenario]) -> list[Boot]:
    """The boots that scenarios take, longest first."""
    boots: list[Boot] = []
    for scenario in sorted(scenarios, key=lambda scenario: scenario.waits(LAB), reverse=True):
        needs = tuple((brick.name, "sdp" in brick.traits, "python" in brick.traits) for brick in scenario.bricks())
        fitting = [boot for boot in boots if boot.needs == needs and boot.waits() + scenario.waits(LAB) <= BOOT_WORTH]
        if fitting:
            fitting[0].scenarios.append(scenario)
        else:
            boots.append(Boot(needs, [scenario]))
    return sorted(boots, key=Boot.takes, reverse=True)


class Room:
    """As many bricks at once as processors and memory allow; their boots, which keep processors busy, one by one."""

    def __init__(self) -> None:
        available = re.search(r"MemAvailable: +(\d+)", Path("/proc/meminfo").read_text())
        most = int(available[1]) // 1024 // BRICK_MB if available else 0
        self.size = self.free = max(1, min(BRICKS_A_CORE * (os.cpu_count() or 1), most))
        self.changed = asyncio.Condition()
        self.booting = asyncio.Lock()

    @asynccontextmanager
    async def bricks(self, count: int) -> AsyncIterator[None]:
        count = min(count, self.size)
        async with self.changed:
            await self.changed.wait_for(lambda: self.free >= count)
            self.free -= count
        try:
            yield
        finally:
            async with self.changed:
                self.free += count
                self.changed.notify_all()


@dataclass
class LabRun:
    """Plays scenarios in the lab, several boots beside each other."""

    image: Image
    build: Path
    files: list[Path]  # that every brick gets
    trace: Path | None
    report: Report

    async def play(self, scenarios: list[Scenario]) -> None:
        room = Room()
        await together(*(self.play_boot(boot, room) for boot in plan_boots(scenarios)))

    async def play_boot(self, boot: Boot, room: Room) -> None:
        waiting = list(boot.scenarios)
        async with room.bricks(len(boot.needs)):
            try:
                async with self.boot(boot, room) as place:
                    while waiting:
                        await self.report.run(waiting[0], place)
                        waiting.pop(0)
            except Problem as problem:
                for scenario in waiting:
                    self.report.tell(scenario, str(problem))

    @asynccontextmanager
    async def boot(self, boot: Boot, room: Room) -> AsyncIterator[LabPlace]:
        addresses = {brick.name: brick.address for brick in boot.scenarios[0].bricks()}
        files = {file.name: file for file in self.files} | python_module(self.image.arch, [self.build / "python"])
        setups = [Setup(name, addresses[name], files=files, sdp=sdp, python=python) for name, sdp, python in boot.needs]
        devices = {device.name: device for scenario in boot.scenarios for device in scenario.bare_devices()}
        phantoms = [(device.name, device.address) for device in devices.values()]
        keep = self.report.keep and self.report.keep / boot.scenarios[0].name
        lab = Lab(self.image, setups, phantoms, keep=keep, form="    {name} | ")
        try:
            async with room.booting:
                await lab.__aenter__()
            for device in devices.values():
                if "nameless" in device.traits:
                    await lab.radio.command(f"nameless {device.name}")
            yield LabPlace(lab, [*devices], self.trace)
            await lab.switch_off()
        finally:
            await lab.__aexit__()
