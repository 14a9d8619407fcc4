"""Programs on the simulated air, as people start them. TAV_BUILD names the build folder."""

import os
import random
import re
import shlex
import shutil
import signal
import subprocess
import sys
import tempfile
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path

import pytest
from tav_air import Air

ROOT = Path(__file__).resolve().parent.parent
BUILD = Path(os.environ["TAV_BUILD"]).resolve()
AIR = ROOT / "sim" / "tav-air"
Command = list[str | Path]
CLIENT: Command = [BUILD / "examples" / "brick_client", "Robot2"]
SERVER: Command = [BUILD / "examples" / "brick_server", "Robot1"]
MANUAL = BUILD / "examples" / "manual"


@pytest.fixture(autouse=True)
def on_an_air(air: Air, monkeypatch: pytest.MonkeyPatch) -> None:
    """All in the folder of one brick, on the air that their variables name."""
    monkeypatch.chdir(air.run_folder("Robot1"))
    for name, value in {"TAV_BUILD": str(BUILD), "TAV_AIR": air.name, "TAV_AIR_SPEED": f"{air.speed:g}"}.items():
        monkeypatch.setenv(name, value)
    monkeypatch.delenv("TAV_BRICK_NAME", raising=False)


def expect(status: int, text: str, *command: str | Path) -> None:
    got = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, timeout=60)
    assert text in got.stdout and got.returncode == status, f"status {got.returncode}, said:\n{got.stdout}"


@contextmanager
def running(ready: str, *command: str | Path) -> Iterator[subprocess.Popen[str]]:
    """A program that has said that it is ready."""
    with subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True) as program:
        try:
            assert program.stdout and any(ready in line for line in program.stdout), f"never said {ready}"
            yield program
        finally:
            program.kill()


OUTCOMES: list[tuple[int, str, Command]] = [
    (1, "Robot2 was not found", ["Robot1", "--", *CLIENT]),
    (1, "no Bluetooth adapter that works", ["--no-adapter", "--", *CLIENT]),
    (1, "channels 1 and 16", ["--faults", "bind:1=EACCES", "Robot2", "--", *SERVER]),
    (2, "tav-air: TAV_AIR_FAULTS: 'NOTHING'", ["--faults", "bind:1=NOTHING", "A", "--", "true"]),
    (2, "tav-air: TAV_AIR_SPEED: '1x'", ["--speed", "1x", "A", "--", "true"]),
    (2, "tav-air: TAV_AIR_SPEED: '0'", ["--speed", "0", "A", "--", "true"]),
    (2, "tav-air: TAV_AIR_BRICK: a name has at most 248 bytes", ["A" * 249, "--", "true"]),
    (2, "tav-air: TAV_AIR_SERVICES: 'Mail=31'", ["--service", "0xAB", "--service", "Mail=31", "A", "--", "true"]),
    (1, "air: hci_get_route(), told to fail", ["--trace", "--faults", "hci_get_route:1=EIO", "A", "--", *CLIENT]),
    (2, "tav-air: TAV_AIR: 'a/b'", ["--air", "a/b", "A", "--", "true"]),
    (2, "tav-air: TAV_AIR_STATE: 'lost'", ["--state", "hidden lost", "A", "--", "true"]),
    (2, "tav-air: TAV_AIR_SERVICES: 'Mailboxes'", ["--service", "Mailboxes", "A", "--", "true"]),
    (2, "tav-air: TAV_AIR_ADDRESS: '1:2'", ["--address", "1:2", "A", "--", "true"]),
    (2, "tav-air: -- is missing before the program, at true", ["Robot2", "true"]),
    (2, "tav-air: unknown option --bogus", ["--bogus", "Robot2", "--", "true"]),
    (127, "there is no program nothing", ["Robot2", "--", "nothing"]),
    (1, "there is no program ./nothing", ["run", "A=./nothing"]),
    (1, "A: there is no program nothing", ["run", "A=nothing"]),
    (1, "no brick is named", ["run", "--speed", "2"]),
    (1, "two bricks or devices have the same name or address", ["run", "A=true", "--device", "A"]),
    (1, "names C, which is none of the bricks", ["run", "--faults", "C=bind:1=EIO", "A=true"]),
    (1, "is not '[SECONDS] COMMAND'", ["run", "--radio", "slow A 5", "A=true"]),
    (3, "B's program ended with status 3", ["run", "A=true", "B=sh -c 'echo b; exit 3'"]),
    (0, "All programs had ended before 'out A'", ["run", "--radio", "5 out A", "A=true"]),
    (137, "A's program was ended by signal 9", ["run", "--until", "A", "A=sh -c 'kill -9 $$'", "B=sleep 100"]),
    (
        1,
        "C | There is no Bluetooth adapter",
        ["run", "--faults", "C=hci_get_route:*=ENODEV", f"C={shlex.quote(str(CLIENT[0]))} A"],
    ),
]


@pytest.mark.parametrize(("status", "text", "arguments"), OUTCOMES, ids=[text for _, text, _ in OUTCOMES])
def test_tav_air(status: int, text: str, arguments: Command) -> None:
    expect(status, text, AIR, *arguments)


def test_a_build_folder_that_is_not_there(monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setenv("TAV_BUILD", "/nowhere")
    expect(1, "does TAV_BUILD name a build folder?", AIR, "Robot2", "--", "true")


@pytest.mark.parametrize(
    ("folder", "status", "text"),
    [("a b ü (c)", 1, "Robot2 was not found"), ("a:b", 1, "since a : or ; is in its path")],
)
def test_paths_of_the_air(folder: str, status: int, text: str, tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    copy = tmp_path / folder / "sim"
    copy.mkdir(parents=True)
    shutil.copy(BUILD / "sim" / "libtav_air.so", copy)
    monkeypatch.setenv("TAV_BUILD", str(copy.parent))
    expect(status, text, AIR, "Robot1", "--", *CLIENT)


@pytest.mark.parametrize("name", ["", "-", "/nowhere/log"])
def test_the_log_goes_to_stderr(name: str) -> None:
    said = subprocess.run(
        ["env", f"TAV_LOG={name}", AIR, "--no-adapter", "--", *CLIENT], stderr=subprocess.PIPE, text=True, timeout=60
    ).stderr
    assert "C_TAV_Bluetooth::BT_Scan - Start\n" in said
    assert ("TAV_LOG: cannot open /nowhere/log: No such file" in said) == ("/" in name)


def test_a_static_program_is_no_brick(tmp_path: Path) -> None:
    program = tmp_path / "program"
    subprocess.run(["g++", "-static", "-x", "c++", "-", "-o", program], input=b"int main() {}", check=True)
    expect(0, "is linked statically", AIR, "Robot1", "--", program)


def test_demo() -> None:
    expect(0, "Every message arrived unchanged.", ROOT / "scripts" / "demo", "--fast")


def test_a_world(tmp_path: Path) -> None:
    """The client starts when the server listens, which takes longer than the client would look around for it."""
    world = tmp_path / "world.txt"
    manual = shlex.quote(str(MANUAL))
    robot2 = shlex.join(["sh", "-c", f"sleep 1; exec {manual} Robot2"])
    world.write_text(
        f"""--service Robot2='Echo=5'    # a comment
        Robot2={shlex.quote(robot2)} --device Phone Robot3
        Robot1={shlex.quote(manual + " Robot1 Robot2")}"""
    )
    expect(0, "Robot1 | Robot2 says Fine", AIR, "run", world)


def test_nothing_is_left_of_a_run(tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setenv("TMPDIR", str(tmp_path))
    stubborn = "A=sh -c 'trap \"\" TERM INT; sleep 1000 & echo pids $$ $!; wait'"
    with subprocess.Popen([AIR, "run", stubborn, "B"], stdout=subprocess.PIPE, stderr=subprocess.STDOUT) as run:
        assert run.stdout
        pids = run.stdout.readline().split()[-2:]
        run.send_signal(signal.SIGINT)
        assert run.wait(60) == 130
    assert not list(tmp_path.iterdir())
    for pid in pids:
        status = Path("/proc", pid.decode(), "status")
        assert not status.exists() or "State:\tZ" in status.read_text()  # nobody may have waited for it


def test_a_failed_test_shows_what_its_bricks_said(tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    (tmp_path / "conftest.py").write_text('pytest_plugins = ["tav_air.fixtures"]')
    (tmp_path / "own_test.py").write_text(
        """def test_it(air):
        air.brick("Robot1", "sh", "-c", "echo I").wait()
        air.brick("Robot2", "sh", "-c", "echo you; exit 3").wait_for("we")"""
    )
    monkeypatch.setenv("PYTHONPATH", str(ROOT / "sim"))
    expect(1, "Robot2 (sh -c echo you; exit 3), its status is 3", sys.executable, "-m", "pytest", tmp_path)


def test_descriptors_of_the_program_are_its_own() -> None:
    script = 'for i in {3..99}; do eval "exec $i>&-"; done; sleep 0.1; echo untouched'
    expect(0, "untouched", AIR, "A", "--", "bash", "-c", script)


SERVING: list[tuple[str, Command]] = [
    ("serving", [BUILD / "examples" / "brick_echo"]),
    ("waits for", SERVER),
    ("air: bind", [MANUAL, "Robot2"]),
    ("listening", [BUILD / "tools" / "tavbt" / "tavbt", "serve", "--any"]),
]


@pytest.mark.parametrize(("ready", "program"), SERVING, ids=[Path(program[0]).name for _, program in SERVING])
def test_servers_open_no_more_than_select_can_watch(ready: str, program: Command) -> None:
    with running(ready, "prlimit", "--nofile=4096", AIR, "--trace", "Robot2", "--", *program) as server:
        limits = Path(f"/proc/{server.pid}/limits").read_text()
        assert re.search(r"Max open files +1024 ", limits), limits


def test_examples_print_nothing_that_a_terminal_obeys() -> None:
    with running("here", AIR, "Evil\x1b[2J\n\u202e", "--", "sh", "-c", "echo here; exec sleep 60"):
        expect(1, r"sees Evil\x1B[2J\x0A\xE2\x80\xAE at", AIR, "Robot1", "--", *CLIENT)


def test_variables_of_any_bytes_are_taken_or_refused() -> None:
    """Never a crash; and what is refused is said, as one line."""
    random.seed(4711)
    words = "connect:1= send:*=short: vanish EIO 0x 35 | = 99999999999 -1 é :".split() + [" ", "\n"]
    names = [f"TAV_AIR_{name}" for name in ("FAULTS", "SERVICES", "STATE", "SPEED", "ADDRESS", "BRICK")] + ["TAV_AIR"]
    library = {"LD_PRELOAD": str(BUILD / "sim" / "libtav_air.so"), "TAV_AIR_BRICK": "Robot1"}
    for _ in range(100):
        name, value = random.choice(names), "".join(random.choices(words, k=random.randrange(8)))
        program = subprocess.run(["true"], env=library | {name: value}, capture_output=True, text=True, timeout=60)
        assert program.returncode in (0, 2), (name, value, program)
        assert program.returncode == 0 or program.stderr.startswith(f"tav-air: {name}: "), (name, value, program)


SERVER_SCRIPT = """
import socket as s
server = s.socket(s.AF_BLUETOOTH, s.SOCK_STREAM, s.BTPROTO_RFCOMM)
server.bind(("00:00:00:00:00:00", 16)), server.listen(1), print("here", flush=True)
while True: server.accept()
"""
CLIENT_SCRIPT = """
import errno, socket as s
client = s.socket(s.AF_BLUETOOTH, s.SOCK_STREAM, s.BTPROTO_RFCOMM)
print(errno.errorcode.get(client.connect_ex(("02:00:00:00:00:02", 16)), "connected"))
"""


FORK_SCRIPT = """
import os, socket as s
client, address = s.socket(s.AF_BLUETOOTH, s.SOCK_STREAM, s.BTPROTO_RFCOMM), ("02:00:00:00:00:02", 16)
if os.fork() == 0: os._exit(client.connect_ex(address) or len(client.recv(9)))
print("the child got", os.waitstatus_to_exitcode(os.wait()[1]))
"""


def test_a_child_connects_with_its_parents_socket(air: Air) -> None:
    air.brick(
        "Robot2", "/usr/bin/python3", "-c", SERVER_SCRIPT.replace("accept()", "accept()[0].send(b'four')")
    ).wait_for("here")
    robot1 = air.brick("Robot1", "/usr/bin/python3", "-c", FORK_SCRIPT)
    robot1.wait_for("the child got 4")


PEER_SCRIPT = """
import errno, socket as s
client = s.socket(s.AF_BLUETOOTH, s.SOCK_STREAM, s.BTPROTO_RFCOMM)
client.connect(("02:00:00:00:00:02", 16)), print("connected", flush=True)
try: client.recv(1)
except OSError as error: print(errno.errorcode[error.errno])
"""


@pytest.mark.skipif(not shutil.which("hciconfig"), reason="there is no hciconfig")
def test_an_adapter_goes_down_for_all_programs_of_its_brick(air: Air) -> None:
    """Also when the one that switched it off is gone: the peer notices when the link is given up."""
    server = air.brick(
        "Robot2", "/usr/bin/python3", "-c", SERVER_SCRIPT.replace("server.accept", "kept = server.accept")
    )
    server.wait_for("here")
    robot1 = air.brick("Robot1", "/usr/bin/python3", "-c", PEER_SCRIPT)
    robot1.wait_for("connected")
    assert air.brick("Robot2", "hciconfig", "hci0", "down").wait() == 0
    robot1.wait_for("ETIMEDOUT")
    assert "DOWN" in air.brick("Robot2", "hciconfig").wait_for("BD Address.*\n.*\n").string


@pytest.mark.skipif(os.geteuid() != 0, reason="only root can be two users")
@pytest.mark.parametrize(("share", "outcome"), [("0", "EHOSTDOWN"), ("1", "connected")])
def test_two_users_meet_only_where_both_share(share: str, outcome: str, monkeypatch: pytest.MonkeyPatch) -> None:
    with tempfile.TemporaryDirectory() as folder:
        os.chmod(folder, 0o755)  # the other user loads the library, too
        monkeypatch.setenv("LD_PRELOAD", shutil.copy(BUILD / "sim" / "libtav_air.so", folder))
        monkeypatch.setenv("TAV_AIR_SHARED", share)
        monkeypatch.chdir(folder)
        python: Command = ["/usr/bin/python3", "-c"]
        other: Command = ["setpriv", "--reuid=65534", "--clear-groups", "env"]
        brick: Command = ["TAV_AIR_BRICK=Robot2", "TAV_AIR_ADDRESS=02:00:00:00:00:02"]
        with running("here", "env", *brick, *python, SERVER_SCRIPT):
            expect(0, outcome, *other, "TAV_AIR_BRICK=Robot1", *python, CLIENT_SCRIPT)
            expect(2, "another user has a brick 02:00:00:00:00:02 on the air", *other, *brick, *python, "")


def test_a_brick_is_there_as_long_as_its_program_and_in_range(air: Air) -> None:
    robot2 = air.device("Robot2")
    for change, seen in [
        (lambda: None, "sees Robot2"),
        (robot2.out_of_range, "Robot2 was not found"),
        (robot2.back, "sees Robot2"),
        (robot2.kill, "Robot2 was not found"),
    ]:
        change()
        client = air.brick("Robot1", *CLIENT, faults="connect:*=EIO")
        assert client.wait() == 1 and seen in client.said, client.said
