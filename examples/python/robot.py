#!/usr/bin/env python3
"""A robot that does what its remote control says, and stops by itself when it hears nothing for a second."""

import sys

from tav_bluetooth import C_TAV_Bluetooth


def drive(command: str) -> None:
    print(f"drives {command!r}", flush=True)  # a speed and a turn, for the motors of a real robot


def obey(bluetooth: C_TAV_Bluetooth, client: int, remote: str) -> None:
    """Takes commands, "NUMBER SPEED TURN", until one is missing. The answer to each is its number."""
    last = ""
    while message := bluetooth._ReadMsg_TAV_String(client, remote, "drive", 100, 1000):
        number, _, command = message.partition(" ")
        if command != last:
            drive(command)
        last = command
        if not bluetooth._SendMsg_TAV_String(client, "done", number):
            return  # who has left is not read from again: that could wait for ever


def main(remote: str) -> None:
    with C_TAV_Bluetooth() as bluetooth:
        server = bluetooth.OpenServer(16)
        if server < 0:
            sys.exit("Cannot listen on channel 16 (TAV_LOG=- shows why)")
        while True:
            print(f"waits for {remote}", flush=True)
            client = bluetooth.AcceptClient(server, 60000)
            if client >= 0:
                obey(bluetooth, client, remote)
                drive("0 0")
                bluetooth.CloseClient(client)


if len(sys.argv) != 2:
    sys.exit("usage: robot.py NAME    (the brick that runs remote.py)")
main(sys.argv[1])
