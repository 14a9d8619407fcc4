#!/usr/bin/env python3
"""A server that outlives its clients: it sends back every text that a brick of its device list sends under the id "say",
while bricks come, leave, crash or go out of range."""

import os
import resource
import select
import selectors
import sys

from tav_bluetooth import C_TAV_Bluetooth, S_BT_ScanDevice


def name_of(client: S_BT_ScanDevice) -> str:
    """The name that a client was listed under: an accepted socket tells only the address."""
    return next((device.Name for device in bluetooth.m_ScanDevices if device.AddrText == client.AddrText), "")


def takes_data(socket: int) -> bool:
    """Whether a short message can be sent without waiting: a client that never reads must not hold up the others."""
    return bool(select.select([], [socket], [], 0)[1])


def accept() -> None:
    socket = bluetooth.AcceptClient(server, 0)
    if socket >= 0:
        os.set_blocking(socket, False)  # then no read blocks, whatever the client does
        name = name_of(bluetooth.m_ServerClients[server][-1])
        selector.register(socket, selectors.EVENT_READ, name)


def serve(socket: int, name: str) -> None:
    """One message, if there is one, and its echo. Else the client has left."""
    text = bluetooth._ReadMsg_TAV_String(socket, name, "say", 100, 0)
    if text is not None:
        print(f"{name!r} says {text!r}", flush=True)
    if text is None or not takes_data(socket) or not bluetooth._SendMsg_TAV_String(socket, "say", text):
        selector.unregister(socket)
        bluetooth.CloseClient(socket)
        print(f"{name!r} is gone", flush=True)


hard = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
resource.setrlimit(resource.RLIMIT_NOFILE, (1024, hard))  # the module waits for sockets below 1024 alone
with C_TAV_Bluetooth() as bluetooth, selectors.DefaultSelector() as selector:
    if not bluetooth.BT_ParseFileDevices() and bluetooth.BT_Scan() < 0:
        sys.exit("There is no Bluetooth adapter that works (TAV_LOG=- shows why)")
    server = bluetooth.OpenServer(16)
    if server < 0:
        sys.exit("Cannot listen on channel 16 (TAV_LOG=- shows why)")
    selector.register(server, selectors.EVENT_READ)
    print("serving", flush=True)
    while True:
        for key, _ in selector.select():
            if key.fd == server:
                accept()
            else:
                serve(key.fd, key.data)
