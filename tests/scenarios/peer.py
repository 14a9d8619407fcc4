"""A peer that shares no code with the module: both message formats, built and taken apart over PyBluez.

    peer.py client ADDRESS    talks to a brick's servers on channel 16, then 1
    peer.py server            waits for a brick on channel 16, then 1
"""

import struct
import sys
import time

import bluetooth

NAMED_TEXT = 1


def named(text, sender=b"Robot1"):
    return bytes([NAMED_TEXT]) + sender + b"\0" + b"id\0" + text + b"\0"


def classic(text):
    rest = struct.pack("<HBBB", 1, 0x81, 0x9E, 4) + b"abc\0" + struct.pack("<H", len(text) + 1) + text + b"\0"
    return struct.pack("<H", len(rest)) + rest


def expect(link, message):
    received = link.recv(1024)
    assert received == message, (received, message)


def connect(address, channel):
    for attempt in range(20):  # until the brick listens
        link = bluetooth.BluetoothSocket(bluetooth.RFCOMM)
        try:
            link.connect((address, channel))
            return link
        except OSError:
            link.close()
            time.sleep(0.5)
    sys.exit(f"no connection to channel {channel}")


def accept(server):
    link, _ = server.accept()
    return link


def listen(channel):
    server = bluetooth.BluetoothSocket(bluetooth.RFCOMM)
    server.bind(("", channel))
    server.listen(1)
    return server


if sys.argv[1] == "client":
    link = connect(sys.argv[2], 16)
    link.send(named(b"Hi"))
    expect(link, named(b"Hello", b"Robot2"))
    link.close()
    time.sleep(2)  # until the brick listens again: Linux may miss a refusal and wait for 31 s
    link = connect(sys.argv[2], 1)
    link.send(classic(b"Hi"))
    expect(link, classic(b"Hello"))
else:
    servers = [listen(16), listen(1)]
    link = accept(servers[0])
    expect(link, named(b"Hi", b"Robot2"))
    link.send(named(b"Hi"))
    link = accept(servers[1])
    expect(link, classic(b"Hi"))
    link.send(classic(b"Hi"))
    time.sleep(1)
print("all well")
