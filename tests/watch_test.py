"""tav-air watch: who may see the page, what it tells, and what the terminal shows."""

import http.client
import json
import os
import re
import shlex
import signal
import subprocess
import sys
import time
from collections.abc import Callable, Iterator
from pathlib import Path
from typing import Any

import pexpect
import pytest
from browser import Browser
from recording_test import HI, TO_2, Robot
from tav_air import Air, sky
from tav_air.watch import Watch

ROOT = Path(__file__).resolve().parent.parent
PATIENCE = 120  # s, for what takes one or two on a quiet machine


class Page:
    """What tav-air serves, as a browser sees it."""

    def __init__(self, *words: str) -> None:
        self.program = subprocess.Popen(
            [sys.executable, ROOT / "sim" / "tav-air", *words],
            stderr=subprocess.PIPE,
            text=True,
            start_new_session=True,
        )
        assert self.program.stderr
        said = self.program.stderr.readline()
        match = re.fullmatch(r"http://(127\.0\.0\.1:\d+)(/[\w-]{30,}/)\n", said)
        assert match, said
        self.host, self.way = match.groups()

    def close(self) -> None:
        """Nothing that it started is left."""
        self.program.terminate()
        self.program.communicate(timeout=PATIENCE)
        with pytest.raises(ProcessLookupError):
            os.killpg(self.program.pid, 0)

    def ask(self, what: str = "", body: str | None = None, method: str = "GET", **headers: str) -> tuple[int, str]:
        connection = http.client.HTTPConnection(self.host, timeout=PATIENCE)
        way = what if what.startswith("/") else self.way + what
        connection.request(method, way, body, headers)
        answer = connection.getresponse()
        return answer.status, answer.read().decode()

    def order(self, do: str, brick: str = "") -> str:
        body = json.dumps({"do": do, "brick": brick})
        status, answer = self.ask("order", body, "POST", Origin=f"http://{self.host}")
        wrong = json.loads(answer)["wrong"]
        assert (status == 200) == (wrong == "")
        return str(wrong)

    def wait_for(self, what: str, fits: Callable[[Any], bool]) -> Any:
        """The first event of this name that does."""
        connection = http.client.HTTPConnection(self.host, timeout=PATIENCE)
        connection.request("GET", self.way + "events")
        stream = connection.getresponse()
        until = time.monotonic() + PATIENCE
        name = ""
        while (line := stream.readline()) and time.monotonic() < until:
            name = line[7:].decode().strip() if line.startswith(b"event: ") else name
            if name == what and line.startswith(b"data: ") and fits(event := json.loads(line[6:])):
                connection.close()
                return event
        raise AssertionError(f"{what} has ended, or never told it")

    def brick(self, address: str, fits: Callable[[Any], bool]) -> Any:
        def find(event: Any) -> Any:
            return next((brick for brick in event["bricks"] if brick["address"] == address and fits(brick)), None)

        return find(self.wait_for("air", lambda event: bool(find(event))))


@pytest.fixture
def page(air: Air) -> Iterator[Page]:
    made = Page("watch", "--air", air.name)
    yield made
    made.close()


def test_only_who_was_told_may_see_it(page: Page) -> None:
    own = f"http://{page.host}"
    port = page.host.partition(":")[2]
    cases: list[tuple[int, str, dict[str, str]]] = [
        (200, "", {}),
        (200, "", {"Origin": own, "Host": f"localhost:{port}"}),
        (404, "else", {}),
        (403, "/", {}),
        (403, page.way[:-2] + "/", {}),
        (403, "/../" + page.way, {}),
        (403, "", {"Origin": "http://example.org"}),
        (403, "", {"Origin": "null"}),
        (403, "", {"Host": f"example.org:{port}"}),
        (403, "", {"Host": "127.0.0.1"}),
    ]
    for status, what, headers in cases:
        assert page.ask(what, **headers)[0] == status, (what, headers)
    order = '{"do": "record"}'
    assert page.ask("order", order, "POST")[0] == 400
    assert page.ask("order", order, "POST", Origin="http://example.org")[0] == 403
    assert page.ask("order", "[" * 5000, "POST", Origin=own)[0] == 400
    assert page.ask("order", '["record"]', "POST", Origin=own)[0] == 400
    if os.geteuid() == 0:
        code = f"import urllib.request; urllib.request.urlopen('http://{page.host}{page.way}')"
        said = subprocess.run(
            ["/usr/bin/python3", "-c", code], user=65534, stderr=subprocess.PIPE, text=True, check=False
        )
        assert "403" in said.stderr


def test_it_tells_what_happens_and_makes_things_go_wrong(air: Air, page: Page) -> None:
    robot2, robot1 = Robot(air, "Robot2"), Robot(air, "Robot1")
    robot2.do("s = listen(16)")
    robot1.do(f"c = rfcomm(); c.connect({TO_2})")
    robot2.do("d = s.accept()[0]")
    one, two = robot1.brick.address, robot2.brick.address
    assert page.brick(two, lambda brick: brick["channels"])["channels"] == [16]
    assert page.brick(one, lambda brick: brick["calls"])["calls"] == [{"peer": two, "channel": 16}]
    page.order("record")
    for address in one, two:
        page.brick(address, lambda brick: brick["recording"])
    assert page.order("short", one) == ""
    robot1.do(b"c.send(%s)" % HI)
    robot2.do("d.recv(30)")
    for expected in "cut", "ok":

        def is_told(rows: Any, expected: str = expected) -> bool:
            return any(row.get("what") == "send" and row["state"] == expected for row in rows)

        page.wait_for("message", is_told)
        robot1.do(b"c.send(%s)" % HI)
        robot2.do("d.recv(30)")
    assert page.order("out", two) == ""
    assert page.brick(two, lambda brick: brick["state"])["state"] == ["absent"]
    assert robot1.do(f"rfcomm().connect({TO_2[:-4]}17))") == "failed Host is down"
    assert page.order("back", two) == ""
    page.brick(two, lambda brick: not brick["state"])
    assert page.order("short", "02:00:00:00:00:09") and page.order("explode", one)
    status, saved = page.ask("save")
    assert status == 200 and "Robot2" in saved and "EventSource" in saved and '"live":""' in saved


def test_a_run_is_watched() -> None:
    page = Page("run", "--watch", "Robot3=sleep 60")
    try:
        seen = page.brick("02:00:00:00:00:03", lambda brick: brick["programs"] == 2)  # of which one holds its place
        assert seen["name"] == "Robot3" and page.order("out", seen["address"]) == ""
        page.brick(seen["address"], lambda brick: "absent" in brick["state"])
    finally:
        page.close()


def test_the_page_in_a_browser(air: Air, page: Page, browser: Browser) -> None:
    """In the last one of more tabs than a browser has connections for, if each took two."""
    for _ in range(4):
        browser.driver.switch_to.new_window("tab")
        browser.open(f"http://{page.host}{page.way}")
    evil = "<img src=x onerror=\"document.title='run'\">"
    robot3, robot2, robot1 = (Robot(air, name) for name in (evil, "Robot2", "Robot1"))
    robot2.do("s = listen(16)")
    for robot, name in (robot3, "e"), (robot1, "d"):
        robot.do(f"c = rfcomm(); c.connect({TO_2})")
        robot2.do(f"{name} = s.accept()[0]")
    browser.wait_for("document.querySelectorAll('.link').length === 2")
    titles = browser.texts(".brick title")
    assert sorted(titles)[1:] == [f"{robot.brick.name}, {robot.brick.address}" for robot in (robot1, robot2)]

    def say(text: bytes) -> None:
        robot1.do(b"c.send(b'\\1Robot1\\0a\\0%s\\0')" % text)
        robot2.do("d.recv(30)")

    def wait_for_rows(*wanted: str) -> None:
        rows = "[...frames[0].document.querySelectorAll('.row:not(.plain, .note)')].map(row => row.textContent)"
        fit = [f"rows[{i}].includes({words!r})" for i, words in enumerate(wanted)]
        browser.wait_for(f"(rows => {' && '.join([f'rows.length === {len(wanted)}', *fit])})({rows})")

    def click(selector: str) -> None:
        browser.wait_for(f"document.querySelector({selector!r})")
        browser.run(f"document.querySelector({selector!r}).dispatchEvent(new MouseEvent('click', {{bubbles: true}}))")
        browser.wait_for("!document.body.hasAttribute('aria-busy')")

    def count(selector: str, number: int) -> None:
        browser.wait_for(f"document.querySelectorAll({selector!r}).length === {number}")

    click("#record")
    count(".dot", 3)
    say(b"one")
    wait_for_rows('"one"')
    click(f"[data-brick='{robot1.brick.address}']")
    click("[data-order=short]")
    say(b"two")
    wait_for_rows('"one"', "cut")
    click(f"[data-brick='{robot3.brick.address}']")
    click("[data-order=out]")
    count(".away", 1)
    assert robot2.do(f"rfcomm().connect(('{robot3.brick.address}', 17))") == "failed Host is down"
    click("[data-order=back]")
    count(".away", 0)
    click("#record")
    count(".dot", 0)
    say(b"unheard")
    click("#record")
    count(".dot", 3)
    say(b"three")
    wait_for_rows('"three"')
    assert browser.run("return document.title") == "What happens on the air"
    assert evil in browser.run("return frames[0].document.body.innerText") and not browser.complaints()


# A socket as of a brick or its program, which gives that answer to all.
IMPOSTOR = """
import contextlib, socket, sys
listener = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
listener.bind("\\0" + sys.argv[1])
listener.listen(64)
print("here", flush=True)
while True:
    with contextlib.suppress(OSError), listener.accept()[0] as asker:
        asker.send(b"Robot9\\0\\0")
        asker.recv(1)
"""


@pytest.mark.skipif(os.geteuid() != 0, reason="only root can be two users")
def test_other_users_are_believed_only_where_the_air_is_shared(air: Air, monkeypatch: pytest.MonkeyPatch) -> None:
    cases = [(0, "0", "!1", True), (65534, "0", "!1", False), (65534, "1", "!1", False)]
    cases += [(65534, "0", "", False), (65534, "1", "", True)]
    for user, share, rest, is_seen in cases:
        monkeypatch.setenv("TAV_AIR_SHARED", share)
        words = ["/usr/bin/python3", "-c", IMPOSTOR, f"tav-air/{air.name}/02:00:00:00:00:09{rest}"]
        with subprocess.Popen(words, user=user, stdout=subprocess.PIPE) as program:
            assert program.stdout and program.stdout.readline() == b"here\n"
            names = [seen.name for seen in sky.look(air.name)]
            program.kill()
        assert names == ["Robot9"] * is_seen, (user, share, rest)


def test_looks_go_on_whatever_happens(air: Air, tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    robot = Robot(air, "Robot1")
    robot.do("s = listen(16)")
    program = f"{robot.brick.address}!{robot.brick.process.pid}"
    robot.brick.signal(signal.SIGSTOP)
    os.waitid(os.P_PID, robot.brick.process.pid, os.WSTOPPED)
    sky.ask(air.name, program, b"?", 0.1)  # that waits for it from now on, and is none of its programs
    seen = sky.look(air.name)
    assert [each.programs for each in seen] == [[program]]

    looks = iter([ValueError("it fell")])

    def look(_: str) -> list[sky.Seen]:
        for error in looks:
            raise error
        return seen

    monkeypatch.setattr(sky, "look", look)
    with Watch(air.name, tmp_path) as watch:
        until = time.monotonic() + PATIENCE
        while not watch.told and time.monotonic() < until:
            time.sleep(0.05)
        assert "it fell" in watch.told and program[:17] in watch.told


def test_the_terminal(air: Air) -> None:
    robot2, robot1 = Robot(air, "Robot2"), Robot(air, "Robot1")
    robot2.do("s = listen(16)")
    robot1.do(f"c = rfcomm(); c.connect({TO_2})")
    robot2.do("d = s.accept()[0]")
    words = [sys.executable, str(ROOT / "sim" / "tav-air"), "watch", "--terminal", "--air", air.name]
    screen = pexpect.spawn(
        shlex.join(words), encoding="utf-8", timeout=PATIENCE, dimensions=(24, 120), env=os.environ | {"TERM": "xterm"}
    )
    screen.expect("-> Robot2 channel 16")  # of blanks, only moves of the cursor are sent
    screen.expect("listens on 16")
    screen.send("r")
    screen.expect("recorded")
    robot1.do(b"c.send(%s)" % HI)
    robot2.do("d.recv(30)")
    screen.expect('text a "Hi"')
    screen.send("\x1bOB")
    screen.send("o")
    screen.expect("absent")
    screen.send("q")
    screen.expect(pexpect.EOF)
    screen.close()
    assert screen.exitstatus == 0
    assert robot1.do(f"rfcomm().connect({TO_2[:-4]}17))") == "failed Host is down"
