"""How things are said: texts that may hold anything, errors, and what the module's readers make of what they receive."""

import re
from collections.abc import Sequence
from functools import lru_cache

from .capture import Message

LONGEST = 4000  # characters of a text that are shown
# Line ends, and what turns lines round: as host/printable.cpp has them.
UNSHOWN = re.compile("[\0-\x1f\x7f-\x9f\u061c\u200e\u200f\u2028-\u202e\u2066-\u2069\ud800-\udfff]")
FAILS = re.compile(r"readers? fails?|misread")  # how the dissector says that there is no result
PLAIN = {  # what it says, for those who look at a page
    "payload length 0: a text reader takes all that follows": "its payload length is 0, and a text reader takes all that follows",
    "no NUL ends the text, readers drop its last byte": "its end is missing, and readers drop the last byte that came",
}
# By errno: what kind of trouble it is, and what it means for a connection.
ERRORS = {
    "ECONNREFUSED": (
        "refused",
        "{peer} is there, but refuses: no program on it listens on channel {channel}",
    ),
    "EHOSTDOWN": ("gone", "{peer} does not answer: it is switched off, out of range, or has another address"),
    "ETIMEDOUT": ("gone", "{peer} fell silent: it was switched off, or is out of range"),
    "ECONNRESET": ("gone", "{peer} has hung up, or its program has ended"),
    "ENOTCONN": (
        "lost",
        "{brick} has no connection to {peer}: nothing is sent until it disconnects, and connects anew",
    ),
    "ECONNABORTED": ("lost", "the adapter of {brick} was switched off"),
    "EHOSTUNREACH": ("refused", "no adapter of {brick} reaches {peer}, or {peer} is this brick itself"),
    "EBUSY": (
        "refused",
        "{brick} has a connection to channel {channel} of {peer} already, or {peer} fell silent just now",
    ),
    "EMLINK": ("refused", "{peer} has as many links as it can have"),
}


@lru_cache(10000)
def printable(data: bytes) -> str:
    """What a terminal and a page only show: what they could obey, or what is not UTF-8, becomes \\x1B and the like."""

    def escape(text: re.Match[str]) -> str:
        raw = text[0].encode("utf-8", "surrogateescape")
        return "".join(f"\\x{byte:02X}" for byte in raw)

    return UNSHOWN.sub(escape, data.decode("utf-8", "surrogateescape"))


@lru_cache(10000)
def safe(text: str) -> str:
    """A name, which tshark has as text."""
    return printable(text.encode("utf-8", "surrogateescape"))


def shorten(text: str, size: int) -> str:
    return text if len(text) <= size else text[: size - 1] + "…"


def quoted(data: bytes, size: int = 60) -> str:
    return '"' + shorten(printable(data), size) + '"'


def shown(text: bytes) -> str:
    """As a reader's program shows it, more or less."""
    words, dots = UNSHOWN.subn("·", text.decode("utf-8", "surrogateescape"))
    return f'"{shorten(words, 100)}"' + (" (· is a byte that no letter stands for)" if dots else "")


def count(number: int, what: str) -> str:
    return f"{number} {what}{'' if number == 1 else 's'}"


def duration(seconds: float) -> str:
    return f"{seconds * 1000:.0f} ms" if seconds < 1 else f"{seconds:.1f} s"


def explain(error: str, brick: str, peer: str, channel: int) -> tuple[str, str]:
    """What an errno means: its kind, and words."""
    kind, words = ERRORS.get(error, ("lost", "it fails with {error}"))
    return kind, words.format(error=error, brick=safe(brick), peer=safe(peer) or "the other brick", channel=channel)


# ---- Messages -------------------------------------------------------------------------------------------------------


def value_of(message: Message, size: int = LONGEST) -> str:
    """As a message's value is shown."""
    if message.value is None:
        return ""
    if message.kind == "bool":
        return "false" if message.value[:1] == b"\0" else "true"
    if message.kind == "data":
        return shorten(message.value[:LONGEST].hex(" ").upper(), size)
    return quoted(message.value.removesuffix(b"\0"), size)


def title_of(messages: Sequence[Message], size: int) -> str:
    if not messages:
        return count(size, "byte")
    first = messages[0]
    if first.is_part:
        return f"the rest of a message, {count(size, 'byte')}"
    if not first.kind or first.id is None:
        return f"no message, {count(size, 'byte')}"
    value = count(first.length, "byte") if first.kind == "data" else value_of(first, 60)
    return f"{first.kind} {shorten(printable(first.id), 40)} {value}".rstrip()


def call_of(message: Message) -> str:
    """The operation that takes it, and what it must be told to do so."""
    format_name = "TAVOrg" if message.classic else "TAV"
    reader = {"bool": "Bool", "text": "String", "data": "Data"}[message.kind]
    sender = "" if message.sender is None else f"{quoted(message.sender, 40)}, "
    return f"ReadMsg_{format_name}_{reader}({sender}{quoted(message.id or b'', 40)})"


def text_of(messages: Sequence[Message], data: bytes) -> bytes:
    """What a reader of texts is given: in the named format all that one receive brought."""
    first = messages[0]
    if first.value is None:
        return b""
    if not first.classic:
        return data[first.value_at : -1]
    return first.value[:-1] if first.length else first.value  # a length of 0 wraps around


def result_of(messages: Sequence[Message], data: bytes) -> str:
    """What a reader that expects the first message is given, of all that one receive brought; empty: it fails."""
    first = messages[0]
    if any(FAILS.search(text) for text in first.found("damaged")):
        return ""
    if first.kind == "text":
        return shown(text_of(messages, data))
    if first.kind == "data" and (first.value is not None or len(messages) > 1):  # none, but something behind it
        value = first.value or b""
        return f"{count(len(value), 'byte')} {shorten(value.hex().upper(), 40)}".rstrip()
    return value_of(first, 60)


def reader_gets(messages: Sequence[Message], data: bytes) -> str:
    """What becomes of a receive, in a sentence."""
    if not messages or not data:
        return ""
    first = messages[0]
    damage = "; ".join(PLAIN.get(text, text) for text in first.found("damaged", "odd"))
    damage = re.sub(", (a text )?readers? fails?", "", damage)
    if first.is_part:
        return "It is the rest of a message that was begun before: every reader fails, and what came with it is lost."
    if not first.kind or first.id is None:
        return f"Every reader fails: {damage or 'it is no message'}."
    result = result_of(messages, data)
    if not result:
        return f"Every reader fails: {damage or 'its value is missing'}."
    words = f"{call_of(first)} gives {result}"
    return words + (f" ({damage})." if damage else ".")
