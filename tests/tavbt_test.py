#!/usr/bin/env python3
"""tavbt as people use it, on the simulated air: what it says and how it ends. TAV_BUILD names the build folder."""
import concurrent.futures
import os
import pty
import re
import shlex
import signal
import subprocess
import sys
import tempfile
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
BUILD = os.path.abspath(os.environ["TAV_BUILD"])
TAVBT = os.path.join(BUILD, "tools/tavbt/tavbt")
MANUAL = open(os.path.join(ROOT, "tools/tavbt/tavbt.1")).read().replace("\\", "")
ROBOT2 = "02:00:9F:56:E8:37"
AT = f" --address {ROBOT2}"
LIST = f"Robot2\0\x1c{ROBOT2}\0\x1aRobot 3\0\x1c02:00:00:00:00:03\0\x1a"

# What Robot1 types, how that ends, and what it says: a regular expression. Then what Robot2 runs meanwhile, what that
# says, and how Robot1 is put on the air.
CASES = [
    ("scan", 0, f"ADDRESS +NAME\n{ROBOT2}  Robot2\n1 device, kept in ../prjs/__BTScan__", "serve --any"),
    ("scan --json", 0, '^{"address":"' + ROBOT2 + '","name":"Robot2"}\n1 device', "serve --any"),
    ("scan", 3, "no device answered\n  -> "),
    ("scan", 6, "no Bluetooth adapter that is switched on\n  -> tavbt doctor", None, "", "--state down"),
    ("devices", 0, f"{ROBOT2} +Robot2\n02:00:00:00:00:03 +Robot 3\n$", None, "", LIST),
    ("devices", 3, "no device list file.*\n  -> mkdir"),
    ("devices", 7, f"{ROBOT2} +Robot2\n.*__BTScan__ is damaged from byte 27 on", None, "", LIST[:-1]),
    ("services Robot2", 0, "CHANNEL +NAME +DESC.*\n16 +Lights +On and off +Me\n- +Bare", "serve --any"),
    ("services Robot2", 0, '"channel":16}\n.*"channel":null}', "serve --any", "", "JSON"),
    ("services Robot2", 4, "Robot2 is there, but lists no services", "serve --any", "", "Robot2: --state no-sdp"),
    # Every kind of message, in both formats, from one brick to the other.
    ("send Robot2 abc --text 'Hi you'", 0, "sent to Robot2", "serve --any", 'text from "Robot1", id "abc": "Hi you"'),
    ("send Robot2 abc --text Hi", 0, "sent", "serve --dump -n 1", "^01526F626F7431006162630048690"),
    ("send Robot2 abc --bool true", 0, "sent", "serve --from Robot1 --id abc --bool -n 1", "^true\n"),
    ("send Robot2 abc --data 'DE AD'", 0, "sent", "serve --from Robot1 --id abc --data -n 1", "^DEAD\n"),
    (
        "send Robot2 abc --file /dev/null",
        0,
        "no reader takes data of 0 bytes\nsent",
        "serve --any -n 1 -t 2",
        "damaged, has no data",
    ),
    ("send Robot2 abc --file -", 0, "sent", "serve --from Robot1 --id abc --data --raw -n 1", "stdin of Robot1$"),
    ("send Robot2 abc --text= --classic", 0, "sent", "serve --classic --id abc --text -n 1", "^\n$"),
    ("send Robot2 abc --bool false --classic", 0, "sent", "serve --classic --id abc --bool -n 1", "^false\n"),
    (
        "send Robot2 abc --text Hi --classic",
        0,
        "sent",
        "serve --classic --any --json",
        '"kind":"text","id":"abc","value":"Hi"}',
    ),
    (
        f"send Robot2 abc --text {'x' * 244} --classic",
        0,
        "no reader takes .* this length.*\nsent",
        "serve --classic --any",
        "damaged, its first byte is 0",
    ),
    ("send Robot2 abc --text=-\x1b[2J\xff\xe0\x80", 0, "sent", "serve --any", r'"-\\x1B\[2J\\xFF\\xE0\\x80"'),
    (
        "send Robot2 abc --text Hi",
        0,
        "sent",
        "serve --any",
        "^(a client could not be accepted: accept failed: Too many open files\n)+$",
        "Robot2: --faults accept:*=EMFILE",
    ),
    ("send Robot2 abc --text Hi", 4, "Robot2 is there, but refused .* channel 16\n  -> start", "serve --any --classic"),
    ("send Robot9 abc --text Hi", 3, '"Robot9" was not found\n  -> is it switched on', "serve --any"),
    ("send robot2 abc --text Hi", 3, 'no "robot2", but there is "Robot2"', "serve --any"),
    ("send Robot2 abc --text Hi" + AT, 4, r'Robot2 does not answer: .*\("Host is down"\)'),
    ("send Robot2 abc --text Hi", 6, "no adapter of this brick reaches Robot2", None, "", "--state down", LIST),
    (f"send Robot2 abc --text {'x' * 30000}", 1, "only the beginning of the message was sent", "serve --any"),
    ("send Robot2 abc --text Hi", 4, "no program on it listens", None, "", "--faults connect:1=ECONNREFUSED", LIST),
    ("send Robot2 abc --bool 5", 2, "5 not in {true,false}"),
    (f"send Robot2 abc --text {'x' * 2000}", 0, "cut", "serve --from Robot1 --id abc --text -n 1", "^x{2000}\n$"),
    (
        "send Robot2 abc --bool true --wait 5",
        0,
        "sent.*\nbool from .*: true",
        "serve --from Robot1 --id abc --bool --echo",
    ),
    ("send Robot2 abc --bool true --wait 0.2", 5, '"Robot2" did not answer', "serve --any"),
    ("send Robot1 abc --bool true", 3, '"Robot1" is this brick itself'),
    ("send Robot2 abc --txt Hi", 2, "there is no option --txt"),
    ("send Robot2 abc --data DE AD", 2, '"AD" is too much'),
    ("send Robot2 abc --data DEADB", 2, '"DEADB" is not pairs of hexadecimal digits'),
    ("send Robot2 abc --data DE --classic", 2, "the classic format has no raw data"),
    ("send Robot2 abc", 2, r"Exactly 1 option from \[--bool,--text,--data,--file\]"),
    ("send Robot2 abc --file /", 1, "cannot read /: Is a directory", "serve --any"),
    ("recv Robot2 abc --text", 0, "^Hi\n", "broadcast abc --text Hi"),
    (
        "recv Robot2 abc --bool --json",
        0,
        '^{"kind":"bool","sender":"Robot2","id":"abc","value":true}',
        "broadcast abc --bool true",
    ),
    ("recv Robot2 --any", 0, 'data from "Robot2", id "abc": DEAD', "broadcast abc --data DEAD"),
    (
        "recv Robot2 abc --text",
        4,
        'ignored 15 bytes, not a text .*: its id is "xyz"\ntavbt: Robot2 hung',
        "broadcast xyz --text Hi",
    ),
    ("recv Robot2 abc --text", 4, "ignored 13 bytes, not a text .*: it is a bool", "broadcast xyz --bool true"),
    ("recv Robot2 abc --text", 4, 'its sender is "Bob"', "broadcast abc --text Hi", "", "TAV_BRICK_NAME=Bob"),
    ("recv Robot2 abc --bool -t 0.3", 5, "nothing that matches came in 0.3 s", "serve --any"),
    ("recv Robot2 --text", 2, "the id of the messages is missing"),
    ("serve --any", 1, "another program on this brick has channel 16", None, "", "--faults bind:1=EADDRINUSE"),
    ("serve --any -t 0.1", 5, "nothing came in 0.1 s\n$"),
    ("serve --any -t 0.1", 5, "^no Bluetooth adapter is switched on", None, "", "--state down"),
    ("serve --id abc --text", 2, "the sender's name is missing"),
    ("broadcast abc --text Hi --clients 2 -t 0.1", 5, "0 of 2 clients came in time; nothing was sent"),
    (
        "chat Robot2",
        0,
        "talking to Robot2.*\n(Robot2: Hello\n)?",
        "chat --listen --from Robot1",
        "Robot1: stdin of\nRobot1: Robot1\n",
    ),
    ("chat Robot2", 4, "refused", "serve --any --classic"),
    ("chat", 2, "with whom"),
    ("bench Robot2 -t 0.01", 0, "ROUND TRIPS/S.*\n1 .*\n16 .*\n64 .*\n256 .*\n800 ", "bench --serve"),
    ("bench Robot2 -t 0.01 --json", 0, '"bytes":800,"round_trips":[1-9]', "bench --serve"),
    ("bench Robot2", 5, "Robot2 does not answer\n  -> on Robot2: tavbt bench --serve", "serve --any"),
    ("bench Robot2" + AT, 4, "Host is down"),
    (
        "doctor",
        0,
        'adapter: hci0, (..:?){6}\nok .*\nok .*"Robot1"\nok +channel 1: .*\nok +channel 16: .*\nok .*\nok +SDP',
    ),
    ("doctor", 6, "problem  adapter: there is none", None, "", "--no-adapter"),
    ("doctor", 6, "problem  adapter: hci0 is switched off\n +-> sudo hciconfig hci0 up", None, "", "--state down"),
    ("doctor", 6, "kernel: it has no Bluetooth", None, "", "--faults socket:1=EAFNOSUPPORT"),
    ("doctor", 0, "warning  visible: scans.*(.*\n)*warning  SDP server", None, "", "--state 'hidden no-sdp'"),
    (
        "doctor",
        1,
        "problem  channel 1: another program on this brick has channel 1",
        None,
        "",
        "--faults bind:1=EADDRINUSE",
    ),
    ("doctor", 1, "problem  channel 16: free, but .* obexd", None, "", "--faults bind:4=EADDRINUSE"),
    ("doctor", 0, "warning  device list: no folder.*\n +-> mkdir", None, "", "no prjs"),
    ("doctor --json", 0, '"check":"name","state":"warning","what":"other bricks find', None, "", "TAV_BRICK_NAME=Bob"),
    (
        "decode 03 41 42 00 61 62 63 00 01",
        0,
        '1 +41 42 00 +sender +"AB"\n4 +61 62 63 00 +id +"abc"\n8 +01 +bool +true\n$',
    ),
    ("decode 0e000100819e046162630003 00486900", 0, 'classic text message.*(.*\n)*13 +48 69 00 +text +"Hi"\n$'),
    ("decode --json 04 41 42 00 61 62 63 00 02 00 00 00 DE AD", 0, '"id":"abc","value":"DEAD",.*"damaged":\\[\\]'),
    ("decode 03 41 00 61 00 02 03 41 00 61 00 01", 0, "odd: its value is 2.*\n\njoined: 6 bytes .*(.*\n)*11 +01"),
    (
        "decode 00 0d 00 01 00 81 9e 04 61 62 63 00 01 00 01",
        0,
        "a zero byte, which readers skip(.*\n)*odd: its length is 13, not 12",
    ),
    ("decode 01 41 00 61 00 48", 7, "damaged: no NUL ends its text: readers drop its last byte"),
    ("decode 07", 7, "its type is 7, which is none of"),
    ("decode 0 7", 7, "not pairs of hexadecimal digits"),
    ("complete -- send R", 0, "^Robot2\nRobot 3\n$", None, "", LIST),
    ("complete -- send Robot2 abc --b", 0, "^--bool\n$"),
    ("complete -- s", 0, "^scan\nservices\nsend\nserve\n$"),
    ("", 2, "Usage: tavbt"),
    ("dance", 2, "there is no verb dance"),
    ("--version", 0, r"^tavbt \d+\.\d+\.\d+\n$"),
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
    """An air of its own, and a working folder beside prjs."""

    def __init__(self, number, setup=()):
        self.folder = tempfile.TemporaryDirectory()
        self.run = os.path.join(self.folder.name, "run")
        os.mkdir(self.run)
        if "no prjs" not in setup:
            os.mkdir(os.path.join(self.folder.name, "prjs"))
        for content in setup:
            if "\x1c" in content:
                open(os.path.join(self.folder.name, "prjs/__BTScan__"), "w").write(content)
        self.environment = dict(
            os.environ, TAV_BUILD=BUILD, TAV_AIR=f"tavbt-{os.getpid()}-{number}", TAV_AIR_SPEED="20"
        )
        self.environment.pop("TAV_BRICK_NAME", None)
        self.environment.update(item.split("=") for item in setup if re.match("[A-Z_]+=", item))

    def start(self, name, arguments, options="", **more):
        words = [a.encode("latin-1") for a in shlex.split(options) + ([] if "--no-adapter" in options else [name])]
        tavbt = [TAVBT] + [a.encode("latin-1") for a in shlex.split(arguments)]
        streams = dict(stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        command = [os.path.join(ROOT, "scripts/air")] + words + ["--"] + tavbt
        return subprocess.Popen(command, cwd=self.run, env=self.environment, **{**streams, **more})


def end(process, text=b""):
    said, _ = process.communicate(text, timeout=60)
    return said.decode(errors="replace").replace("\r", "")


def check_case(number, typed, status, says, peer=None, peer_says="", *setup):
    world = World(number, setup)
    peer_says = peer_says or ""
    if "JSON" in setup:
        typed += " --json"
    robot2 = None
    if peer:
        options = "".join(item[8:] for item in setup if item.startswith("Robot2: "))
        robot2 = world.start("Robot2", peer, options + " --service 'Lights|On and off|Me=16' --service Bare=0")
        heard = robot2.stdout.readline().decode()  # it is there once it tells what it waits for
    own_options = "".join(item for item in setup if item.startswith("--"))
    robot1 = world.start("Robot1", typed, own_options)
    said = end(robot1, b"stdin of\nRobot1" if "chat" in typed else b"stdin of Robot1")
    wrong = []
    if robot1.returncode != status or not re.search(says, said):
        wrong.append(f"ended with {robot1.returncode}, not {status}; wanted {says!r}, said:\n{said}")
    if robot2:
        time.sleep(0.1)
        robot2.send_signal(signal.SIGINT)
        heard = end(robot2)
        heard = re.sub("^.* (connected|hung up)\n", "", heard, flags=re.M)
        if not re.search(peer_says, heard) or robot2.returncode not in (0, 5, 130):
            wrong.append(f"Robot2 ended with {robot2.returncode}; wanted {peer_says!r}, said:\n{heard}")
    return [f"{typed[:80]!r}: {text}" for text in wrong]


def check_survival(number):
    """A server that echoes outlives clients that hang up, are killed, and send what it does not expect."""
    world = World(number, [LIST])
    server = world.start("Robot2", "serve --from Robot1 --id abc --text --echo -n 2")
    server.stdout.readline()
    end(world.start("Robot1", "send Robot2 other --bool true"))
    killed = world.start("Robot1", "recv Robot2 abc --text")
    time.sleep(0.3)
    os.kill(killed.pid, signal.SIGKILL)
    end(killed)
    for _ in range(2):
        end(world.start("Robot1", "send Robot2 abc --text Hi"))
    said = end(server)
    right = server.returncode == 0 and said.count("\nHi\n") == 2 and said.count("hung up") >= 3
    return [] if right else [f"serve --echo ended with {server.returncode}, said:\n{said}"]


def check_closed(number):
    """What nobody can read is a failure, and no socket gets the number of a stream that was closed."""
    world = World(number, [LIST])
    server = world.start("Robot2", "serve --any -t 5", preexec_fn=lambda: os.closerange(0, 2))
    server.stdout.readline()
    end(world.start("Robot1", "send Robot2 abc --text Hi"))
    said = end(server)
    right = server.returncode == 1 and "cannot write to stdout" in said
    return [] if right else [f"serve without stdin and stdout ended with {server.returncode}, said:\n{said}"]


def check_interrupt(number):
    """Ctrl-C ends a scan at once, and a server well."""
    wrong = []
    for typed, status in (("scan", 130), ("serve --any", 0), ("serve --any -n 1", 130)):
        world = World(number)
        world.environment["TAV_AIR_SPEED"] = "1"
        robot1 = world.start("Robot1", typed)
        time.sleep(1)
        robot1.send_signal(signal.SIGINT)
        start = time.monotonic()
        said = end(robot1)
        if robot1.returncode != status or time.monotonic() - start > 6:  # a whole scan has 9 s left
            wrong.append(f"{typed!r} after Ctrl-C ended with {robot1.returncode}, not {status}, said:\n{said}")
    return wrong


def check_terminal(number):
    """The progress bar and colours, only where there is a terminal, and no colours with NO_COLOR."""
    wrong = []
    for typed, variables, bar, colour in (
        ("scan", {}, True, True),
        ("scan", {"NO_COLOR": "1"}, True, False),
        ("scan -q", {}, False, True),
    ):
        world = World(number, [LIST])
        world.environment.update(variables, TAV_AIR_SPEED="10")
        robot2 = world.start("Robot2", "serve --any")
        robot2.stdout.readline()
        ours, theirs = pty.openpty()
        robot1 = world.start("Robot1", typed, stdout=theirs, stderr=theirs)
        os.close(theirs)
        said = b""
        try:
            while piece := os.read(ours, 4096):
                said += piece
        except OSError:  # the terminal has closed
            pass
        os.close(ours)
        robot1.communicate()
        robot2.kill()
        end(robot2)
        filled = [len(hashes) for hashes in re.findall(rb"\rLooking around \[(#*)\.*\] \d+ s", said)]
        grows = filled == sorted(filled) and len(set(filled)) > 2
        cleared = said.rfind(b"\r\x1b[K") > said.rfind(b"Looking")
        if (grows and cleared) != bar or (b"\x1b[1mADDRESS" in said) != colour or b"Robot2" not in said:
            wrong.append(f"{typed!r} on a terminal with {variables} said {said!r}")
    return wrong


def check_cuts(_number):
    """A message that is cut anywhere is damaged; a whole one is not."""
    wrong = []
    for form, messages in WHOLE.items():
        lines = [TAVBT, "decode", form, "--lines"]
        got = subprocess.run(lines, input="\n".join(messages), stdout=subprocess.PIPE, text=True)
        if got.returncode != 0 or got.stdout.count("OFFSET") != len(messages) or "joined" in got.stdout:
            wrong.append(f"decode --lines ended with {got.returncode}, said:\n{got.stdout}")
        for message in messages:
            for size in range(1, len(message.split()) + 1):
                cut = message.split()[:size]
                got = subprocess.run([TAVBT, "decode", form] + cut, stdout=subprocess.PIPE, text=True)
                whole = size == len(message.split())
                if got.returncode != (0 if whole else 7) or ("damaged:" in got.stdout) == whole:
                    wrong.append(f"decode {form} {' '.join(cut)} ended with {got.returncode}, said:\n{got.stdout}")
    return wrong


def check_manual(_number):
    """The manual page has every verb and option that help has, and no other."""

    def run_help(*verb):
        return subprocess.run([TAVBT, *verb, "--help"], stdout=subprocess.PIPE, text=True, check=True).stdout

    verbs = re.findall(r"^  (\w+) ", run_help().split("Verbs:")[1], flags=re.M)
    options = set(
        re.findall(r"--([a-z]+)", "".join(re.findall("^  -.*", run_help() + "".join(map(run_help, verbs)), re.M)))
    )
    described = set(re.findall(r"(?:Fl|[|,]) -([a-z]+)", MANUAL))
    wrong = [f"the manual page differs in --{option}" for option in sorted(options ^ described)]
    return wrong + [f"the manual page lacks {verb}" for verb in verbs if f".It Nm Cm {verb}" not in MANUAL]


def main():
    checks = [(check_case, case) for case in CASES]
    alone = (check_survival, check_closed, check_interrupt, check_terminal, check_cuts, check_manual)
    checks += [(check, ()) for check in alone]
    with concurrent.futures.ThreadPoolExecutor(4) as pool:
        results = pool.map(lambda job: job[1][0](job[0], *job[1][1]), enumerate(checks))
        wrong = [text for result in results for text in result]
    for text in wrong:
        print("FAILED:", text)
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
