"""What tshark shows of messages through tools/wireshark/tav.lua, in a capture that is made here as the lab's are."""

import os
import random
import re
import shutil
import struct
import subprocess
import sys
import tempfile
from collections.abc import Iterable
from pathlib import Path
from typing import Any

import pytest

ROOT = Path(__file__).resolve().parent.parent
sys.path.insert(0, str(ROOT / "lab"))
from radio import H4_ACL, H4_EVENT, PB_START, Trace  # noqa: E402

SCRIPT = ROOT / "tools" / "wireshark" / "tav.lua"
NOBODY = 65534
MUTANTS = int(os.environ.get("TAV_MUTANTS", "40"))  # of each input; thousands take as many seconds as they are
CLASSIC_BOOL = "0C 00 01 00 81 9E 04 61 62 63 00 01 00 01 "
CLASSIC_TEXT = "0E 00 01 00 81 9E 04 61 62 63 00 03 00 48 69 00 "
BOOL, TEXT = "03 41 42 00 61 62 63 00 01 ", "01 41 42 00 61 62 63 00 48 69 00 "
DATA = "04 41 42 00 61 62 63 00 02 00 00 00 DE AD "
AB_ABC = 'tav.sender == "AB" && tav.id == "abc" && '
CUT_DATA = "04 41 42 00 61 00 96 00 00 00 " + "03 " * 120
# Frames that are sent, from number 4 on: channel, bytes, end of the info column, a filter that shows the frame.
FRAMES: list[tuple[int, str, str] | tuple[int, str, str, str]] = [
    (1, CLASSIC_BOOL, 'classic id "abc": true', 'tav.length == 12 && tav.id == "abc" && tav.value.bool == 1'),
    (1, CLASSIC_TEXT, 'classic id "abc": "Hi"', 'tav.payload_length == 3 && tav.value.text == "Hi"'),
    (16, BOOL, 'bool from "AB", id "abc": true', AB_ABC + "tav.value.bool == 1"),
    (16, TEXT, 'text from "AB", id "abc": "Hi"', AB_ABC + 'tav.value.text == "Hi"'),
    (16, DATA, 'data from "AB", id "abc": 2 bytes DEAD', AB_ABC + "tav.size == 2 && tav.value.data == de:ad"),
    (1, "00" + CLASSIC_TEXT, 'Sent classic id "abc": "Hi"', "tav.zero && tav.length == 14"),
    (1, "00 01 01 00 81 9E 04 61 62 63 00 F5 00" + "74" * 244 + "00", "0: readers skip it and misread the rest]"),
    (1, "0C 00 01 00 81 9E 00 61 62 63", "classic [id length 0: readers take all that follows for the id]"),
    (
        1,
        "0E 00 01 00 81 9E 04 61 62 63 00 00 00 48",
        '"abc": "H" [payload length 0: a text reader takes all that follows]',
    ),
    (1, "0E 00 01 00 81 9E 04 61 62 63 00 80 01 48", '"H" [1 of 384 bytes of the payload, a text reader fails]'),
    (1, "0B 00 02 00 81 9F 04 61 62 63 00 01 00 01", "not 819E] [length 11, not 12; readers do not compare]"),
    (1, "0C 00 01 00 81 9E 04 61 62 63 7A 01 00 01", '"abc": true [the id\'s last byte is not NUL, readers drop it]'),
    (1, "1F 00 01 00 81 9E 17" + "69" * 22 + "00 01 00 01", "[a bool reader receives 32 bytes, without the value]"),
    (1, CLASSIC_TEXT + CLASSIC_BOOL, '[14 bytes behind it, which readers drop]; classic id "abc": true', "tav.joined"),
    (16, "02 41 42 00", "Sent named message [type 2 is none of 1, 3 and 4]", "tav.damaged && tav.rest == 41:42:00"),
    (16, "03 C3 A4 00 E2 82 AC C3 00 02", r'from "ä", id "\xE2\x82\xAC\xC3": true [bool value 2, read as true]'),
    (
        16,
        "01 41 0A 1B 00 E2 80 AE C2 9B 00 7F C3 A4 07 00",  # as a terminal is not to see them
        r'text from "A\x0A\x1B", id "\xE2\x80\xAE\xC2\x9B": "\x7Fä\x07"',
    ),
    (16, TEXT + TEXT, '[11 bytes behind it, which a text reader takes into the text]; text from "AB", id "abc": "Hi"'),
    (16, "04 41 42 00 61 62 63 00 00 00 00 00", "0 bytes [no data, readers fail]", "tav.size == 0"),
    # Frames of one message; a message behind the end of another; a message that never ends, in both formats.
    (16, "01 41 42 00 61 00" + "74" * 130, "(130 bytes) [goes on in the next frame]", "tav.cut && !tav.damaged"),
    (16, "01" * 130, "Sent 130 bytes of the message begun in frame 23", "tav.begun == 23 && tav.part && !tav.type"),
    (16, "04 74 00", "Sent 3 bytes of the message begun in frame 23"),
    (16, CUT_DATA, "150 bytes [later frames have 30 bytes of it]"),
    (16, "00" * 30 + BOOL, 'Sent 30 bytes of the message begun in frame 26; bool from "AB", id "abc": true'),
    (16, CUT_DATA, "150 bytes [later frames have 30 bytes of it]"),
    (16, BOOL, '"abc": true [the one begun in frame 28 never ended]', "!tav.begun"),
    (1, "FF 02 01 00 81 9E 02 61 00 F8 01" + "74" * 120, "[later frames have 638 bytes of it]"),
    (1, "74" * 20, "20 bytes of the message begun in frame 30 [618 bytes never came]", "tav.damaged"),
]


def show(frames: Iterable[tuple[int, str]], *what: str) -> list[str]:
    """Runs tshark on the capture of a brick that is linked to another, opens RFCOMM's channel and sends the frames."""

    def write_acl(cid: int, data: bytes, to_host: bool = False) -> None:
        trace.write(struct.pack("<BHHHH", H4_ACL, 1 | PB_START, len(data) + 4, len(data), cid) + data, to_host)

    with tempfile.TemporaryDirectory() as folder:
        path = os.path.join(folder, "brick.pcapng")
        trace = Trace(path, "Robot1")
        trace.write(bytes([H4_EVENT, 3, 11, 0, 1, 0, 2, 0, 0, 0, 0, 2, 1, 0]), True)  # Connection Complete
        write_acl(1, bytes([2, 1, 4, 0, 3, 0, 0x40, 0]))  # Connection Request
        write_acl(1, bytes([3, 1, 8, 0, 0x41, 0, 0x40, 0, 0, 0, 0, 0]), True)  # Connection Response
        for channel, text in frames:
            data = bytes.fromhex(text)
            length = bytes([len(data) << 1 | 1]) if len(data) < 128 else struct.pack("<H", len(data) << 1)
            write_acl(0x41, bytes([channel << 3 | 3, 0xEF, *length]) + data + b"\0")
        # Loaded twice, as where it is installed, too.
        scripts = [shutil.copy(SCRIPT, os.path.join(folder, name)) for name in ("a.lua", "b.lua")]
        command = ["tshark", *(f"-Xlua_script:{script}" for script in scripts), "-r", path]
        command += ["-T", "fields", "-e", "frame.number", *what]
        # Without what is set for the user; and as none that may do all, for whom newer releases run no scripts.
        as_user: dict[str, Any] = {"user": NOBODY, "group": NOBODY, "extra_groups": []} if os.geteuid() == 0 else {}
        os.chmod(folder, 0o755)
        alone = dict(os.environ, HOME=folder)
        said = subprocess.run(command, env=alone, capture_output=True, text=True, **as_user)
        assert said.returncode == 0 and "Lua" not in said.stderr, said
        return said.stdout.replace(r"\\", "\\").splitlines()  # newer releases double what escapes


@pytest.fixture(scope="module")
def lines() -> dict[int, str]:
    """What is shown of each frame, by its number, if its filter shows it."""
    passing = [f"(frame.number == {i} && {' && '.join(['tav', *frame[3:]])})" for i, frame in enumerate(FRAMES, 4)]
    shown = show([frame[:2] for frame in FRAMES], "-Y", " || ".join(passing), "-e", "_ws.col.Info")
    return {int(line.split()[0]): line for line in shown}


@pytest.mark.parametrize(("number", "info"), [(number, frame[2]) for number, frame in enumerate(FRAMES, 4)])
def test_frame(lines: dict[int, str], number: int, info: str) -> None:
    assert lines.get(number, "not shown by its filter").endswith(info)


def test_damaged_messages_are_shown_harmlessly() -> None:
    """The inputs of the fuzz targets for readers, with bytes changed, cut and put in."""
    random.seed(4711)
    frames = []
    for file in sorted((ROOT / "fuzz" / "corpus" / "messages").iterdir()) * MUTANTS:
        message = bytearray(file.read_bytes()[:900])
        for _ in range(random.randrange(4)):
            at = random.randrange(len(message))
            message[at : at + random.randrange(3)] = random.randbytes(random.randrange(3))
        frames.append((random.choice([1, 16]), bytes(message or b"\0").hex()))
    shown = show(frames, "-Y", "tav", "-e", "_ws.col.Info")
    assert len(shown) == len(frames)
    assert not [line for line in shown if re.search(r"[\0-\x08\x0a-\x1f\x7f\x80-\x9f\u202a-\u202e\u2066-\u2069]", line)]


def test_a_message_that_is_cut_anywhere_is_damaged() -> None:
    cuts = [(frame[0], frame[1][: 3 * size]) for frame in FRAMES[:5] for size in range(1, len(frame[1]) // 3)]
    assert len(show(cuts, "-Y", "tav.damaged")) == len(cuts)
