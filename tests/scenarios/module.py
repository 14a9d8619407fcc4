"""The module for Python as a peer: its client and server of both formats, and a scan that a signal ends."""

import signal
import sys
import time

from tav_bluetooth import C_TAV_Bluetooth


def end_a_scan(bluetooth: C_TAV_Bluetooth) -> None:
    signal.signal(signal.SIGALRM, signal.default_int_handler)  # as Ctrl-C
    signal.alarm(2)
    try:
        sys.exit(f"the scan found {bluetooth.BT_Scan()}")
    except KeyboardInterrupt:
        pass


def ask(bluetooth: C_TAV_Bluetooth, address: str) -> None:
    bluetooth.Add_BT_Device("Robot2", address, -1, 0)
    assert bluetooth.SendMsg_TAV_String("Robot2", "id", "Hi")
    assert bluetooth.ReadMsg_TAV_String("Robot2", "id", 100, 20000) == "Hello"
    sent = False
    while not sent:  # until the brick listens again
        bluetooth.Disconnect(bluetooth.m_ScanDevices[0].Socket)
        time.sleep(2)
        sent = bluetooth.SendMsg_TAVOrg_String("Robot2", "abc", "Hi")
    assert bluetooth.ReadMsg_TAVOrg_String("Robot2", "abc", 100, 20000) == "Hello"


def answer(bluetooth: C_TAV_Bluetooth) -> None:
    named, classic = bluetooth.OpenServer(16), bluetooth.OpenServer(1)
    client = bluetooth.AcceptClient(named, 60000)
    assert bluetooth._ReadMsg_TAV_String(client, "Robot2", "id", 100, 20000) == "Hi"
    assert bluetooth._SendMsg_TAV_String(client, "id", "Hi")
    client = bluetooth.AcceptClient(classic, 60000)
    assert bluetooth._ReadMsg_TAVOrg_String(client, "Robot2", "abc", 100, 20000) == "Hi"
    assert bluetooth._SendMsg_TAVOrg_String(client, "abc", "Hi")
    time.sleep(1)


with C_TAV_Bluetooth() as own:
    if sys.argv[1] == "client":
        end_a_scan(own)
        ask(own, sys.argv[2])
    else:
        answer(own)
print("all well")
