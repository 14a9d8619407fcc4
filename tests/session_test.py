"""What tav-session says of recordings and captures, and its page in a real browser."""

import json
import os
import re
import struct
import subprocess
import sys
import time
from collections.abc import Callable, Iterator
from pathlib import Path
from typing import Any

import pytest
from browser import Browser
from recording_test import Robot
from tav_air import Air, sky
from tav_air.process import Problem
from tav_session import capture, follow, render
from tav_session.analysis import analyse
from tav_session.capture import Event, Link, Message, Session
from tav_session.follow import Follower

ROOT = Path(__file__).resolve().parent.parent
sys.path.insert(0, str(ROOT / "lab"))
from radio import H4_ACL, H4_EVENT, PB_START, Trace  # noqa: E402

PROGRAM = ROOT / "sim" / "tav-session"
TAVBT = Path(os.environ["TAV_BUILD"]) / "tools" / "tavbt" / "tavbt"
HOSTILE = "<script>document.title='run'</script><img src=x onerror=\"document.title='run'\">&amp;\u202eabc\u2066\uffff"
LONG_ID = "i" * 1000
PATIENCE = 120  # s, for what takes one or two on a quiet machine


def named(kind: int, message_id: str, value: bytes, sender: str = "Robot1") -> str:
    return repr(bytes([kind]) + f"{sender}\0{message_id}\0".encode() + value)


def text(message_id: str, value: str, sender: str = "Robot1") -> str:
    return named(1, message_id, value.encode() + b"\0", sender)


def session(*arguments: str | Path) -> str:
    done = subprocess.run([sys.executable, PROGRAM, *arguments], capture_output=True, text=True, check=False)
    assert done.returncode == 0, done.stderr
    return done.stdout


def rows_of(folder: Path) -> list[dict[str, Any]]:
    return [json.loads(line) for line in session("--json", *sorted(folder.glob("*.pcapng"))).splitlines()]


@pytest.fixture
def air(tmp_path: Path) -> Iterator[Air]:
    with Air(record=tmp_path / "session") as made:
        yield made


class Pair:
    """Robot1, connected to Robot2."""

    def __init__(self, air: Air, **options: str) -> None:
        self.folder = Path(str(air.record))
        self.two = Robot(air, "Robot2")
        self.one = Robot(air, "Robot1", **options)
        self.two.do("s = listen(16)")
        self.one.do("c = rfcomm(); c.connect(('02:00:00:00:00:02', 16))")
        self.two.do("d = s.accept()[0]")

    def send(self, *messages: str) -> None:
        for message in messages:
            self.one.do(f"c.send({message})")

    def receive(self, size: int = 1024) -> None:
        self.two.do(f"d.recv({size})")

    def answer(self, message: str) -> None:
        self.two.do(f"d.send({message})")
        self.one.do("c.recv(1024)")


# ---- What became of messages ----------------------------------------------------------------------------------------


def play_joined(pair: Pair) -> None:
    pair.send(text("a", "one"), named(3, "b", b"\1"))
    pair.receive()


def play_cut(pair: Pair) -> None:
    pair.send(text("a", "left 20"))
    pair.receive(15)
    pair.receive()


def play_tail(pair: Pair) -> None:
    pair.send(text("a", "left 20"))
    pair.receive(15)
    pair.send(named(3, "b", b"\1"))
    pair.receive()
    pair.send(text("c", "three"))
    pair.receive()


def play_behind(pair: Pair) -> None:
    pair.send(text("a", "one"), text("b", "two"))
    pair.receive(20)
    pair.receive()


def play_empty(pair: Pair) -> None:
    pair.send(repr(b"\1Robot1\0a\0"))
    pair.receive()
    pair.send(named(4, "none", bytes(4)), named(3, "b", b"\1"))
    pair.receive()


def play_wrong_sender(pair: Pair) -> None:
    pair.send(text("a", "one", sender="Robot9"))
    pair.receive()


def play_gone(pair: Pair) -> None:
    pair.two.kill()
    pair.one.do("c.recv(1)")
    pair.send(text("a", "one"))


def play_hung_up(pair: Pair) -> None:
    pair.send(text("a", "one"))
    pair.two.do("d.close()")


def play_damaged(pair: Pair) -> None:
    pair.send(repr(b"\1Robot1\0a"))
    pair.receive()


def play_classic(pair: Pair) -> None:
    """With a payload length of 0, by which a text reader takes all that follows."""
    pair.two.do("t = listen(1)")
    pair.one.do("b, c = c, rfcomm(); c.connect(('02:00:00:00:00:02', 1))")
    pair.two.do("e, d = d, t.accept()[0]")
    for value in "0300486900", "0000486900", "0000":
        pair.send(f"bytes.fromhex('0E000100819E0461626300{value}')")
        pair.receive()


def play_well(pair: Pair) -> None:
    pair.send(named(4, "raw", b"\2\0\0\0\xde\xad"))
    pair.receive()


# What is played; of each message what became of it, and something that is said of it.
FATES: list[tuple[Callable[[Pair], None], list[tuple[str, str]]]] = [
    (
        play_joined,
        [
            (
                "joined",
                'ReadMsg_TAV_String("Robot1", "a") gives "one··Robot1·b·" (· is a byte that no letter stands for)',
            ),
            ("swallowed", "it ends up inside that text, and no reader gets it. Send one message, and wait"),
        ],
    ),
    (
        play_cut,
        [
            (
                "cut",
                'in pieces of 15 and 3 bytes, as it asked for no more at once. ReadMsg_TAV_String("Robot1", "a") gives "left" (its end is missing',
            )
        ],
    ),
    (
        play_tail,
        [
            ("cut", 'gives "left" (its end is missing'),
            ("swallowed", 'to the end of the rest of text a "left 20": every reader fails at what comes first, and no'),
            ("ok", 'gives "three"'),
        ],
    ),
    (
        play_behind,
        [("joined", "got this and the next message at once"), ("cut", 'came behind text a "one": no reader gets it.')],
    ),
    (
        play_empty,
        [
            ("damaged", 'ReadMsg_TAV_String("Robot1", "a") gives "" (its end is missing'),
            ("joined", 'ReadMsg_TAV_Data("Robot1", "none") gives 0 bytes. The rest is dropped.'),
            ("swallowed", "the reader takes that one and drops this"),
        ],
    ),
    (play_wrong_sender, [("sender", 'a reader that expects "Robot1" fails, and the message is lost')]),
    (
        play_gone,
        [
            ("gone", "The program on Robot2 has ended, without hanging up"),
            ("lost", "The operation returns false: the message is lost. What it was"),
        ],
    ),
    (play_hung_up, [("lost", "Robot2 hung up before it read this")]),
    (play_damaged, [("damaged", "Every reader fails: no NUL ends the id")]),
    (
        play_classic,
        [
            ("ok", 'ReadMsg_TAVOrg_String("abc") gives "Hi".'),
            ("damaged", 'ReadMsg_TAVOrg_String("abc") gives "Hi·" ('),
            ("damaged", 'ReadMsg_TAVOrg_String("abc") gives "" (its payload length is 0'),
        ],
    ),
    (play_well, [("ok", 'ReadMsg_TAV_Data("Robot1", "raw") gives 2 bytes DEAD.')]),
]


@pytest.mark.parametrize(("play", "fates"), FATES, ids=[play.__name__[5:] for play, _ in FATES])
def test_it_says_what_became_of_messages(air: Air, play: Callable[[Pair], None], fates: list[tuple[str, str]]) -> None:
    pair = Pair(air)
    play(pair)
    told = [row for row in rows_of(pair.folder) if row["from"] == "Robot1" and row["what"] not in ("note", "connect")]
    told = [row for row in told if "reads" in row or row["state"] in ("gone", "lost")]
    assert [row["state"] for row in told] == [state for state, _ in fates]
    for row, (_, words) in zip(told, fates):
        assert words in row["says"]


@pytest.mark.parametrize(("frames", "states"), [((), ["lost", "ok"]), (("Robot2",), ["ok", "lost"])])
def test_a_connection_that_was_over_is_accepted_by_nobody(frames: tuple[str, ...], states: list[str]) -> None:
    """Unless a radio's capture has times of another clock."""
    over, anew = (Link("Robot1", "Robot2", 16, True, key) for key in ("1", "2"))
    other = Link("Robot2", "Robot1", 16, False, "3")
    data = b"\3Robot1\0a\0\1"
    drawn = Session(bricks=["Robot1", "Robot2"], recorded={"Robot1", "Robot2"}, frames={*frames})
    for link, steps in (
        (over, ("connected", "send", "end")),
        (anew, ("connected", "send")),
        (other, ("accepted", "receive")),
    ):
        for what in steps:
            event = Event(len(drawn.events), link.brick, what, link, link.peer, 16)
            event.error = "ECONNRESET" if what == "end" else ""
            if what in ("send", "receive"):
                event.data = data
                event.messages = [Message(False, 0, len(data), "bool", b"Robot1", b"a", b"\1")]
            link.events.append(event)
            drawn.events.append(event)
    assert [row["state"] for row in analyse(drawn) if row["what"] == "send"] == states


def test_a_refused_connection_does_not_look_like_a_success(air: Air) -> None:
    two = Robot(air, "Robot2")
    one = Robot(air, "Robot1")
    for line in "pass", "s = listen(1)", "t = listen(16)":
        two.do(line)
        one.do("rfcomm().connect(('02:00:00:00:00:02', 16))")
    rows = [row for row in rows_of(two.file.parent) if row["what"] == "connect" and row["from"] == "Robot1"]
    assert [(row["state"], row["to"]) for row in rows] == [("refused", "Robot2")] * 2 + [("lost", "Robot2")]
    assert "all the same: then the first message fails. Disconnect, wait a second, try again." in rows[0]["says"]
    assert "listens on channel 16. It listens on channel 1: both need" in rows[1]["says"]


def follow_until(follower: Follower, fits: Callable[[list[dict[str, Any]]], object]) -> list[dict[str, Any]]:
    """Looks until the rows that there are then do."""
    until = time.monotonic() + PATIENCE
    while time.monotonic() < until:
        follower.look(1)
        if fits(rows := [*follower.rows.values()]):
            return rows
    raise AssertionError([row["title"] for row in follower.rows.values()])


def test_it_follows_recordings(air: Air) -> None:
    """Of bricks that come later, of which one runs twice; of one whose file is deleted and begun anew; and says the same."""
    pair = Pair(air)
    with Follower(lambda: sorted(pair.folder.glob("*.pcapng"))) as follower:
        pair.send(text("a", "one"))
        follow_until(follower, lambda rows: [row["state"] for row in rows if "reads" in row] == ["waiting"])
        pair.receive()
        follow_until(follower, lambda rows: [row["state"] for row in rows if "reads" in row] == ["ok"])
        for number, name in enumerate(("Robot3", "Robot3", "Robot4")):
            third = Robot(air, name)
            third.do("c = rfcomm(); c.connect(('02:00:00:00:00:02', 16))")
            pair.two.do("e = s.accept()[0]")
            third.do(f"c.send({text('b', str(number), sender=name)})")
            pair.two.do("e.recv(1024)")
            follow_until(
                follower, lambda rows: sum("reads" in row and row["state"] == "ok" for row in rows) == number + 2
            )
            third.kill()
            pair.two.do("e.setblocking(False); e.recv(1024)")
        rows = follow_until(follower, lambda rows: sum(row["what"] == "end" for row in rows) == 3)
        assert sorted(rows, key=lambda row: row["key"]) == sorted(rows_of(pair.folder), key=lambda row: row["key"])
        pair.one.file.unlink()
        (seen,) = (seen for seen in sky.look(air.name) if seen.name == "Robot1")
        assert sky.record(air.name, seen, pair.one.file) == ""
        pair.send(text("c", "anew"))
        follow_until(follower, lambda rows: any(row.get("id") == "c" for row in rows))


def test_it_follows_captures_of_btmon(air: Air, tmp_path: Path) -> None:
    pair = Pair(air)
    file = tmp_path / "Robot1.btsnoop"
    with Follower(lambda: [file]) as follower:
        for count in 1, 2:
            pair.send(text("a", "one"))
            subprocess.run(["editcap", "-F", "btsnoop", pair.one.file, tmp_path / "new"], check=True)
            (tmp_path / "new").replace(file)
            follow_until(follower, lambda rows: sum("reads" in row for row in rows) == count)


def test_long_sessions_are_followed_as_short_ones(air: Air, monkeypatch: pytest.MonkeyPatch) -> None:
    """What is told is left out of later looks, and nothing that is told changes by that."""
    monkeypatch.setattr(follow, "MANY", 1)
    pair = Pair(air)
    with Follower(lambda: sorted(pair.folder.glob("*.pcapng"))) as follower:
        for number in range(6):
            pair.send(*(text("a", f"{number} {i}") for i in range(3)))
            follow_until(follower, lambda rows: sum(row["state"] == "waiting" for row in rows) == 3)
            for size in (15, 1024) if number % 2 else (1024,):
                pair.receive(size)
            for _ in range(5):
                pair.answer(named(3, "b", b"\1", sender="Robot2"))
            count = 8 * (number + 1)
            rows = follow_until(
                follower, lambda rows: sum("reads" in row and row["state"] != "waiting" for row in rows) == count
            )
        assert len(follower.session.events) < 60  # of more than 90
    assert sorted(rows, key=lambda row: row["key"]) == sorted(rows_of(pair.folder), key=lambda row: row["key"])


def test_a_follower_says_that_tshark_has_died_and_goes_on(air: Air) -> None:
    pair = Pair(air)
    with Follower(lambda: sorted(pair.folder.glob("*.pcapng"))) as follower:
        follow_until(follower, lambda rows: rows)
        (stream,) = follower.streams.values()
        stream.processes[0].kill()
        with pytest.raises(Problem, match="tshark has ended"):
            follow_until(follower, lambda rows: False)
        pair.send(text("a", "one"))
        follow_until(follower, lambda rows: any("reads" in row for row in rows))


def test_it_says_what_tshark_does_not(tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    file = tmp_path / "some.pcapng"
    file.write_bytes(b"\n")

    def end_early(_: Path, *options: str, folder: str) -> "subprocess.Popen[bytes]":
        script = "echo '<pdml>'" if "pdml" in options else "seq 100000"  # more than a pipe holds
        return subprocess.Popen(["sh", "-c", script], stdout=subprocess.PIPE, stderr=subprocess.PIPE)

    def find_nothing(*_: object, **__: object) -> None:
        raise FileNotFoundError(2, "", "tshark")

    monkeypatch.setattr(capture, "run_tshark", end_early)
    with pytest.raises(Problem, match="tshark did not show all messages"):
        capture.read([file])
    monkeypatch.setattr(capture, "run_tshark", find_nothing)
    with pytest.raises(Problem, match="apt-get install tshark"), Follower(lambda: [file]) as follower:
        follower.look()


def test_it_plays_a_side_again(air: Air, tmp_path: Path) -> None:
    """With the answers that it waited for, on an air on which the other side is slower than it was."""
    pair = Pair(air)
    pair.send(text("a", "é\u202e\0x"))
    pair.receive()
    pair.answer(text("a", "yes", sender="Robot2"))
    pair.send(named(3, "b", b"\1"), named(4, "c", b"\1\0\0\0\xff"))
    pair.receive()
    recorded = sorted(pair.folder.glob("*.pcapng"))
    with Air(record=tmp_path / "again") as second:
        two = Robot(second, "Robot2")
        two.do("s = listen(16)")
        program = [PROGRAM, *recorded, "--replay", "Robot1", "--", TAVBT, "pipe", "Robot2", "--linger", "0"]
        one = second.brick("Robot1", sys.executable, *map(str, program))
        two.do("d = s.accept()[0]; d.recv(1024)")
        time.sleep(0.3)
        two.do(f"d.send({text('a', 'yes', sender='Robot2')})")
        two.do("d.recv(1024); d.recv(1024)")
        assert one.wait() == 0, one.said
    before, after = (
        [(row["id"], row["value"], row["size"]) for row in rows_of(folder) if "reads" in row]
        for folder in (pair.folder, tmp_path / "again")
    )
    assert after == before


def test_it_reads_captures_of_radios(tmp_path: Path) -> None:
    """Both sides of a connection that is refused, made anew, and used for a message of two frames; as the lab's are."""
    frames: list[tuple[int, bytes]] = [(0x3F, b""), (-0x1F, b""), (0x3F, b""), (-0x73, b"")]  # SABM, DM, SABM, UA
    message = b"\4Robot1\0map\0" + (200).to_bytes(4, "little") + bytes(200)
    frames += [(0xEF, message[:150]), (0xEF, message[150:]), (0x53, b""), (-0x73, b"")]  # data, DISC, UA
    for own, sign in ("Robot1", 1), ("Robot2", -1):
        trace = Trace(str(tmp_path / f"{own}.pcapng"), own)
        address = bytes([int(own[-1]), 0, 0, 0, 0, 2])
        peer = bytes([3 - int(own[-1]), 0, 0, 0, 0, 2])
        trace.write(bytes([H4_EVENT, 0x0E, 10, 1, 9, 16, 0]) + address, True)  # Read BD_ADDR
        trace.write(bytes([H4_EVENT, 3, 11, 0, 1, 0]) + peer + bytes([1, 0]), True)  # Connection Complete
        for identifier, data in (2, bytes([3, 0, 0x40, 0])), (3, bytes([0x40, 0, 0x40, 0, 0, 0, 0, 0])):
            part = struct.pack("<BBH", identifier, 1, len(data)) + data
            trace.write(acl(1, part), (identifier == 2) == (sign < 0))  # L2CAP's connection
        for control, data in frames:
            size = bytes([len(data) << 1 | 1]) if len(data) < 128 else struct.pack("<H", len(data) << 1)
            trace.write(acl(0x40, bytes([16 << 3 | 3, abs(control)]) + size + data + b"\0"), control * sign < 0)
    rows = [json.loads(line) for line in session("--json", *sorted(tmp_path.glob("*.pcapng"))).splitlines()]
    told = [(row["what"], row["state"], row["from"], row["title"]) for row in rows if row["brick"] == "Robot1"]
    assert told == [
        ("connect", "refused", "Robot1", "connect fails: ECONNREFUSED"),
        ("connect", "plain", "Robot1", "connected to channel 16"),
        ("send", "cut", "Robot1", "data map 200 bytes"),
        ("end", "plain", "Robot1", "hangs up"),
    ]
    assert "in frames of 150 and 66 bytes. A reader that waits takes the first alone" in rows[2]["says"]


def acl(cid: int, data: bytes) -> bytes:
    return struct.pack("<BHHHH", H4_ACL, 1 | PB_START, len(data) + 4, len(data), cid) + data


def test_other_forms(air: Air) -> None:
    pair = Pair(air)
    pair.send(text("a;b", "#\n"))
    pair.receive()
    assert 'Robot1 -> Robot2      text a;b "#\\x0A"' in session("--text", *sorted(pair.folder.glob("*")))
    assert "b0->>b1: text a#59;b #34;#35;#92;x0A#34;" in session("--mermaid", *sorted(pair.folder.glob("*")))


# ---- The page -------------------------------------------------------------------------------------------------------


def test_the_page(air: Air, browser: Browser, tmp_path: Path) -> None:
    pair = Pair(air)
    pair.send(text("hello", "one"))
    pair.receive()
    pair.answer(text("hello", "fine", sender="Robot2"))
    pair.send(text("a", "two"), named(3, "b", b"\1"))
    pair.receive()
    page = tmp_path / "page.html"
    session(*sorted(pair.folder.glob("*.pcapng")), "-o", page)
    browser.open(page.as_uri())

    titles = ['text hello "one"', 'text hello "fine"', 'text a "two"', "bool b true"]
    assert [title for title in browser.texts(".label") if title in titles] == titles
    assert browser.texts(".row .badge") == ["stuck together", "swallowed", "stuck together"]
    assert "2 of 4 messages arrived as sent, in " in browser.texts("#summary")[0]
    assert browser.texts(".lane") == ["Robot1", "Robot2"]

    browser.press("n", "Enter")  # the first trouble
    assert browser.texts("#details h2") == ['text a "two"']
    assert ["13", "74 77 6F 00", "Value", '"two"'] == browser.texts(".bytes td")[-4:] or browser.texts(".bytes td")
    browser.press("Escape")
    assert browser.run("return document.getElementById('details').hidden")
    browser.run("[...document.querySelectorAll('.row')].find(row => row.textContent.includes('fine')).click()")
    assert browser.texts("#details h2") == ['text hello "fine"']

    shown = "return shown.map(row => row.title)"
    browser.run("document.querySelector('#states .swallowed').click()")
    assert browser.run(shown) == ["bool b true"]
    browser.press("0")
    for name, value, left in (
        ("kind", "bool", ["bool b true"]),
        ("id", "hello", titles[:2]),
        ("text", "FINE", titles[1:2]),
    ):
        browser.run(f"$({name!r}).value = {value!r}; $({name!r}).dispatchEvent(new Event('input'))")
        assert [title for title in browser.run(shown) if title in titles] == left
        browser.press("0")
    before = browser.run("return total")
    browser.press("+", "+", "+")
    assert browser.run("return total") > before
    browser.press("0")
    browser.run("document.querySelector('#bricks button').click()")
    assert not [title for title in browser.run(shown) if title in titles]
    assert browser.complaints() == []


def test_the_line_of_a_brick_ends_with_its_program(air: Air, browser: Browser, tmp_path: Path) -> None:
    pair = Pair(air)
    play_gone(pair)
    Robot(air, "Robot2").do("s = listen(16)")
    page = tmp_path / "page.html"
    session(*sorted(pair.folder.glob("*.pcapng")), "-o", page)
    browser.open(page.as_uri())
    told = browser.run(
        "return rows.filter(row => row.ended || row.what === 'start').map(row => row.ended || row.title)"
    )
    assert told == ["Robot2", "a program starts"]
    assert "program ended" in browser.texts(".pill")
    ends = browser.run("return [...geometry.lives.values()].map(lives => lives.length)")
    assert ends == [1, 2]
    assert browser.complaints() == []


def test_hostile_texts_do_nothing(air: Air, browser: Browser, tmp_path: Path) -> None:
    evil = "Evil</script><script>document.title='run'</script>"
    pair = Pair(air)
    for message in text("a", HOSTILE), text(HOSTILE, "x"), text("b", "x", sender=HOSTILE), text(LONG_ID, "x" * 50):
        pair.send(message)
        pair.receive(2000)
    Robot(air, evil).do("c = rfcomm(); c.connect(('02:00:00:00:00:02', 16))")
    page = tmp_path / "page.html"
    session(*sorted(pair.folder.glob("*.pcapng")), "-o", page, "--title", HOSTILE)
    browser.open(page.as_uri())
    for _ in range(len(browser.run("return shown"))):
        browser.press("j", "Enter")
    assert not browser.run("return document.title").startswith("run")
    assert browser.run("return document.querySelectorAll('img, script').length") == 2  # the data's and the page's own
    body = browser.run("return document.body.innerText")
    assert "<script>" in body and not re.search("[\u202a-\u202e\u2066-\u2069]", body)
    assert evil in browser.texts(".lane") and LONG_ID in [row.get("id") for row in browser.run("return rows")]
    assert browser.complaints() == []
    hostile = '<b onclick="f()">'
    browser.run(
        f"append([{{key: 'x', time: 0, what: 'note', state: 'note', from: {hostile!r}, to: '', title: {hostile!r}, says: {hostile!r}}}])"
    )
    assert browser.texts("b") == browser.texts("#summary b")


def test_a_long_session_draws(browser: Browser, tmp_path: Path, record_property: Callable[[str, object], None]) -> None:
    rows = [
        {
            "key": str(i),
            "time": i / 100,
            "what": "send",
            "state": "joined" if i % 50 == 0 else "ok",
            "brick": "Robot1",
            "from": f"Robot{1 + i % 2}",
        }
        | {
            "to": f"Robot{2 - i % 2}",
            "channel": 16,
            "link": "1",
            "title": f'text id "number {i}"',
            "says": 'ReadMsg_TAV_String("Robot1", "id") gives it.',
        }
        | {
            "size": 20,
            "kind": "text",
            "id": f"id{i % 40}",
            "value": f'"number {i}"',
            "fields": [[0, "01", "Type", "text (1)"]] * 4,
            "findings": [],
        }
        | {"reads": [{"time": i / 100 + 0.001, "size": 20, "key": ""}]}
        for i in range(10000)
    ]
    drawn = Session(bricks=["Robot1", "Robot2"], recorded={"Robot1", "Robot2"})
    times = []
    for count in 0, 10000:
        page = tmp_path / f"{count}.html"
        page.write_text(render.page(drawn, rows[:count], "Long"))
        times.append(min(browser.open(page.as_uri()) for _ in range(3)))
    assert browser.run("return shown.length") == 10000
    assert browser.run("return document.querySelectorAll('.row').length") < 200
    browser.press("End")
    assert 'text id "number 9999"' in browser.texts(".label")
    print(f"empty {times[0]:.3f} s, with 10000 messages {times[1]:.3f} s, {times[1] / times[0]:.1f} times as long")
    record_property("times as long", times[1] / times[0])
