"""A session as a page, as text, as JSON or as a Mermaid diagram; all from the same rows."""

import base64
import hashlib
import html
import json
import re
from collections.abc import Iterator, Sequence
from pathlib import Path

from .analysis import Row
from .capture import Session
from .words import safe, shorten

HERE = Path(__file__).resolve().parent
STATES = {  # what became of messages, in the words of the page
    "ok": (
        "arrived",
        "It came alone and whole. Who reads with its sender, kind and id gets it; any other reader fails, and it is lost.",
    ),
    "joined": (
        "stuck together",
        "Others came with it at once, since the reader looked late. A reader takes all that comes at once for one message.",
    ),
    "swallowed": ("swallowed", "It came behind another message, at once with that. No reader gets it."),
    "cut": ("cut", "Only its beginning was sent, or it came in pieces. A reader takes the first piece for all of it."),
    "lost": ("lost", "Nobody read it, or it could not be sent. The row says why."),
    "refused": (
        "refused",
        "There is no connection, mostly since no program listens there. Connect may give a socket all the same.",
    ),
    "gone": ("not there", "The other brick does not answer, has hung up, or its program has ended."),
    "sender": (
        "wrong sender",
        "It bears another name than that of the brick that sent it: who expects the brick's name loses it.",
    ),
    "damaged": ("damaged", "These bytes are no whole message: readers fail, or get something else."),
    "unseen": ("unknown", "The other brick was not recorded: whether it read this is not known."),
}
QUIET = ("ok", "plain", "note", "unseen", "waiting")
COLOURS = {
    "joined": 33,
    "swallowed": 31,
    "cut": 33,
    "sender": 35,
    "ok": 0,
    "plain": 2,
    "note": 2,
    "unseen": 2,
    "waiting": 2,
}
RED = 31


def state_words(state: str) -> str:
    return STATES[state][0]


# ---- The page -------------------------------------------------------------------------------------------------------


def embed(value: object) -> str:
    """JSON that ends no script, whatever it holds."""
    return json.dumps(value, separators=(",", ":")).replace("<", "\\u003c")


def source_of(text: str) -> str:
    return "'sha256-" + base64.b64encode(hashlib.sha256(text.encode()).digest()).decode() + "'"


def page(session: Session, rows: Sequence[Row], title: str, live: str = "") -> str:
    """One file, which loads nothing. `live`: where later rows come from, as server-sent events with arrays of them."""
    style = (HERE / "page.css").read_text()
    script = (HERE / "page.js").read_text()
    data = {
        "title": safe(title),
        "bricks": [safe(name) for name in session.bricks],
        "recorded": [safe(name) for name in sorted(session.recorded)],
        "frames": [safe(name) for name in sorted(session.frames)],
        "live": live,
        "states": STATES,
        "rows": rows,
    }
    policy = f"default-src 'none'; style-src {source_of(style)}; script-src {source_of(script)}; base-uri 'none'; form-action 'none'"
    policy += "; connect-src 'self'" if live else ""
    parts = {"POLICY": policy, "TITLE": html.escape(safe(title)), "STYLE": style, "SCRIPT": script, "DATA": embed(data)}
    return re.sub("@([A-Z]+)@", lambda name: parts[name[1]], (HERE / "page.html").read_text())


# ---- Lines ----------------------------------------------------------------------------------------------------------


def arrow_of(row: Row) -> str:
    if not row["to"]:
        return row["from"]
    return f"{row['from']} {'-x' if row['state'] in ('lost', 'refused') else '->'} {row['to']}"


def text_line(row: Row, begin: float, colours: bool = False) -> str:
    state = row["state"]
    badge = "" if state in QUIET else f"[{state_words(state)}] "
    line = (
        f"{row['time'] - begin:9.3f}  {arrow_of(row):20}  {'read ' if row['what'] == 'receive' else ''}{row['title']}"
    )
    if row["says"]:
        line += f"\n{'':11}{badge}{row['says']}"
    elif badge:
        line += f"  {badge.rstrip()}"
    code = COLOURS.get(state, RED)
    return f"\x1b[{code}m{line}\x1b[0m" if colours and code else line


def text(rows: Sequence[Row], colours: bool = False) -> Iterator[str]:
    for row in rows:
        yield text_line(row, rows[0]["time"], colours)


def json_lines(rows: Sequence[Row]) -> Iterator[str]:
    for row in rows:
        yield json.dumps(row)


# ---- Mermaid --------------------------------------------------------------------------------------------------------


def plain_words(words: str) -> str:
    """What Mermaid would take for its own becomes its numbers of characters."""
    return re.sub(r"[^A-Za-z0-9 .,:!?()'/…-]", lambda sign: f"#{ord(sign[0])};", shorten(words, 120))


def mermaid(session: Session, rows: Sequence[Row]) -> Iterator[str]:
    yield "sequenceDiagram"
    names = {safe(name): f"b{i}" for i, name in enumerate(session.bricks)}
    for name, short in names.items():
        yield f"    participant {short} as {plain_words(name)}"
    for row in rows:
        one, two = names.get(row["from"]), names.get(row["to"])
        is_lost = row["state"] in ("lost", "refused", "gone")
        if one and two and row["what"] in ("send", "connect"):
            sign = (
                "-x"
                if is_lost
                else "-->>"
                if row["state"] in ("swallowed", "unseen") or row["what"] == "connect"
                else "->>"
            )
            yield f"    {one}{sign}{two}: {plain_words(row['title'])}"
        elif one:
            where = two if row["what"] == "receive" and two else one
            yield f"    Note over {where}: {plain_words(row['title'])}"
        if row["state"] not in QUIET and row["what"] != "receive" and one:
            over = f"{one},{two}" if two else one
            yield f"    Note over {over}: {plain_words(state_words(row['state']))}"
