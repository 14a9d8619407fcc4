"""Event loops that nobody here wrote: asyncio, and blocking sockets with a time-out.

loops.py server           echoes to one client until that leaves, over asyncio; says how that ended
loops.py client ADDRESS   sends, expects the echo, leaves, over asyncio
loops.py plain ADDRESS    the same with a blocking socket
"""

import asyncio
import errno
import socket
import sys

CHANNEL = 16
WORDS = b"x" * 3000


def open_socket() -> socket.socket:
    return socket.socket(socket.AF_BLUETOOTH, socket.SOCK_STREAM, socket.BTPROTO_RFCOMM)


async def serve() -> None:
    loop = asyncio.get_running_loop()
    server = open_socket()
    server.bind(("00:00:00:00:00:00", CHANNEL))
    server.listen(1)
    server.setblocking(False)
    link, (who, _) = await loop.sock_accept(server)
    size = 0
    try:
        while data := await loop.sock_recv(link, 1024):
            size += len(data)
            await loop.sock_sendall(link, data)
    except OSError as error:
        print(f"{who} sent {size}, then {errno.errorcode[error.errno or 0]}")


async def connect() -> None:
    loop = asyncio.get_running_loop()
    link = open_socket()
    link.setblocking(False)
    await loop.sock_connect(link, (sys.argv[2], CHANNEL))
    await loop.sock_sendall(link, WORDS)
    echo = b""
    while len(echo) < len(WORDS):
        echo += await loop.sock_recv(link, 1024)
    print("echoed" if echo == WORDS else "garbled", *link.getpeername())


def connect_plainly() -> None:
    link = open_socket()
    link.settimeout(10)
    link.connect((sys.argv[2], CHANNEL))
    link.sendall(WORDS)
    with link.makefile("rb") as stream:
        echo = stream.read(len(WORDS))
    print("echoed" if echo == WORDS else "garbled", *link.getpeername())


try:
    if sys.argv[1] == "plain":
        connect_plainly()
    else:
        asyncio.run(serve() if sys.argv[1] == "server" else connect())
except OSError as error:
    print(errno.errorcode[error.errno or 0])
