"""Two rooms, each an air with a bridge, and a real broker between them."""

import json
import os
import shutil
import socket
import subprocess
from collections.abc import Iterator
from pathlib import Path

import pytest

from tav_air.air import Air, Brick

BUILD = Path(os.environ["TAV_BUILD"]).resolve()
BRIDGE = Path(__file__).resolve().parent.parent / "examples/bridge"
COUNT = int(os.environ.get("TAV_BRIDGED_MESSAGES", "20"))
PATIENCE = 120 + COUNT / 2  # seconds


class Broker:
    """mosquitto as documented, on a free port and as whoever runs this."""

    def __init__(self, folder: Path) -> None:
        self.folder = folder
        folder.mkdir()
        with socket.socket() as free:
            free.bind(("127.0.0.1", 0))
            self.port = free.getsockname()[1]
        settings = (BRIDGE / "mosquitto.conf").read_text()
        assert "listener 1883\n" in settings
        settings = settings.replace("listener 1883\n", f"listener {self.port} 127.0.0.1\n")
        (folder / "mosquitto.conf").write_text(settings + ("user root\n" if os.geteuid() == 0 else ""))
        shutil.copy(BRIDGE / "acl", folder)
        (folder / "passwords").touch(0o600)
        for user in "room-A", "room-B":
            subprocess.run(["mosquitto_passwd", "-b", "passwords", user, user], cwd=folder, check=True)
        self.start()

    def start(self) -> None:
        mosquitto = shutil.which("mosquitto", path=os.environ["PATH"] + ":/usr/sbin")
        assert mosquitto
        self.process = subprocess.Popen([mosquitto, "-c", "mosquitto.conf"], cwd=self.folder)

    def stop(self) -> None:
        self.process.terminate()
        self.process.wait()

    def settings_for(self, user: str) -> Path:
        """Where its clients find whom they call."""
        folder = self.folder / user
        folder.mkdir()
        for client in "mosquitto_pub", "mosquitto_sub":
            (folder / client).write_text(f"-h 127.0.0.1\n-p {self.port}\n-u {user}\n-P {user}\n")
        return folder


@pytest.fixture
def broker(tmp_path: Path) -> Iterator[Broker]:
    made = Broker(tmp_path / "broker")
    yield made
    made.stop()


def say(brick: Brick, kind: str, id: str, value: str | bool) -> None:
    brick.type(json.dumps({"kind": kind, "id": id, "value": value}) + "\n")


def heard(brick: Brick) -> list[tuple[str, str | bool]]:
    lines = [json.loads(line) for line in brick.said.splitlines() if line.startswith("{") and line.endswith("}")]
    return [(line["id"], line["value"]) for line in lines]


def test_rooms(broker: Broker, monkeypatch: pytest.MonkeyPatch) -> None:
    """Messages of every kind reach the brick of another room, in order, and across a restart of the broker."""
    monkeypatch.setenv("PATH", f"{BUILD / 'tools/tavbt'}:{os.environ['PATH']}")
    with Air() as room_a, Air() as room_b:
        robots = []
        for room, air, robot in ("A", room_a, "Robot1"), ("B", room_b, "Robot7"):
            air.patience = PATIENCE
            bridge = air.brick(
                "bridge", BRIDGE / "bridge", room, XDG_CONFIG_HOME=str(broker.settings_for(f"room-{room}"))
            )
            bridge.wait_for_channel(16)
            robots.append(air.brick(robot, "tavbt", "pipe", "bridge", "--reconnect"))
            say(robots[-1], "text", f"{room}/{robot}/known", "to its bridge")
            robots[-1].wait_for('"known"')
        robot1, robot7 = robots
        messages: list[tuple[str, str, str | bool]] = [
            ("text", "a text", "h\u00e9\t\\\n"),
            ("bool", "b", True),
            ("data", "c", "00FF"),
        ]
        for kind, id, value in messages:
            say(robot1, kind, f"B/Robot7/{id}", value)
            robot7.wait_until(lambda: (id, value) in heard(robot7), f"hear of {id}")
        say(robot7, "bool", "A/Robot1/back", False)
        robot1.wait_until(lambda: ("back", False) in heard(robot1), "hear back")
        for i in range(COUNT):
            say(robot1, "text", "B/Robot7/number", str(i))
            if i == COUNT // 2:
                broker.stop()
                broker.start()
        robot7.wait_until(lambda: ("number", str(COUNT - 1)) in heard(robot7), "hear of the last one")
        numbers = [int(value) for id, value in heard(robot7) if id == "number"]
        assert list(dict.fromkeys(numbers)) == list(range(COUNT))  # after a restart some may come twice
        print(f"{COUNT} messages, {len(numbers) - COUNT} of them twice")
