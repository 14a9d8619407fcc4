#!/usr/bin/env python3
"""A remote control for robot.py: each line of input is a speed and a turn, as in "50 -10", until the next one."""

import itertools
import queue
import sys
import threading
import time

from tav_bluetooth import C_TAV_Bluetooth

lines: queue.Queue[str] = queue.Queue()


def read_lines() -> None:
    for line in sys.stdin:
        lines.put(line.strip())
    lines.put("end")


def send(bluetooth: C_TAV_Bluetooth, robot: str, number: int, command: str) -> bool:
    """Sends a command, and waits for its own answer. It connects if need be."""
    sent = bluetooth.SendMsg_TAV_String(robot, "drive", f"{number} {command}")
    return sent and bluetooth.ReadMsg_TAV_String(robot, "done", 100, 1000) == str(number)


def hang_up(bluetooth: C_TAV_Bluetooth, robot: str) -> None:
    index = bluetooth.isConnected(robot)
    if index >= 0:
        bluetooth.Disconnect(bluetooth.m_ScanDevices[index].Socket)
    time.sleep(1)  # connecting again at once is refused


def main(robot: str) -> None:
    threading.Thread(target=read_lines, daemon=True).start()
    done, command = "", "0 0"
    with C_TAV_Bluetooth() as bluetooth:
        for number in itertools.count():
            try:
                command = lines.get(timeout=0.2)
            except queue.Empty:
                pass  # the same once more: a robot that hears nothing stops
            if command == "end":
                break
            if not send(bluetooth, robot, number, command):
                print(f"{robot} does not answer", flush=True)
                hang_up(bluetooth, robot)
            elif command != done:
                print(f"{robot} does {command!r}", flush=True)
                done = command


if len(sys.argv) != 2:
    sys.exit("usage: remote.py NAME    (the brick that runs robot.py)")
main(sys.argv[1])
