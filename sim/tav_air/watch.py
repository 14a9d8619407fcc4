"""tav-air watch: what happens on an air, as a page for browsers of this user, or on a terminal."""

import curses
import hmac
import json
import os
import queue
import re
import secrets
import shutil
import sys
import tempfile
import threading
import time
from argparse import ArgumentParser, Namespace
from collections.abc import Callable, Iterator, Sequence
from contextlib import contextmanager, suppress
from dataclasses import asdict, dataclass, field
from http import HTTPStatus
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer
from pathlib import Path
from typing import Any

from tav_session import render
from tav_session.follow import Follower
from tav_session.words import safe

from . import sky
from .air import make_record_folder
from .names import get_id
from .process import Problem, say

HERE = Path(__file__).resolve().parent
PAUSE = 0.4  # s, between looks at bricks
MOMENT = 0.1  # s, that news of messages are waited for before there may be another recording
NICE = 10  # of looks, and of tshark: the bricks go first
PATIENCE = 5  # s, for looks to end
BEHIND = 50  # events that a browser may be late; then it connects anew
LINES = 200  # that a terminal has room for
TCP = re.compile(r"^ *\d+: 0100007F:([0-9A-F]{4}) 0100007F:([0-9A-F]{4}) [0-9A-F]{2} \S+ \S+ \S+ +(\d+)", re.M)
NOTHING = "default-src 'none'"  # of a page that loads and runs nothing
Row = dict[str, Any]
Listener = queue.Queue[tuple[str, str]]  # events, by name: air or message


# ---- What happens ---------------------------------------------------------------------------------------------------


@dataclass
class Watch:
    """Looks at an air, again and again, and tells those who listen what is new."""

    air: str
    folder: Path  # where recordings go that are asked for here
    bricks: list[sky.Seen] = field(default_factory=list)
    records: bool | None = None  # all bricks, those that come later, too; None: those that are, by whom it may be
    listeners: set["Listener"] = field(default_factory=set)
    lock: threading.Lock = field(default_factory=threading.Lock)
    files: dict[str, Path] = field(default_factory=dict)  # of bricks that have gone, too, by address
    wrong: str = ""

    def __post_init__(self) -> None:
        self.follower = Follower(lambda: sorted({*self.files.values()}))
        self.is_anew = threading.Event()  # that recordings begin
        self.told = ""
        self.is_over = threading.Event()
        acts = self.look, self.read
        self.threads = [threading.Thread(target=self.repeat, args=[act], daemon=True) for act in acts]

    def look(self) -> None:
        """At the bricks."""
        bricks = sky.look(self.air)
        for seen in bricks:
            if self.records and not seen.recording and not self.is_anew.is_set():
                self.record(seen)
            if self.records is False and seen.recording:
                sky.stop_recording(self.air, seen)
        self.files |= {seen.address: Path(seen.recording) for seen in bricks if seen.recording}
        with self.lock:
            self.bricks = bricks
            state = self.describe()
            if state != self.told:
                self.told = state
                self.put("air", state)

    def read(self) -> None:
        """What is new in their recordings, as soon as it is there."""
        if not shutil.which("tshark"):
            self.is_anew.clear()
            return
        while not self.is_over.is_set():
            if self.is_anew.is_set():
                self.follower.begin_anew()
                self.is_anew.clear()
            if rows := self.follower.look(MOMENT):
                with self.lock:
                    self.wrong = ""
                    self.put("message", json.dumps(rows))

    def describe(self) -> str:
        """Names as they may be shown; what the page needs."""
        bricks = [asdict(seen) | {"name": safe(seen.name), "programs": len(seen.programs)} for seen in self.bricks]
        hint = self.wrong or ("" if shutil.which("tshark") else "Messages are read by tshark, which is not installed.")
        return json.dumps(
            {"bricks": bricks, "records": self.is_recording(), "wrong": safe(hint), "folder": safe(str(self.folder))}
        )

    def repeat(self, act: Callable[[], None]) -> None:
        os.setpriority(os.PRIO_PROCESS, threading.get_native_id(), NICE)  # of this thread, and of what it starts
        pause = 0.0
        while not self.is_over.wait(pause):
            started = time.monotonic()
            try:
                act()
            except Exception as error:  # whatever it is, the next look may do
                self.wrong = str(error) or repr(error)
            pause = max(PAUSE, time.monotonic() - started)  # at most half the time is spent on it

    def __enter__(self) -> "Watch":
        for thread in self.threads:
            thread.start()
        return self

    def __exit__(self, *_: object) -> None:
        self.is_over.set()
        for thread in self.threads:
            thread.join(PATIENCE)
        self.follower.close()

    # With the lock held.
    def put(self, event: str, text: str) -> None:
        for listener in [*self.listeners]:
            try:
                listener.put_nowait((event, text))
            except queue.Full:
                self.listeners.remove(listener)

    def listen(self) -> Listener:
        """Beginning with how it is now."""
        listener: Listener = queue.Queue(BEHIND)
        with self.lock:
            listener.put(("air", self.describe()))
            listener.put(("message", json.dumps([*self.follower.rows.values()])))
            self.listeners.add(listener)
        return listener

    def forget(self, listener: Listener) -> None:
        with self.lock:
            self.listeners.discard(listener)

    # ---- What is told them ----

    def is_recording(self) -> bool:
        """All bricks."""
        return bool(self.records or (self.bricks and all(seen.recording for seen in self.bricks)))

    def record(self, seen: sky.Seen) -> None:
        """In the file that it had, if it was recorded before."""
        try:
            file = self.files.get(seen.address) or make_record_folder(self.folder) / f"{get_id(seen.name)}.pcapng"
        except Problem as problem:
            self.wrong = str(problem)
            return
        self.wrong = sky.record(self.air, seen, file)

    def do(self, what: str, address: str) -> str:
        """An order by click; what is wrong with it."""
        if what in ("record", "stop"):
            if what == "record" and self.records is False:
                for brick in self.bricks:  # what was not yet: connections stand where a recording begins
                    if brick.recording:
                        sky.stop_recording(self.air, brick)
                self.is_anew.set()
            self.records = what == "record"
            self.wrong = ""
            return ""
        orders: dict[str, Callable[[str, sky.Seen], str | None]] = {
            "out": sky.out_of_range,
            "back": sky.back,
            "short": sky.cut_next,
        }
        with self.lock:
            seen = next((seen for seen in self.bricks if seen.address == address), None)
        if what not in orders:
            return "there is no such order"
        if not seen or not seen.programs:
            return "it is not on the air any more, or another user's"
        return orders[what](self.air, seen) or ""


# ---- The page -------------------------------------------------------------------------------------------------------


def make_page() -> tuple[str, str]:
    """The page, and what it may do."""
    style, script = ((HERE / f"watch.{kind}").read_text() for kind in ("css", "js"))
    policy = f"default-src 'none'; style-src {render.source_of(style)}; script-src {render.source_of(script)}"
    policy += "; connect-src 'self'; frame-src 'self'; frame-ancestors 'none'; base-uri 'none'; form-action 'none'"
    parts = {"STYLE": style, "SCRIPT": script}
    return re.sub("@([A-Z]+)@", lambda name: parts[name[1]], (HERE / "watch.html").read_text()), policy


def is_own(client: int, server: int) -> bool:
    """Whether the browser at this port of ours is this user's."""
    table = Path("/proc/net/tcp").read_text()
    users = {int(user) for near, far, user in TCP.findall(table) if (int(near, 16), int(far, 16)) == (client, server)}
    return users == {os.geteuid()}


class Server(ThreadingHTTPServer):
    daemon_threads = True

    def __init__(self, watch: Watch, port: int) -> None:
        super().__init__(("127.0.0.1", port), Handler)
        self.watch = watch
        self.token = secrets.token_urlsafe(24)
        self.hosts = {f"{name}:{self.server_port}" for name in ("127.0.0.1", "localhost")}
        self.page, self.policy = make_page()

    def handle_error(self, *_: object) -> None:
        """Browsers leave whenever they like."""


class Handler(BaseHTTPRequestHandler):
    server: Server
    protocol_version = "HTTP/1.1"
    timeout = 60
    server_version = "tav-air"
    sys_version = ""

    def log_message(self, *_: object) -> None:
        """Nothing: the address has the token."""

    def may(self) -> str:
        """What is asked for, behind the token; "": nothing, and that is answered."""
        server = self.server
        token, _, rest = self.path.removeprefix("/").partition("/")
        origin = self.headers.get("Origin")
        is_here = self.headers.get("Host") in server.hosts
        is_ours = origin is None or origin.removeprefix("http://") in server.hosts
        is_told = hmac.compare_digest(token.encode(), server.token.encode())
        if is_here and is_ours and is_told and is_own(self.client_address[1], server.server_port):
            return rest or "page"
        self.answer(HTTPStatus.FORBIDDEN, "text/plain", "The address that tav-air watch printed is the way in.\n")
        return ""

    def answer(self, status: HTTPStatus, kind: str, text: str, policy: str = NOTHING, file: str = "") -> None:
        body = text.encode(errors="replace")
        self.send_response(status)
        self.send_common(kind, policy)
        self.send_header("Content-Length", str(len(body)))
        if file:
            self.send_header("Content-Disposition", f'attachment; filename="{file}"')
        self.end_headers()
        self.wfile.write(body)

    def send_common(self, kind: str, policy: str) -> None:
        self.send_header("Content-Type", f"{kind}; charset=utf-8")
        self.send_header("Content-Security-Policy", policy)
        self.send_header("Cache-Control", "no-store")
        self.send_header("Referrer-Policy", "no-referrer")
        self.send_header("X-Content-Type-Options", "nosniff")
        self.send_header("Cross-Origin-Resource-Policy", "same-origin")

    def do_GET(self) -> None:
        what = self.may()
        watch = self.server.watch
        if what == "page":
            self.answer(HTTPStatus.OK, "text/html", self.server.page, self.server.policy)
        elif what == "session":
            page = render.page(watch.follower.session, [], "What happens now", live="events")
            self.answer(HTTPStatus.OK, "text/html", page, "frame-ancestors 'self'")
        elif what == "save":
            page = render.page(watch.follower.session, [*watch.follower.rows.values()], f"Air {watch.air}")
            self.answer(HTTPStatus.OK, "text/html", page, file="session.html")
        elif what == "events":
            self.stream(watch.listen())
        elif what:
            self.answer(HTTPStatus.NOT_FOUND, "text/plain", "There is no such page.\n")

    def stream(self, listener: Listener) -> None:
        """Server-sent events, until the browser leaves: one connection for each page, of the few that it has."""
        self.send_response(HTTPStatus.OK)
        self.send_common("text/event-stream", NOTHING)
        self.send_header("Connection", "close")
        self.end_headers()
        try:
            while not self.server.watch.is_over.is_set() and listener in self.server.watch.listeners:
                try:
                    event, text = listener.get(timeout=1)
                    self.wfile.write(f"event: {event}\ndata: {text}\n\n".encode())
                except queue.Empty:
                    self.wfile.write(b":\n\n")  # whether it is still there
        except OSError:
            pass
        finally:
            self.server.watch.forget(listener)
            self.close_connection = True

    def do_POST(self) -> None:
        what = self.may()
        if not what:
            self.close_connection = True  # its body is not read
            return
        size = self.headers.get("Content-Length", "")
        wrong = "this is no order"
        if what == "order" and self.headers.get("Origin") and size.isdecimal() and int(size) < 1000:
            with suppress(ValueError, TypeError, KeyError):
                order = json.loads(self.rfile.read(int(size)))
                wrong = self.server.watch.do(str(order["do"]), str(order.get("brick", "")))
        else:
            self.close_connection = True
        status = HTTPStatus.BAD_REQUEST if wrong else HTTPStatus.OK
        self.answer(status, "application/json", json.dumps({"wrong": wrong}))


# ---- The terminal ---------------------------------------------------------------------------------------------------


def describe_brick(seen: sky.Seen, names: dict[str, str]) -> str:
    words = [f"{safe(seen.name):<12} {seen.address}"]
    words += [f"listens on {', '.join(map(str, seen.channels))}"] if seen.channels else []
    words += [f"-> {safe(names.get(link.peer, link.peer))} channel {link.channel}" for link in seen.calls]
    words += [", ".join(map(safe, seen.state))] if seen.state else []
    return "   ".join(words) + ("   recorded" if seen.recording else "")


def list_lines(watch: Watch, rows: Sequence[Row], room: int) -> list[str]:
    """What a terminal shows: bricks above, the newest messages below."""
    names = {seen.address: seen.name for seen in watch.bricks}
    head = [f"Air {watch.air}: {len(watch.bricks)} brick{'' if len(watch.bricks) == 1 else 's'}"]
    head[0] += "   (o: out of range, b: back, s: next send short; r: record, or stop that; q: end)"
    head += [describe_brick(seen, names) for seen in watch.bricks] or ["nobody is there yet"]
    head += [safe(watch.wrong)] if watch.wrong else []
    begin = rows[0]["time"] if rows else 0.0
    lines = [line for row in rows[-LINES:] for line in render.text_line(row, begin).splitlines()]
    return [*head, "", *lines[-max(1, room - len(head) - 1) :]]


def show(screen: "curses.window", watch: Watch) -> None:
    """Until q is typed. o, b and s are of the brick at the mark, which the arrows move."""
    curses.use_default_colors()
    curses.curs_set(0)
    screen.timeout(int(PAUSE * 1000))
    mark = 0
    while True:
        height, width = screen.getmaxyx()
        rows = sorted(watch.follower.rows.values(), key=lambda row: float(row["time"]))
        screen.erase()
        for i, line in enumerate(list_lines(watch, rows, height)[:height]):
            with suppress(curses.error):  # the last cell
                look = curses.A_BOLD if i == 0 else curses.A_REVERSE if i == mark + 1 and watch.bricks else 0
                screen.addnstr(i, 0, line, width - 1, look)
        key = screen.getch()
        mark += (key == curses.KEY_DOWN) - (key == curses.KEY_UP)
        mark = max(0, min(mark, len(watch.bricks) - 1))
        orders = {ord("o"): "out", ord("b"): "back", ord("s"): "short"}
        orders[ord("r")] = "stop" if watch.is_recording() else "record"
        if key in orders:
            watch.wrong = watch.do(orders[key], watch.bricks[mark].address if watch.bricks else "")
        if key == ord("q"):
            return


# ---- The command ----------------------------------------------------------------------------------------------------


def parse(make_parser: Callable[..., ArgumentParser], me: str, words: Sequence[str]) -> Namespace:
    parser = make_parser(
        prog=f"{me} watch",
        description="Shows what happens on an air: bricks with their channels and links, messages of those that are "
        "recorded, and faults at a click. It prints the address of a page, for browsers of yours on this machine.",
        allow_abbrev=False,
    )
    add = parser.add_argument
    add("--air", default=sky.own_air(), metavar="NAME", help="the air (default: $TAV_AIR, else your own)")
    add("--port", type=int, default=0, metavar="N", help="where the page is (default: any that is free)")
    add("--record", type=Path, metavar="FOLDER", help="records all bricks there, from the beginning")
    add("--terminal", action="store_true", help="shows it on this terminal instead")
    return parser.parse_args(words)


@contextmanager
def served(watch: Watch, port: int = 0) -> Iterator[Server]:
    """The page, at an address that is printed, while this lasts and somebody serves."""
    try:
        server = Server(watch, port)
    except (OSError, OverflowError) as error:
        raise Problem(f"there can be no page at port {port}: {error}") from None
    with server, watch:
        say(f"http://127.0.0.1:{server.server_port}/{server.token}/")
        yield server


@contextmanager
def served_beside(watch: Watch) -> Iterator[None]:
    """The same, while something else runs."""
    with served(watch) as server:
        thread = threading.Thread(target=server.serve_forever, daemon=True)
        thread.start()
        try:
            yield
        finally:
            server.shutdown()
            thread.join()


def watch_air(make_parser: Callable[..., ArgumentParser], me: str, words: Sequence[str]) -> int:
    arguments = parse(make_parser, me, words)
    with tempfile.TemporaryDirectory(prefix="tav-watch-") as folder:
        watch = Watch(arguments.air, arguments.record or Path(folder), records=True if arguments.record else None)
        if arguments.terminal:
            if not sys.stdout.isatty():
                raise Problem("--terminal needs a terminal")
            try:
                with watch:
                    curses.wrapper(show, watch)
            except curses.error as error:
                raise Problem(f"--terminal needs another terminal than {os.environ.get('TERM')}: {error}") from None
        else:
            with served(watch, arguments.port) as server:
                server.serve_forever()
    return 0
