#!/usr/bin/env python3
"""A brick that looks for another brick, sends it messages and checks that each comes back unchanged."""

import sys
import time

from tav_bluetooth import C_TAV_Bluetooth


def check(what: str, sent: object, received: object) -> bool:
    print(f"{what} {'came back unchanged' if received == sent else 'DID NOT COME BACK'}", flush=True)
    return received == sent


def main(other: str) -> bool:
    with C_TAV_Bluetooth() as bluetooth:
        print("looks around", flush=True)  # for ten seconds
        if bluetooth.BT_Scan() < 0:
            sys.exit("There is no Bluetooth adapter that works (TAV_LOG=- shows why)")
        for device in bluetooth.m_ScanDevices:
            print(f"sees {device.Name!r} at {device.AddrText}", flush=True)

        light, greeting, path = True, f"Hello, {other}!", bytes([0x00, 0x10, 0x7F, 0x80, 0xFF, 0x00])
        if not bluetooth.SendMsg_TAV_Bool(other, "light", light):  # connects
            sys.exit(f"{other} cannot be reached")
        fine = check("bool     light   ", light, bluetooth.ReadMsg_TAV_Bool(other, "light", 10000))
        bluetooth.SendMsg_TAV_String(other, "greeting", greeting)
        fine &= check("text     greeting", greeting, bluetooth.ReadMsg_TAV_String(other, "greeting", 100, 10000))
        bluetooth.SendMsg_TAV_Data(other, "path", path)
        fine &= check("data     path    ", path, bluetooth.ReadMsg_TAV_Data(other, "path", 100, 10000))

        device = bluetooth.m_ScanDevices[bluetooth.isConnected(other)]
        bluetooth.Disconnect(device.Socket)
        time.sleep(0.3)  # connecting again at once is refused
        bluetooth.SendMsg_TAVOrg_String(other, "inbox", "Hi")  # on channel 1
        return check("mailbox  inbox   ", "Hi", bluetooth.ReadMsg_TAVOrg_String(other, "inbox", 100, 10000)) and fine


if len(sys.argv) != 2:
    sys.exit("usage: client.py NAME    (the brick that runs server.py)")
sys.exit(not main(sys.argv[1]))
