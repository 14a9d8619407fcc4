"""Says of each message what became of it: matches what one side of a connection sent with what the other one received."""

import re
from bisect import bisect_right
from collections.abc import Sequence
from dataclasses import dataclass, field
from itertools import islice
from typing import Any

from .capture import Event, Link, Message, Session
from .words import (
    LONGEST,
    call_of,
    count,
    duration,
    explain,
    printable,
    quoted,
    reader_gets,
    safe,
    title_of,
    value_of,
)

SOON = 0.1  # s
BESIDES = ("connect", "linked", "accepted")  # events that mostly have no row
ENOUGH = 1000  # bytes, of a receive: who asks for less cuts what is sent with care
SHOWN_BYTES = 4096  # of a message, field by field
ADVICE = "Send one message, and wait for its answer before the next."
SPOILS = "The rest waits, and spoils the next read."
SMALL = "Keep messages below 1000 bytes."
RETURNS = "Connect may return a socket all the same: then the first message fails"
Row = dict[str, Any]


@dataclass
class Part:
    """A stretch of a stream that one receive took of one send."""

    send: Event
    receive: Event
    size: int


@dataclass
class Match:
    """Sends and receives of all connections, by who took what of whom."""

    peers: dict[Link, Link] = field(default_factory=dict)
    taken: dict[Event, list[Part]] = field(default_factory=dict)  # by send
    brought: dict[Event, list[Part]] = field(default_factory=dict)  # by receive


# ---- Who talked to whom ---------------------------------------------------------------------------------------------


def sent_by(link: Link) -> list[Event]:
    return [event for event in link.events if event.what == "send" and event.data]


def received_by(link: Link) -> list[Event]:
    return [event for event in link.events if event.what == "receive" and event.data]


def fits(link: Link, other: Link) -> bool:
    """Whether these may be both sides of a connection: nobody received what the other one did not send."""
    for one, two in (link, other), (other, link):
        sent = b"".join(event.data for event in sent_by(one))
        received = b"".join(event.data for event in received_by(two))
        if not sent.startswith(received) and not received.startswith(
            sent
        ):  # a killed brick's last sends may be missing
            return False
    return True


def was_over(link: Link, other: Link, session: Session) -> bool:
    """Whether the caller saw its end before the other side began. Clocks of captures of radios may differ."""
    end = next((event for event in link.events if event.what == "end" and event.error), None)
    is_one_clock = not {link.brick, other.brick} & session.frames
    return is_one_clock and end is not None and end.time < other.events[0].time


def pair_links(session: Session) -> dict[Link, Link]:
    links = list(dict.fromkeys(event.link for event in session.events if event.link))
    links = [link for link in links if not any(event.what == "failed" for event in link.events)]
    free: dict[tuple[str, str, int], list[Link]] = {}
    for link in links:
        if not link.calls:
            free.setdefault((link.peer, link.brick, link.channel), []).append(link)
    pairs: dict[Link, Link] = {}
    for link in links:
        waiting = free.get((link.brick, link.peer, link.channel), []) if link.calls else []
        other = next((other for other in waiting if fits(link, other) and not was_over(link, other, session)), None)
        if other:
            waiting.remove(other)
            pairs[link], pairs[other] = other, link
    return pairs


def match(session: Session) -> Match:
    found = Match(pair_links(session))
    for link, other in found.peers.items():
        sends = sent_by(link)
        ends: list[int] = []
        total = 0
        for send in sends:
            total += len(send.data)
            ends.append(total)
        at = 0
        for receive in received_by(other):
            end = at + len(receive.data)
            while at < min(end, total):
                index = bisect_right(ends, at)
                size = min(ends[index], end) - at
                part = Part(sends[index], receive, size)
                found.taken.setdefault(part.send, []).append(part)
                found.brought.setdefault(receive, []).append(part)
                at += size
    return found


# ---- What became of it ----------------------------------------------------------------------------------------------


class Analysis:
    def __init__(self, session: Session, live: bool = False) -> None:
        self.session = session
        self.live = live  # what is not read yet may be read later
        self.match = match(session)
        self.last = session.events[-1].time if session.events else 0.0
        self.at: dict[Event, int] = {event: i for i, event in enumerate(session.events)}

    def rows(self) -> list[Row]:
        return [row for event in self.session.events if (row := self.row(event))]

    def row(self, event: Event) -> Row | None:
        if event.what == "send":
            return self.send_row(event) if event.data else self.failure_row(event, "send")
        if event.what == "receive":
            return self.receive_row(event) if event.data else self.failure_row(event, "receive")
        if event.what == "end":
            return self.end_row(event)
        if event.what in ("connected", "accepted", "failed"):
            return self.connect_row(event)
        if event.what == "start":
            return self.plain(event, "start", "note", "a program starts")
        if event.what == "note":
            return self.plain(event, "note", "note", safe(event.text))
        return self.attempt_row(event) if event.what == "connect" else None

    def plain(self, event: Event, what: str, state: str, title: str, says: str = "") -> Row:
        return {
            "key": event.key,
            "time": event.time,
            "what": what,
            "state": state,
            "brick": safe(event.brick),
            "from": safe(event.brick),
            "to": safe(event.peer),
            "channel": event.channel,
            "link": event.link.key if event.link else "",
            "title": title,
            "says": says,
        }

    # ---- Connections ----

    def attempt_row(self, event: Event) -> Row | None:
        """Of a call that nothing came of; else that is told."""
        for later in self.session.events[self.at[event] + 1 :]:
            if later.brick == event.brick and later.peer == event.peer:
                if later.what in ("linked", "failed"):
                    return None
                if later.what == "connect":
                    break
        words = f"{safe(event.peer)} did not answer as long as {safe(event.brick)} waited."
        return self.plain(event, "connect", "gone", "connect", words)

    def connect_row(self, event: Event) -> Row | None:
        link = event.link
        peer = self.match.peers.get(link) if link else None
        if event.what == "accepted" and peer and event.time - peer.events[0].time < SOON:
            return None  # it is in the row of the one that called
        if event.what == "failed":
            state, words = explain(event.error, event.brick, event.peer, event.channel)
            if event.error == "ECONNREFUSED":
                words += self.refused_words(event)
            elif event.error == "EHOSTDOWN":
                words += f". {RETURNS}"
            return self.plain(event, "connect", state, f"connect fails: {event.error}", sentence(words))
        title = f"connected to channel {event.channel}" if event.what == "connected" else "accepted"
        says = ""
        state = "plain"
        if event.what == "connected" and not peer and event.peer in self.session.recorded:
            says, state = f"{safe(event.peer)} never accepted this connection.", "lost"
        row = self.plain(event, "connect", state, title, says)
        if event.what == "accepted":
            row["from"], row["to"] = row["to"], row["from"]
            row["title"] += f" on channel {event.channel}"
        return row

    def refused_words(self, event: Event) -> str:
        notes = self.notes(event.peer, event.time, r"listen on channel (\d+)")
        others = list(dict.fromkeys(note[1] for note in notes))
        if not others or str(event.channel) in others:
            return f". {RETURNS}. Disconnect, wait a second, try again"
        return f". It listens on channel {' and '.join(others)}: both need the same format, classic on channel 1, named on 16. {RETURNS}"

    def end_row(self, event: Event) -> Row | None:
        link = event.link
        assert link
        if any(other.what == "failed" for other in link.events):
            return None
        peer = self.match.peers.get(link)
        theirs = next((other for other in peer.events if other.what == "end"), None) if peer else None
        if not event.error:
            return self.plain(event, "end", "plain", "hangs up")
        state, words = self.explain(event)
        if event.error == "ECONNRESET" and theirs and not theirs.error:
            return (
                None
                if self.at[theirs] < self.at[event] and self.is_next(theirs, event)
                else self.plain(event, "end", "plain", "notices the end", sentence(words))
            )
        row = self.plain(event, "end", state, f"connection lost: {event.error}", sentence(words))
        if event.error == "ECONNRESET" and peer and not theirs and self.has_ended(event.peer, event):
            row["ended"] = safe(event.peer)
        return row

    def has_ended(self, brick: str, event: Event) -> bool:
        """Whether it did nothing any more until its next program."""
        later = islice(self.session.events, self.at[event], None)
        return next((one.what for one in later if one.brick == brick), "start") == "start"

    def explain(self, event: Event) -> tuple[str, str]:
        state, words = explain(event.error, event.brick, event.peer, event.channel)
        peer = self.match.peers.get(event.link) if event.link else None
        for name in (event.brick, event.peer) if event.error == "ETIMEDOUT" else ():
            if self.is_silent(name, event.time):
                words = f"{safe(name)} was out of range"
        if event.error == "ECONNRESET" and peer:
            has_hung_up = any(other.what == "end" for other in peer.events)
            words = (
                f"{safe(event.peer)} has hung up"
                if has_hung_up
                else f"the program on {safe(event.peer)} has ended, without hanging up"
            )
        return state, words

    def failure_row(self, event: Event, what: str) -> Row | None:
        assert event.link
        is_told = any(end.what in ("end", "failed") and end.error == event.error for end in event.link.events)
        if not event.error or (what == "receive" and (is_told or event.error == "ENOTCONN")):
            return None
        state, words = self.explain(event)
        if what == "send":
            words += (
                ". The operation returns false: the message is lost. What it was is not recorded, as nothing of it left"
            )
        title = f"a message is not sent: {event.error}" if what == "send" else f"cannot read: {event.error}"
        return self.plain(event, what, state, title, sentence(words))

    # ---- Messages ----

    def is_next(self, event: Event, other: Event) -> bool:
        """Whether nothing that is shown lies between them."""
        between = self.session.events[self.at[event] + 1 : self.at[other]]
        return (
            self.at[event] < self.at[other]
            and len(between) < 8
            and all(one.what == "receive" and self.is_folded(one) for one in between if one.what not in BESIDES)
        )

    def is_folded(self, receive: Event) -> bool:
        """A receive that took one message as it was sent, right then, is told in the row of that message."""
        parts = self.match.brought.get(receive, [])
        if len(parts) != 1 or parts[0].size != len(parts[0].send.data):
            return False
        send = parts[0].send
        return not any(
            one.what not in (*BESIDES, "receive") for one in self.session.events[self.at[send] + 1 : self.at[receive]]
        )

    def message_row(self, event: Event, what: str, state: str, says: str) -> Row:
        row = self.plain(event, what, state, title_of(event.messages, len(event.data)), says)
        row |= {"size": len(event.data), "fields": fields_of(event.messages), "findings": []}
        for message in event.messages:
            row["findings"] += [text for _, text in message.findings]
        first = event.messages[0] if event.messages else None
        if first and first.kind and first.id is not None and not first.is_part:
            row |= {"kind": first.kind, "id": printable(first.id)[:LONGEST], "value": value_of(first)}
            row["format"] = "classic" if first.classic else "named"
            if first.sender is not None:
                row["sender"] = printable(first.sender)[:LONGEST]
        return row

    def send_row(self, event: Event) -> Row:
        parts = self.match.taken.get(event, [])
        state, says = self.fate(event, parts)
        row = self.message_row(event, "send", state, says)
        row["reads"] = [
            {
                "time": part.receive.time,
                "size": part.size,
                "key": "" if self.is_folded(part.receive) else part.receive.key,
            }
            for part in parts
        ]
        return row

    def fate(self, event: Event, parts: Sequence[Part]) -> tuple[str, str]:
        """What became of a message: a word, and a sentence for its reader."""
        peer = safe(event.peer)
        whole = sum(part.size for part in parts) == len(event.data)
        is_short = 0 < len(event.data) < event.asked
        if event.peer not in self.session.recorded:
            return (
                "unseen",
                f"{peer} was not recorded. If it receives this alone: {reader_gets(event.messages, event.data)}",
            )
        if not parts:
            why, is_final = self.why_unread(event)
            if self.live and not is_final:
                return "waiting", f"{peer} has not read it yet."
            return "lost", f"Nobody read it: {why}."
        if not whole and not is_short:
            got = sum(part.size for part in parts)
            return (
                "cut",
                f"{peer} read {got} of its {count(len(event.data), 'byte')}. Of the rest: {self.why_unread(event)[0]}.",
            )
        first = event.messages[0] if event.messages else None
        if whole and parts and (not first or not first.kind):
            return "damaged", reader_gets(event.messages, event.data)
        if is_short:
            sentence = f"Only {len(event.data)} of its {count(event.asked, 'byte')} left {safe(event.brick)}: the rest never comes, and the operation returned false. "
            again = " After that, disconnect, connect anew, and send it again."
            return "cut", sentence + reader_gets(event.messages, event.data) + again
        if len(parts) > 1:
            pieces = " and ".join(str(part.size) for part in parts[:4]) + (" ..." if len(parts) > 4 else "")
            return "cut", self.cut_words(event, parts, pieces)
        receive = parts[0].receive
        company = self.match.brought[receive]
        if len(company) > 1:
            return self.joined_fate(event, company)
        gets = reader_gets(receive.messages, receive.data)
        return self.sender_fate(event, gets)

    def cut_words(self, event: Event, parts: Sequence[Part], pieces: str) -> str:
        first = parts[0].receive
        if event.peer in self.session.frames:
            words = (
                f"{safe(event.peer)} got it in frames of {pieces} bytes. A reader that waits takes the first alone. "
            )
        else:
            words = f"{safe(event.peer)} got it in pieces of {pieces} bytes"
            words += ", as it asked for no more at once. " if first.asked == len(first.data) else ". "
        if self.match.brought[first][0].send is event:
            words += self.gets(first)
        else:
            words += f"The first piece came behind {self.begin_of(first)}: no reader gets it."
        more = f"Let the reader ask for {count(len(event.data), 'byte')} at once, or more."
        return f"{words} {SPOILS} {more if 0 < first.asked < ENOUGH else SMALL}"

    def begin_of(self, receive: Event) -> str:
        """What comes first in it."""
        send = self.match.brought[receive][0].send
        title = title_of(send.messages, len(send.data))
        return title if self.match.taken[send][0].receive is receive else f"the rest of {title}"

    def gets(self, receive: Event) -> str:
        """What a reader gets of it."""
        gets = reader_gets(receive.messages, receive.data)
        first = self.begin_of(receive) if receive in self.match.brought else ""
        if first.startswith("the rest of ") and gets.startswith("Every reader fails"):
            return f"Every reader fails: {first} comes first."
        return gets

    def joined_fate(self, event: Event, company: Sequence[Part]) -> tuple[str, str]:
        first = company[0].send
        receive = company[0].receive
        name = safe(event.peer)
        gets = self.gets(receive)
        is_text = any(message.kind == "text" and not message.classic for message in receive.messages[:1])
        if event is first:
            others = "the next message" if len(company) == 2 else f"the next {len(company) - 1} messages"
            words = f"{name} read only {duration(receive.time - event.time)} later, and got this and {others} at once, as if they were one. "
            words += gets + (" What came behind is part of that text." if is_text else " The rest is dropped.")
            return "joined", f"{words} {ADVICE}"
        fate = "it ends up inside that text" if is_text else "the reader takes that one and drops this"
        if not gets.startswith("ReadMsg"):
            fate = "every reader fails at what comes first"
        return (
            "swallowed",
            f"{name} got it stuck to the end of {self.begin_of(receive)}: {fate}, and no reader gets it. {ADVICE}",
        )

    def sender_fate(self, event: Event, gets: str) -> tuple[str, str]:
        first = event.messages[0] if event.messages else None
        if not first or not first.kind or first.id is None or gets.startswith("Every reader fails"):
            return "damaged", gets
        if first.sender is not None and first.sender.decode("utf-8", "surrogateescape") != event.brick:
            own = quoted(event.brick.encode("utf-8", "surrogateescape"), 40)
            words = f"{safe(event.brick)} sent it under the name {quoted(first.sender, 40)}: a reader that expects {own} fails, and the message is lost. "
            return (
                "sender",
                words
                + f"Only {call_of(first)} takes it. The name is the adapter's, or that in the variable TAV_BRICK_NAME.",
            )
        return ("damaged" if first.found("damaged") else "ok"), gets

    def why_unread(self, event: Event) -> tuple[str, bool]:
        """In words; and whether it is sure that it will not be read any more."""
        link = event.link
        assert link
        name = safe(event.peer)
        peer = self.match.peers.get(link)
        own_end = next((one for one in link.events if one.what == "end"), None)
        if not peer:
            return f"{name} never accepted this connection", own_end is not None
        their_end = next((one for one in peer.events if one.what == "end"), None)
        for end in own_end, their_end:
            if end and end.error in ("ETIMEDOUT", "ECONNABORTED"):
                return self.explain(end)[1], True
        if their_end and not their_end.error:
            return f"{name} {'had hung up' if their_end.time < event.time else 'hung up before it read this'}", True
        if own_end and own_end.error == "ECONNRESET":
            return f"the program on {name} ended, and nothing tells that it read this", True
        if self.is_silent(event.peer, self.last):
            return f"{name} was out of range when the recording ended", False
        return f"{name} had not read it when the recording ended", False

    def is_silent(self, brick: str, time: float) -> bool:
        notes = self.notes(brick, time, "(out of range|in range)")
        return [note[1] for note in notes[-1:]] == ["out of range"]

    def notes(self, brick: str, time: float, form: str) -> list[re.Match[str]]:
        """What it had noted by then of such a form."""
        texts = [
            one.text for one in self.session.events if one.what == "note" and one.brick == brick and one.time <= time
        ]
        return [found for text in texts if (found := re.fullmatch(form, text))]

    def receive_row(self, event: Event) -> Row | None:
        if self.is_folded(event):
            return None
        parts = self.match.brought.get(event, [])
        whole = len(parts) == 1 and parts[0].size == len(parts[0].send.data)
        gets = self.gets(event)
        if whole:
            state, says = "plain", f"{duration(event.time - parts[0].send.time)} after it was sent."
        elif len(parts) > 1:
            state, says = "joined", gets
        elif parts:
            state, says = "cut", gets
        elif len(event.messages) > 1:
            state, says = "joined", gets
        else:
            state, says = ("damaged" if gets.startswith("Every reader fails") else "ok"), gets
        row = self.message_row(event, "receive", state, says)
        row["from"], row["to"] = row["to"], row["from"]
        if len(parts) > 1:
            row["title"] = f"{len(parts)} at once"
        elif parts and not whole:
            what = "in a frame" if event.brick in self.session.frames else "at once"
            row["title"] = f"{count(len(event.data), 'byte')} {what}"
        row["sends"] = [part.send.key for part in parts]
        return row


def sentence(words: str) -> str:
    return words[0].upper() + words[1:] + "."


def fields_of(messages: Sequence[Message]) -> list[list[Any]]:
    """Offset, bytes in hexadecimal, name and value of each."""
    fields = []
    for message in messages:
        for one in message.fields:
            if one.at < SHOWN_BYTES:
                shown = one.data[: SHOWN_BYTES - one.at]
                fields.append([one.at, shown.hex().upper(), safe(one.name), field_words(one.name, one.data, one.value)])
    return fields


def field_words(name: str, data: bytes, value: str) -> str:
    if name in ("Sender", "Id") or (name == "Value" and value not in ("True", "False")):
        return quoted(data.removesuffix(b"\0"), 200)
    return safe(value)[:200]


def analyse(session: Session, live: bool = False) -> list[Row]:
    return Analysis(session, live).rows()
