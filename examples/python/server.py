#!/usr/bin/env python3
"""A brick that takes messages from another brick and sends each one back. It hangs if its client leaves before the end."""

import sys

from tav_bluetooth import C_TAV_Bluetooth


def got(what: str, value: object) -> None:
    if value is None:
        sys.exit(f"No {what.split()[0]} came")
    print(f"got {what} = {value!r}", flush=True)


def main(sender: str) -> None:
    with C_TAV_Bluetooth() as bluetooth:
        mailboxes = bluetooth.OpenServer(1)
        if mailboxes < 0 or not bluetooth.OpenServer_TAV():
            sys.exit("Cannot listen on channels 1 and 16 (TAV_LOG=- shows why)")
        print(f"waits for {sender}", flush=True)

        light = bluetooth.Server_ReadMsg_TAV_Bool(sender, "light", 60000)
        got("bool     light   ", light)
        bluetooth.Server_SendMsg_TAV_Bool("light", bool(light))

        greeting = bluetooth.Server_ReadMsg_TAV_String(sender, "greeting", 100, 10000)
        got("text     greeting", greeting)
        bluetooth.Server_SendMsg_TAV_String("greeting", greeting or "")

        # Raw data has no operation of the server's own: read it from the client's socket.
        client = bluetooth.m_ServerClients[bluetooth.m_ServerSocket][0].Socket
        path = bluetooth._ReadMsg_TAV_Data(client, sender, "path", 100, 10000)
        got("data     path    ", path)
        bluetooth._SendMsg_TAV_Data(client, "path", path or b"")

        # Mailbox messages come over a connection of their own, on channel 1.
        mailbox = bluetooth.AcceptClient(mailboxes, 30000)
        inbox = bluetooth._ReadMsg_TAVOrg_String(mailbox, sender, "inbox", 100, 10000)
        got("mailbox  inbox   ", inbox)
        bluetooth._SendMsg_TAVOrg_String(mailbox, "inbox", inbox or "")


if len(sys.argv) != 2:
    sys.exit("usage: server.py NAME    (the brick that will send)")
main(sys.argv[1])
