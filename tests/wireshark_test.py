#!/usr/bin/env python3
"""What tshark shows of messages through tools/wireshark/tav.lua, in a capture that is made here as the lab's are."""
import os
import struct
import subprocess
import sys
import tempfile

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, os.path.join(ROOT, "lab"))
from radio import H4_ACL, H4_EVENT, PB_START, Trace

CLASSIC_BOOL = "0C 00 01 00 81 9E 04 61 62 63 00 01 00 01 "
CLASSIC_TEXT = "0E 00 01 00 81 9E 04 61 62 63 00 03 00 48 69 00 "
BOOL, TEXT = "03 41 42 00 61 62 63 00 01 ", "01 41 42 00 61 62 63 00 48 69 00 "
DATA = "04 41 42 00 61 62 63 00 02 00 00 00 DE AD "
AB_ABC = 'tav.sender == "AB" && tav.id == "abc" && '
CUT_DATA = "04 41 42 00 61 00 96 00 00 00 " + "03 " * 120
# Frames that are sent, from number 4 on: channel, bytes, end of the info column, a filter that shows the frame.
FRAMES = [
    (1, CLASSIC_BOOL, 'classic id "abc": true', 'tav.length == 12 && tav.id == "abc" && tav.value.bool == 1'),
    (1, CLASSIC_TEXT, 'classic id "abc": "Hi"', 'tav.payload_length == 3 && tav.value.text == "Hi"'),
    (16, BOOL, 'bool from "AB", id "abc": true', AB_ABC + "tav.value.bool == 1"),
    (16, TEXT, 'text from "AB", id "abc": "Hi"', AB_ABC + 'tav.value.text == "Hi"'),
    (16, DATA, 'data from "AB", id "abc": 2 bytes DEAD', AB_ABC + "tav.size == 2 && tav.value.data == de:ad"),
    (1, "00" + CLASSIC_TEXT, 'Sent classic id "abc": "Hi"', "tav.zero && tav.length == 14"),
    (1, "00 01 01 00 81 9E 04 61 62 63 00 F5 00" + "74" * 244 + "00", "0: readers skip it and misread the rest]"),
    (1, "0C 00 01 00 81 9E 00 61 62 63", "classic [id length 0: readers take all that follows for the id]"),
    (1, "0E 00 01 00 81 9E 04 61 62 63 00 00 00 48", '"abc" [payload length 0: a text reader takes all that follows]'),
    (1, "0E 00 01 00 81 9E 04 61 62 63 00 80 01 48", '"H" [1 of 384 bytes of the payload, a text reader fails]'),
    (1, "0B 00 02 00 81 9F 04 61 62 63 00 01 00 01", "not 819E] [length 11, not 12; readers do not compare]"),
    (1, "0C 00 01 00 81 9E 04 61 62 63 7A 01 00 01", '"abc": true [the id\'s last byte is not NUL, readers drop it]'),
    (1, "1F 00 01 00 81 9E 17" + "69" * 22 + "00 01 00 01", "[a bool reader receives 32 bytes, without the value]"),
    (1, CLASSIC_TEXT + CLASSIC_BOOL, '[14 bytes behind it, which readers drop]; classic id "abc": true', "tav.joined"),
    (16, "02 41 42 00", "Sent named message [type 2 is none of 1, 3 and 4]", "tav.damaged && tav.rest == 41:42:00"),
    (16, "03 C3 A4 00 E2 82 AC C3 00 02", 'from "ä", id "????": true [bool value 2, read as true]'),
    (16, TEXT + TEXT, '[11 bytes behind it, which a text reader takes into the text]; text from "AB", id "abc": "Hi"'),
    (16, "04 41 42 00 61 62 63 00 00 00 00 00", "0 bytes [no data, readers fail]", "tav.size == 0"),
    # Frames of one message; a message behind the end of another; a message that never ends, in both formats.
    (16, "01 41 42 00 61 00" + "74" * 130, "(130 bytes) [goes on in the next frame]", "tav.cut && !tav.damaged"),
    (16, "01" * 130, "Sent 130 bytes of the message begun in frame 22", "tav.begun == 22 && tav.part && !tav.type"),
    (16, "04 74 00", "Sent 3 bytes of the message begun in frame 22"),
    (16, CUT_DATA, "150 bytes [later frames have 30 bytes of it]"),
    (16, "00" * 30 + BOOL, 'Sent 30 bytes of the message begun in frame 25; bool from "AB", id "abc": true'),
    (16, CUT_DATA, "150 bytes [later frames have 30 bytes of it]"),
    (16, BOOL, '"abc": true [the one begun in frame 27 never ended]', "!tav.begun"),
    (1, "FF 02 01 00 81 9E 02 61 00 F8 01" + "74" * 120, "[later frames have 638 bytes of it]"),
    (1, "74" * 20, "20 bytes of the message begun in frame 29 [618 bytes never came]", "tav.damaged"),
]


def show(frames, *what):
    """Runs tshark on the capture of a brick that is linked to another, opens RFCOMM's channel and sends the frames."""

    def write_acl(cid, data, to_host=False):
        trace.write(struct.pack("<BHHHH", H4_ACL, 1 | PB_START, len(data) + 4, len(data), cid) + data, to_host)

    with tempfile.TemporaryDirectory() as folder:
        path = os.path.join(folder, "brick.btsnoop")
        trace = Trace(path)
        trace.write(bytes([H4_EVENT, 3, 11, 0, 1, 0, 2, 0, 0, 0, 0, 2, 1, 0]), True)  # Connection Complete
        write_acl(1, bytes([2, 1, 4, 0, 3, 0, 0x40, 0]))  # Connection Request
        write_acl(1, bytes([3, 1, 8, 0, 0x41, 0, 0x40, 0, 0, 0, 0, 0]), True)  # Connection Response
        for channel, text in frames:
            data = bytes.fromhex(text)
            length = [len(data) << 1 | 1] if len(data) < 128 else struct.pack("<H", len(data) << 1)
            write_acl(0x41, bytes([channel << 3 | 3, 0xEF, *length]) + data + b"\0")
        script = "lua_script:" + os.path.join(ROOT, "tools", "wireshark", "tav.lua")
        command = ["tshark", "-X", script, "-r", path, "-T", "fields", "-E", "separator= ", "-e", "frame.number", *what]
        alone = dict(os.environ, HOME=folder)  # without what is installed and set for the user
        return subprocess.run(command, env=alone, check=True, text=True, stdout=subprocess.PIPE).stdout.splitlines()


passing = [f"(frame.number == {i} && {' && '.join(['tav', *frame[3:]])})" for i, frame in enumerate(FRAMES, 4)]
shown = show([frame[:2] for frame in FRAMES], "-Y", " || ".join(passing), "-e", "_ws.col.Info")
lines = {int(line.split()[0]): line for line in shown}
wrong = []
for number, frame in enumerate(FRAMES, 4):
    line = lines.get(number, f"not shown by {frame[3:]}")
    if not line.endswith(frame[2]):
        wrong.append(f"frame {number}: {frame[1][:60]}\n  wanted: {frame[2]}\n  got:    {line}")

# Cut anywhere, a message is damaged.
cuts = [(frame[0], frame[1][: 3 * size]) for frame in FRAMES[:5] for size in range(1, len(frame[1]) // 3)]
if len(show(cuts, "-Y", "tav.damaged")) != len(cuts):
    wrong.append("not all cut messages are shown as damaged")
sys.exit("\n".join(wrong) or 0)
