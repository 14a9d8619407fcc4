"""tavbt as people use it, on the simulated air: what it says and how it ends. TAV_BUILD names the build folder.

One case alone: TAV_BUILD=build/dev pytest-3 tests/tavbt_test.py -k 'scan and json'
"""

import json
import os
import re
import select
import shlex
import socket
import subprocess
import time
from contextlib import closing
from dataclasses import dataclass, field
from pathlib import Path
from typing import Any

import pexpect
import pytest
from tav_air import Air, Brick

ROOT = Path(__file__).resolve().parent.parent
BUILD = Path(os.environ["TAV_BUILD"]).resolve()
TAVBT = str(BUILD / "tools/tavbt/tavbt")
ROBOT2 = "02:00:00:00:00:02"
AT = f" --address {ROBOT2}"
LISTED = f"Robot2\0\x1c{ROBOT2}\0\x1a"
LIST = LISTED + "Robot 3\0\x1c02:00:00:00:00:03\0\x1a"
SERVICES = ["Lights|On and off|Me=16", "Bare=0"]
PATIENCE = 120  # seconds for what takes one or two on a quiet machine


@dataclass
class Case:
    """What Robot1 types, how that ends, and what it says: a regular expression. What Robot2 runs meanwhile, and says."""

    typed: str
    status: int
    says: str
    peer: str = ""
    peer_says: str = ""
    air: dict[str, Any] = field(default_factory=dict)  # how Robot1 is put on the air
    peer_air: dict[str, Any] = field(default_factory=dict)
    listed: str = ""  # in the device list file
    fifo: bool = False  # in its place
    project: bool = True  # whether there is a folder for it
    name: str = ""  # to send under


CASES = [
    Case("scan", 0, "ADDRESS +NAME\n" + ROBOT2 + "  Robot2\n1 device, kept in ../prjs/__BTScan__", "serve --any"),
    Case("scan --json", 0, '^{"address":"' + ROBOT2 + '","name":"Robot2"}\n1 device', "serve --any"),
    Case("scan", 3, "no device answered\n  -> "),
    Case("scan", 6, "no Bluetooth adapter that is switched on\n  -> tavbt doctor", air={"state": "down"}),
    Case("devices", 0, ROBOT2 + " +Robot2\n02:00:00:00:00:03 +Robot 3\n$", listed=LIST),
    Case("devices", 3, "no device list file.*\n  -> mkdir"),
    Case("devices", 7, ROBOT2 + " +Robot2\n.*__BTScan__ is damaged from byte 27 on", listed=LIST[:-1]),
    Case("devices", 7, "__BTScan__ is damaged from byte 0 on", listed="Robot2"),
    Case("services Robot2", 0, "CHANNEL +NAME +DESC.*\n16 +Lights +On and off +Me\n- +Bare", "serve --any"),
    Case("services Robot2 --json", 0, '"channel":16}\n.*"channel":null}', "serve --any"),
    Case(
        "services Robot2",
        1,
        "the answer of Robot2 cannot be taken apart: it (took more than 3 s of computing|ran out of memory|crashed)",
        "serve --any",
        peer_air={"services": ["0x35080900043503370000"]},
    ),
    Case(
        "services Robot2",
        0,
        "16 +机器人  On +Me\n3 +Lights  Off +Me\n",  # each of those characters takes two columns
        "serve --any",
        peer_air={"services": ["机器人|On|Me=16", "Lights|Off|Me=3"]},
    ),
    Case("services Robot2", 4, "Robot2 is there, but lists no services", "serve --any", peer_air={"state": "no-sdp"}),
    Case(
        "send Robot2 abc --text 'Hi you'", 0, "sent to Robot2", "serve --any", 'text from "Robot1", id "abc": "Hi you"'
    ),
    Case("send Robot2 abc --text Hi", 0, "sent", "serve --dump -n 1", "^01526F626F7431006162630048690"),
    Case("send Robot2 abc --bool true", 0, "sent", "serve --from Robot1 --id abc --bool -n 1", "^true\n"),
    Case("send Robot2 abc --data 'DE AD'", 0, "sent", "serve --from Robot1 --id abc --data -n 1", "^DEAD\n"),
    Case(
        "send Robot2 abc --file /dev/null",
        0,
        "no reader takes data of 0 bytes\nsent",
        "serve --any -n 1 -t 2",
        "damaged, has no data",
    ),
    Case("send Robot2 abc --bool true", 0, "sent", "serve --from Robot1 --id abc --bool --raw -n 1", "^true$"),
    Case("send Robot2 abc --bool true", 0, "sent", "serve --dump --json -n 1", '^{"bytes":"03526F'),
    Case("send Robot2 abc --text Hi", 0, "sent", "serve --any --time", "^[-0-9]{10}T[:0-9]{8}[.][0-9]{6}Z text from"),
    Case("send Robot2 abc --text Hi --classic", 0, "sent", "serve --any --classic", '^text, id "abc": "Hi"'),
    Case("send Robot2 abc --file -", 0, "sent", "serve --from Robot1 --id abc --data --raw -n 1", "stdin of Robot1$"),
    Case("send Robot2 abc --text= --classic", 0, "sent", "serve --classic --id abc --text -n 1", "^\n$"),
    Case("send Robot2 abc --bool false --classic", 0, "sent", "serve --classic --id abc --bool -n 1", "^false\n"),
    Case(
        "send Robot2 abc --text Hi --classic",
        0,
        "sent",
        "serve --classic --any --json",
        '"kind":"text","id":"abc","value":"Hi"}',
    ),
    Case(
        f"send Robot2 abc --text {'x' * 244} --classic",
        0,
        "no reader takes .* this length.*\nsent",
        "serve --classic --any",
        "damaged, its first byte is 0",
    ),
    Case(
        "send Robot2 abc --text=-\x1b[2J\u202e\udcff\udce0\udc80",
        0,
        "sent",
        "serve --any",
        r'"-\\x1B\[2J\\xE2\\x80\\xAE\\xFF\\xE0\\x80"',
    ),
    Case(
        "send Robot2 abc --text Hi",
        0,
        "sent",
        "serve --any",
        "^(a client could not be accepted: accept failed: Too many open files\n)+$",
        peer_air={"faults": "accept:*=EMFILE"},
    ),
    Case(
        "send Robot2 abc --text Hi",
        4,
        "Robot2 is there, but refused .* channel 16\n  -> start",
        "serve --any --classic",
    ),
    Case("send Robot9 abc --text Hi", 3, '"Robot9" was not found\n  -> is it switched on', "serve --any"),
    Case("send robot2 abc --text Hi", 3, 'no "robot2", but there is "Robot2"', "serve --any"),
    Case("send Robot2 abc --text Hi" + AT, 4, r'Robot2 does not answer: .*\("Host is down"\)'),
    Case("send Robot2 abc --text Hi", 6, "no adapter of this brick reaches Robot2", air={"state": "down"}, listed=LIST),
    Case(f"send Robot2 abc --text {'x' * 30000}", 1, "only the beginning of the message was sent", "serve --any"),
    Case(
        "send Robot2 abc --text Hi",
        4,
        "no program on it listens",
        air={"faults": "connect:1=ECONNREFUSED"},
        listed=LIST,
    ),
    Case("send Robot2 abc --bool 5", 2, '--bool: "5" is neither true nor false\n'),
    Case(
        f"send Robot2 abc --text {'x' * 2000}", 0, "cut", "serve --from Robot1 --id abc --text -n 1", "^x{100,2000}\n$"
    ),
    Case(
        "send Robot2 abc --bool true --wait 5",
        0,
        "sent.*\nbool from .*: true",
        "serve --from Robot1 --id abc --bool --echo",
    ),
    Case("send Robot2 abc --bool true --wait 0.2", 5, '"Robot2" did not answer', "serve --any"),
    Case("send Robot1 abc --bool true", 3, '"Robot1" is this brick itself'),
    Case("send Robot2 abc --txt Hi", 2, "there is no option --txt"),
    Case("send Robot2 abc --data DE AD", 2, '"AD" is too much'),
    Case("send Robot2 abc --data DEADB", 2, '"DEADB" is not pairs of hexadecimal digits'),
    Case("send Robot2 abc --data DE --classic", 2, "the classic format has no raw data"),
    Case("send Robot2", 2, "ID is missing\n  -> tavbt send --help"),
    Case("send Robot2 abc", 2, "one of --bool, --text, --data, --file is missing\n"),
    Case("send Robot2 abc --text a --bool true", 2, "only one of --bool, --text, --data, --file can be given\n"),
    Case("send Robot2 abc --text", 2, "--text needs a value\n"),
    Case("send Robot2 abc --text a --text b", 2, "--text is given more than once\n"),
    Case("send Robot2 abc --text a --wait x", 2, '--wait: "x" is not a number from 0 to 1000000\n'),
    Case("broadcast abc --text a --clients 9", 2, '--clients: "9" is not a whole number from 1 to 7\n'),
    Case("chat Robot2 --listen", 2, "NAME and --listen do not go together\n"),
    Case("chat --from Robot2", 2, "--from goes with --listen only\n"),
    Case("--json", 2, "the verb is missing\n"),
    Case("send Robot2 abc --file /", 1, "cannot read /: Is a directory", "serve --any"),
    Case("recv Robot2 abc --text", 0, "^Hi\n", "broadcast abc --text Hi"),
    Case(
        "recv Robot2 abc --bool --json",
        0,
        '^{"kind":"bool","sender":"Robot2","id":"abc","value":true}',
        "broadcast abc --bool true",
    ),
    Case("recv Robot2 --any", 0, 'data from "Robot2", id "abc": DEAD', "broadcast abc --data DEAD"),
    Case(
        "recv Robot2 abc --text",
        4,
        'ignored 15 bytes, not a text .*: its id is "xyz"\ntavbt: Robot2 hung',
        "broadcast xyz --text Hi",
    ),
    Case("recv Robot2 abc --text", 4, "ignored 13 bytes, not a text .*: it is a bool", "broadcast xyz --bool true"),
    Case("recv Robot2 --any -n 1", 0, '^bool from "Robot2"', "broadcast xyz --bool true"),
    Case("recv Robot2 abc --data", 4, "ignored 13 bytes, not data from", "broadcast xyz --bool true"),
    Case("recv Robot2 abc --text --classic", 4, "not a text with the id", "broadcast xyz --text Hi --classic"),
    Case("recv Robot2 abc --text", 4, 'its sender is "Bob"', "broadcast abc --text Hi", name="Bob"),
    Case("recv Robot2 abc --bool -t 0.3", 5, "nothing that matches came in 0.3 s", "serve --any"),
    Case("recv Robot2 --text", 2, "the id of the messages is missing"),
    Case("serve --any", 1, "another program on this brick has channel 16", air={"faults": "bind:1=EADDRINUSE"}),
    Case("serve --any -t 0.1", 5, "nothing came in 0.1 s\n$"),
    Case("serve --any -t 0.1", 5, "^no Bluetooth adapter is switched on", air={"state": "down"}),
    Case("serve --id abc --text", 2, "the sender's name is missing"),
    Case("broadcast abc --text Hi --clients 2 -t 0.1", 5, "0 of 2 clients came in time; nothing was sent"),
    Case(
        "chat Robot2",
        0,
        "talking to Robot2.*\n(Robot2: Hello\n)?",
        "chat --listen --from Robot1",
        "Robot1: stdin of\nRobot1: Robot1\n",
    ),
    Case("chat Robot2", 0, "", "chat --listen --from Robot1 --json", '"sender":"Robot1","id":"chat","value":"Robot1"}'),
    Case("chat Robot2", 4, "refused", "serve --any --classic"),
    Case("chat", 2, "with whom"),
    Case("bench Robot2 -t 0.01", 0, "ROUND TRIPS/S.*\n1 .*\n16 .*\n64 .*\n256 .*\n800 ", "bench --serve"),
    Case("bench Robot2 -t 0.01 --json", 0, '"bytes":800,"round_trips":[1-9]', "bench --serve"),
    Case("bench Robot2", 5, "Robot2 does not answer\n  -> on Robot2: tavbt bench --serve", "serve --any"),
    Case("bench Robot2" + AT, 4, "Host is down"),
    Case(
        "doctor",
        0,
        'adapter: hci0, (..:?){6}\nok .*\nok .*"Robot1"\nok +channel 1: .*\nok +channel 16: .*\nok .*\nok +SDP',
    ),
    Case("doctor", 6, "problem  adapter: there is none", air={"adapter": False}),
    Case("doctor", 6, "problem  adapter: hci0 is switched off\n +-> sudo hciconfig hci0 up", air={"state": "down"}),
    Case("doctor", 6, "kernel: it has no Bluetooth", air={"faults": "socket:1=EAFNOSUPPORT"}),
    Case("doctor", 0, "warning  visible: scans.*(.*\n)*warning  SDP server", air={"state": "hidden no-sdp"}),
    Case(
        "doctor",
        1,
        "problem  channel 1: another program on this brick has channel 1",
        air={"faults": "bind:1=EADDRINUSE"},
    ),
    Case("doctor", 1, "problem  channel 16: free, but .* obexd", air={"faults": "bind:4=EADDRINUSE"}),
    # What ordinary users find, who may not try the channel of SDP.
    Case(
        "doctor",
        0,
        "ok +channel 16: free\n(.*\n)*warning  SDP server: there is none",
        air={"faults": "bind:4=EIO bind:5=EACCES"},
    ),
    Case("doctor", 0, "warning  device list: no folder.*\n +-> mkdir", project=False),
    Case("doctor", 0, "warning  name: the adapter has none", air={"faults": "hci_read_local_name:*=EIO"}),
    Case("doctor", 0, "warning  name: the adapter has none", air={"faults": "hci_open_dev:*=EIO"}),
    Case("doctor", 6, "kernel: .*Permission denied", air={"faults": "socket:1=EACCES"}),
    Case("doctor --json", 0, '"check":"name","state":"warning","what":"other bricks find', name="Bob"),
    Case(
        "decode 03 41 42 00 61 62 63 00 01",
        0,
        '1 +41 42 00 +sender +"AB"\n4 +61 62 63 00 +id +"abc"\n8 +01 +bool +true\n$',
    ),
    Case("decode 0e000100819e046162630003 00486900", 0, 'classic text message.*(.*\n)*13 +48 69 00 +text +"Hi"\n$'),
    Case("decode --json 04 41 42 00 61 62 63 00 02 00 00 00 DE AD", 0, r'"id":"abc","value":"DEAD",.*"damaged":\[\]'),
    Case("decode 03 41 00 61 00 02 03 41 00 61 00 01", 0, "odd: its value is 2.*\n\njoined: 6 bytes .*(.*\n)*11 +01"),
    Case(
        "decode 00 0d 00 01 00 81 9e 04 61 62 63 00 01 00 01",
        0,
        "a zero byte, which readers skip(.*\n)*odd: its length is 13, not 12",
    ),
    Case("decode 01 41 00 61 00 48", 7, "damaged: no NUL ends its text: readers drop its last byte"),
    Case("decode 04 41 00 61 00 40 00 00 00 " + 64 * "DE", 0, "9 +(DE )+[.]{3} +data"),
    Case(
        "decode --json 03 41 00 61 00 01 03 41 00 61 00 00", 0, '"value":true.*\n.*"value":false,"fields":.{"offset":6,'
    ),
    Case("decode --binary", 7, "its type is 115, which is none of"),
    Case("decode 0", 7, "not pairs of hexadecimal digits"),
    Case("decode --lines", 7, "not pairs of hexadecimal digits"),
    Case("decode 07", 7, "its type is 7, which is none of"),
    Case("decode 0 7", 7, "not pairs of hexadecimal digits"),
    Case("complete -- send R", 0, "^Robot2\nRobot 3\n$", listed=LIST),
    Case("complete -- send ''", 0, "^Robot2\n$", listed=LISTED + "-rf\0\x1c02:00:00:00:00:03\0\x1a"),
    Case("complete -- send R", 1, "__BTScan__ is no file", fifo=True),
    Case("devices", 1, "__BTScan__ is no file", fifo=True),
    Case("doctor", 0, "warning  device list: ../prjs/__BTScan__ is no file", fifo=True),
    Case("complete -- send Robot2 abc --b", 0, "^--bool\n$"),
    Case("complete -- s", 0, "^scan\nservices\nsend\nserve\n$"),
    Case("help scan", 0, "^tavbt scan\n"),
    Case("complete", 0, "^scan\ndevices\n"),
    Case("complete -- scan -", 0, "^--json\n(--.*\n)+$"),
    Case("complete -- --j", 0, "^--json\n$"),
    Case("complete -- send Robot2 x --bool t", 0, "^true\n$"),
    Case("complete -- send --bool true R", 0, "^Robot2\n$", listed=LISTED),
    Case("complete -- recv --any R", 0, "^Robot2\n$", listed=LISTED),
    Case("complete -- decode x", 0, "^$"),
    Case("decode ''", 7, "there are no bytes to decode"),
    Case("decode /etc/passwd", 2, "/etc/passwd is a file\n  -> tavbt decode </etc/passwd"),
    Case("decode 0x03 0X41 42 00 61 62 63 00 01", 0, "^named bool message, 9 bytes"),
    Case("bench", 2, "with whom"),
    Case("chat --listen", 2, "whom to listen for"),
    Case("pipe", 2, "with whom"),
    Case("recv Robot2 x --classic --data", 2, "the classic format has no raw data"),
    Case("serve --dump --echo", 2, "--dump has no messages to echo"),
    Case(
        "send Robot2 " + 255 * "x" + " --classic --text Hi",
        4,
        "no reader takes a classic id of more than 254",
        listed=LIST,
    ),
    Case("send Robot2 x --text y --address 1:2", 2, '--address: "1:2" is not an address'),
    Case("recv Robot2 --any -t 5x", 2, '--timeout: "5x" is not a number'),
    Case("recv Robot2 --any -t -1", 2, '--timeout: "-1" is not a number'),
    Case("recv Robot2 --any -n 1.5", 2, '--count: "1.5" is not a whole number'),
    Case(
        "doctor", 0, 'warning  name: other bricks find "Robot1", but TAV_BRICK_NAME sends under "Other"', name="Other"
    ),
    Case("", 2, "Usage: tavbt"),
    Case("dance", 2, "there is no verb dance"),
    Case("--version", 0, r"^tavbt \d+\.\d+\.\d+\n$"),
    # A text with a line break begins no line of its own.
    Case("send Robot2 'a\nb' --text Hi --log", 0, r"Msg Id\(a\\x0Ab\)\n", "serve --any", r'id "a\\x0Ab"'),
]

# What readers cannot take whole wherever it is cut, by format.
WHOLE = {
    "--named": [
        "01 41 42 00 61 62 63 00 48 69 00",
        "03 41 42 00 61 62 63 00 01",
        "04 41 42 00 61 62 63 00 02 00 00 00 DE AD",
    ],
    "--classic": ["0C 00 01 00 81 9E 04 61 62 63 00 01 00 01", "0E 00 01 00 81 9E 04 61 62 63 00 03 00 48 69 00"],
}


class World:
    """An air, and what tavbt does on it."""

    def __init__(self, air: Air) -> None:
        self.air = air
        air.patience = PATIENCE
        self.prjs = air.run_folder("Robot1").parent / "prjs"

    def start(self, name: str, typed: str, **options: Any) -> Brick:
        return self.air.brick(name, TAVBT, *shlex.split(typed), terminal=False, **options)

    def start_server(self, typed: str, **options: Any) -> Brick:
        """Robot2, once it has said what it waits for."""
        robot2 = self.start("Robot2", typed, **options)
        robot2.wait_for("\n")
        return robot2


@pytest.fixture
def world(air: Air) -> World:
    return World(air)


def heard(server: Brick) -> str:
    """What it has said after its first line, but for who came and went."""
    return re.sub("^.* (connected|hung up)\n", "", server.said.partition("\n")[2], flags=re.M)


def get_name(case: Case) -> str:
    typed = case.typed if len(case.typed) < 60 else case.typed[:60] + "..."
    return re.sub(r"[^\x20-\x7e]", "?", f"{typed}, {case.status}")


@pytest.mark.parametrize("case", CASES, ids=get_name)
def test_says(case: Case, world: World) -> None:
    if not case.project:
        world.prjs.rmdir()
    if case.listed:
        (world.prjs / "__BTScan__").write_text(case.listed)
    if case.fifo:
        os.mkfifo(world.prjs / "__BTScan__")
    name = {"TAV_BRICK_NAME": case.name} if case.name else {}
    peer_air = case.peer_air | {"services": case.peer_air.get("services", []) + SERVICES}
    robot2 = world.start_server(case.peer, **peer_air, **name) if case.peer else None
    robot1 = world.start("Robot1", case.typed, **case.air, **name)
    robot1.type("stdin of\nRobot1" if "chat" in case.typed else "stdin of Robot1")
    status = robot1.wait()
    assert re.search(case.says, robot1.said), robot1.said
    assert status == case.status, robot1.said
    if robot2:
        server = robot2
        server.wait_until(lambda: re.search(case.peer_says, heard(server)), f"say {case.peer_says!r}")
        assert server.stop() in (0, 5, 130), server.said


def test_server_outlives_its_clients(world: World) -> None:
    """Those that hang up, are killed, and send what it does not expect."""
    (world.prjs / "__BTScan__").write_text(LIST)
    server = world.start_server("serve --from Robot1 --id abc --text --echo -n 2")
    world.start("Robot1", "send Robot2 other --bool true").wait()
    killed = world.start("Robot1", "recv Robot2 abc --text")
    server.wait_for("(.* connected\n(.*\n)*){2}")
    killed.kill()
    for _ in range(2):
        world.start("Robot1", "send Robot2 abc --text Hi").wait()
    assert server.wait() == 0 and server.said.count("\nHi\n") == 2 and server.said.count("hung up") >= 3, server.said


def test_chat_waits_for_whom_it_was_told(world: World) -> None:
    """One who connects first and is silent, or another, does not get the only seat."""
    for name in "Robot1", "Robot3", "Robot4":
        (world.air.run_folder(name).parent / "prjs" / "__BTScan__").write_text(LIST)
    listener = world.start_server("chat --listen --from Robot1")
    world.start("Robot3", "recv Robot2 --any -t 0")
    listener.wait_for(" connected\n")
    world.start("Robot4", "send Robot2 chat --text 'I am another'").wait()
    caller = world.start("Robot1", "chat Robot2")
    listener.wait_for("talking to Robot1")
    listener.type("Who is there?\n")  # before the caller has typed anything
    caller.wait_for("Robot2: Who is there\\?\n")
    caller.type("Robot1\n")
    listener.wait_for("Robot1: Robot1\n")
    assert "I am another\n" not in listener.said, listener.said


PIPED = """\
{"kind":"text","id":"\\u00e9","value":"h\\u00e9"}
nonsense

{"kind":"data","id":"c","value":"00FF"}
{"kind":"bool","id":"b","value":1}
{"kind":"text","id":"d","value":"","value_hex":"E9FF","sender":"x"}
{"kind":"text","id":"d","valeu":"x"}
{"kind":"text","id":"d","value":"x","to":"Robot9"}
["no object"]
{"kind":"data","id":"c","value":"0"}
{"kind":"text","id":5,"value":"x"}
{"id":"d","value":"x"}
{"kind":"flag","id":"b","value":true}
{"kind":"bool","id":"b","value":true}"""  # the last one without an end


def test_pipe_carries_what_is_a_message(world: World) -> None:
    """In order and byte for byte, over one connection; what is none is named, and left out."""
    (world.prjs / "__BTScan__").write_text(LIST)
    server = world.start_server("serve --any --echo")
    pipe = world.start("Robot1", "pipe Robot2 --wait 20 --linger 0")
    pipe.type(PIPED)
    assert pipe.wait() == 2
    answers = [json.loads(line) for line in pipe.said.splitlines() if line.startswith("{")]
    assert [(answer["id"], answer["value"]) for answer in answers if answer["sender"] == "Robot2"] == [
        ("\u00e9", "h\u00e9"),
        ("c", "00FF"),
        ("d", "\ufffd\ufffd"),
        ("b", True),
    ]
    assert answers[2]["value_hex"] == "E9FF"
    assert re.findall(r"line \d+, column \d+", pipe.said) == [
        "line 2, column 2",
        "line 5, column 25",
        "line 7, column 25",
        "line 8, column 1",
        "line 9, column 1",
        "line 10, column 25",
        "line 11, column 16",
        "line 12, column 1",
        "line 13, column 2",
    ], pipe.said
    assert server.stop() == 0 and server.said.count(" connected\n") == 1, server.said


def test_pipe_serves(world: World) -> None:
    """Nothing goes before all have called; a line goes to all or to one, by the name under which that one sends."""
    server = world.start_server("pipe --listen --clients 2 --time --linger 0")
    server.type('{"kind":"text","id":"news","value":"all"}\n')
    clients = []
    for name in "Robot1", "Robot4":
        (world.air.run_folder(name).parent / "prjs" / "__BTScan__").write_text(LIST)
        clients.append(world.start(name, "pipe Robot2 --linger 60"))
    clients[0].type('{"kind":"text","id":"hello","value":"I"}\n')
    for client in clients:
        client.wait_for('"news","value":"all"')
    server.wait_for('"hello".*"address":"02(:..){5}","time":"[-0-9]{10}T[:0-9]{8}[.][0-9]{6}Z"')
    for name in "Robot9", "Robot1":
        server.type('{"kind":"bool","id":"one","value":true,"to":"%s"}\n' % name)
    assert server.wait() == 4 and 'line 2: no client is "Robot9"' in server.said, server.said
    clients[0].wait_for('"one"')
    clients[1].wait_for("hung up")
    assert '"one"' not in clients[1].said


def test_pipe_reconnects(world: World) -> None:
    """A server that is killed, and one that comes later, cost no message that was not on its way."""
    (world.prjs / "__BTScan__").write_text(LIST)
    pipe = world.start("Robot1", "pipe Robot2 --reconnect --linger 0")
    pipe.type('{"kind":"text","id":"abc","value":"one"}\n')
    pipe.wait_for("trying again")
    server = world.start_server("serve --any")
    server.wait_for('"one"')
    server.kill()
    pipe.wait_for("Robot2 hung up; trying again")
    server = world.start_server("serve --any")
    pipe.type('{"kind":"text","id":"abc","value":"two"}\n')
    assert pipe.wait() == 0
    server.wait_for('"two"')


def test_closed_streams(world: World) -> None:
    """What nobody can read is a failure, and no socket gets the number of a stream that was closed."""
    (world.prjs / "__BTScan__").write_text(LIST)
    server = subprocess.Popen(
        [TAVBT, *"serve --any -t 20".split()],
        env=world.air.environment("Robot2"),
        stderr=subprocess.PIPE,
        preexec_fn=lambda: os.closerange(0, 2),
    )
    with server:
        assert server.stderr and server.stderr.readline().startswith(b"listening")
        world.start("Robot1", "send Robot2 abc --text Hi").wait()
        assert b"cannot write to stdout" in server.stderr.read() and server.wait(PATIENCE) == 1


@pytest.mark.parametrize(("typed", "status"), [("scan", 130), ("serve --any", 0), ("serve --any -n 1", 130)])
def test_interrupt(typed: str, status: int, world: World) -> None:
    """Ctrl-C ends a scan at once, and a server well."""
    world.air.speed = 1
    robot1 = world.start("Robot1", typed, trace=True)
    robot1.wait_for("air: (hci_inquiry|listen)")
    while "State:\tS" not in Path(f"/proc/{robot1.process.pid}/status").read_text():  # it waits
        pass
    start = time.monotonic()
    assert robot1.stop() == status, robot1.said
    assert time.monotonic() - start < 6  # a whole scan has 10 s left


def test_lines_are_written_whole(world: World) -> None:
    """Text and line end in one write, so that lines of two programs do not mix."""
    ours, theirs = socket.socketpair(socket.AF_UNIX, socket.SOCK_DGRAM)  # keeps writes apart
    with ours, theirs:
        command = [TAVBT, "serve", "--any", "-t", "0.1"]
        out = theirs.fileno()
        env = world.air.environment("Robot1")
        assert subprocess.run(command, env=env, stdout=out, stderr=out, timeout=PATIENCE).returncode == 5
        ours.setblocking(False)
        writes = []
        while select.select([ours], [], [], 0)[0]:
            writes.append(ours.recv(65536).decode())
    assert len(writes) == 2 and all(text.endswith("\n") for text in writes), writes


# ---- On a terminal --------------------------------------------------------------------------------------------------


def show(command: list[str], columns: int = 80, env: dict[str, str] | None = None) -> str:
    """What a program says to the end, on a terminal."""
    size = (24, columns)
    with closing(pexpect.spawn(command[0], command[1:], timeout=PATIENCE, dimensions=size, env=env)) as terminal:
        terminal.expect(pexpect.EOF)
        return terminal.before.decode()


@pytest.mark.parametrize(
    ("typed", "no_color", "bar", "colour"),
    [("scan", "", True, True), ("scan", "1", True, False), ("scan -q", "", False, True)],
)
def test_progress(typed: str, no_color: str, bar: bool, colour: bool, world: World) -> None:
    """The bar and colours, only where there is a terminal, and no colours with NO_COLOR."""
    world.start_server("serve --any")
    world.air.speed = 10
    said = show([TAVBT, *typed.split()], env=world.air.environment("Robot1", NO_COLOR=no_color))
    filled = [len(hashes) for hashes in re.findall(r"\rLooking around \[(#*)\.*\] \d+ s", said)]
    grows = filled == sorted(filled) and len(set(filled)) > 2
    cleared = said.rfind("\r\x1b[K") > said.rfind("Looking")
    assert (grows and cleared) == bar and ("\x1b[1mADDRESS" in said) == colour and "Robot2" in said, said


@pytest.mark.parametrize("verb", ["", "send", "decode", "bench"])
def test_help_fits_the_terminal(verb: str) -> None:
    said = show([TAVBT, *verb.split(), "--help"], 60)
    start = said.index("\r\n\r\n")  # lines to paste stay whole
    assert max(map(len, said[start:].split("\r\n"))) <= 60, said
    assert max(map(len, show([TAVBT, *verb.split(), "--help"], 200)[start:].split("\r\n"))) > 60


# ---- Without an air -------------------------------------------------------------------------------------------------


def run(*words: str, given: str = "") -> subprocess.CompletedProcess[str]:
    return subprocess.run([TAVBT, *words], input=given, stdout=subprocess.PIPE, text=True)


@pytest.mark.parametrize("form", WHOLE)
def test_cut_messages_are_damaged(form: str) -> None:
    """Cut anywhere; whole ones are not."""
    got = run("decode", form, "--lines", given="\n".join(WHOLE[form]))
    assert got.returncode == 0 and got.stdout.count("OFFSET") == len(WHOLE[form]) and "joined" not in got.stdout
    assert run("decode", form, "--lines", given="07\n" + WHOLE[form][0]).returncode == 7
    for message in WHOLE[form]:
        for size in range(1, len(message.split()) + 1):
            cut = message.split()[:size]
            whole = size == len(message.split())
            got = run("decode", form, *cut)
            assert got.returncode == (0 if whole else 7) and ("damaged:" in got.stdout) != whole, (cut, got.stdout)


def test_manual_page() -> None:
    """It has every verb and option that help has, and no other."""
    manual = (ROOT / "tools/tavbt/tavbt.1").read_text().replace("\\", "")
    verbs = re.findall(r"^  (\w+) ", run("--help").stdout.split("Verbs:")[1], flags=re.M)
    helps = [run(*verb, "--help").stdout for verb in ([], *([verb] for verb in verbs))]
    options = set(re.findall(r"--([a-z]+)", "".join(re.findall("^  -.*", "".join(helps), re.M))))
    assert options == set(re.findall(r"(?:Fl|[|,]) -([a-z]+)", manual))
    assert [verb for verb in verbs if f".It Nm Cm {verb}" not in manual] == []
