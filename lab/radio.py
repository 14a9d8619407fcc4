#!/usr/bin/env python3
"""The radio of the lab: Bluetooth 2.0 BR/EDR controllers that reach each other, each behind a UNIX socket.

    radio.py [--speed N] DIR NAME=ADDRESS ...

Each controller listens on DIR/NAME and speaks HCI over H4 to the one host that connects there. Stdout says "ready" once
all of them listen. Then every line on stdin is a command, answered by one line, "ok" or "error: <reason>":

    out NAME | back NAME         takes the device out of radio range, brings it back
    device NAME ADDRESS          adds a bare device: answers inquiries and name requests, never a page to connect
    nameless NAME | named NAME   the device ignores name requests, answers them again
    refuse NAME | accept NAME    the device refuses every connection (limited resources), is asked again
    slow NAME BYTES_PER_SECOND   each link of the device carries ACL data at this rate, each way; 0: as fast as it can
    trace DIR                    from now on, the HCI packets of each controller are written to DIR/NAME.pcapng

The radio ends with its stdin, so it never outlives its parent. Inquiry, paging and supervision take the times of the
Core specification, but a device in page scan answers a page within a moment, and nothing is lost or repeated on the
air. --speed divides all times, those of slow links too. There is no pairing, encryption, role switch, SCO or low power.
"""

from __future__ import annotations

import argparse
import asyncio
import contextlib
import functools
import io
import os
import re
import shlex
import signal
import struct
import sys
import threading
import time
from collections import deque
from collections.abc import Callable
from typing import Any, NoReturn, TypeVar

# H4 packet types, and the struct of what follows the type byte: the last field is the length of the rest
H4_COMMAND, H4_ACL, H4_SCO, H4_EVENT = 1, 2, 3, 4
H4_HEADERS = {H4_COMMAND: struct.Struct("<xHB"), H4_ACL: struct.Struct("<xHH"), H4_SCO: struct.Struct("<xHB")}

# Commands with a handler; those that have a fixed answer stand in FIXED_ANSWERS, LINK_ANSWERS and REMOTE_ANSWERS
INQUIRY, INQUIRY_CANCEL = 0x0401, 0x0402
CREATE_CONNECTION, DISCONNECT, CREATE_CONNECTION_CANCEL = 0x0405, 0x0406, 0x0408
ACCEPT_CONNECTION, REJECT_CONNECTION = 0x0409, 0x040A
REMOTE_NAME_REQUEST, REMOTE_NAME_REQUEST_CANCEL, ROLE_DISCOVERY = 0x0419, 0x041A, 0x0809
RESET, WRITE_LOCAL_NAME, READ_LOCAL_NAME = 0x0C03, 0x0C13, 0x0C14
READ_ACCEPT_TIMEOUT, WRITE_ACCEPT_TIMEOUT, READ_PAGE_TIMEOUT, WRITE_PAGE_TIMEOUT = 0x0C15, 0x0C16, 0x0C17, 0x0C18
READ_SCAN_ENABLE, WRITE_SCAN_ENABLE, READ_CLASS, WRITE_CLASS = 0x0C19, 0x0C1A, 0x0C23, 0x0C24
READ_SUPERVISION_TIMEOUT, WRITE_SUPERVISION_TIMEOUT, READ_BD_ADDR = 0x0C36, 0x0C37, 0x1009

# Events
EV_INQUIRY_COMPLETE, EV_INQUIRY_RESULT, EV_CONNECTION_COMPLETE, EV_CONNECTION_REQUEST = 0x01, 0x02, 0x03, 0x04
EV_DISCONNECTION_COMPLETE, EV_REMOTE_NAME, EV_REMOTE_FEATURES, EV_REMOTE_VERSION = 0x05, 0x07, 0x0B, 0x0C
EV_COMMAND_COMPLETE, EV_COMMAND_STATUS, EV_COMPLETED_PACKETS = 0x0E, 0x0F, 0x13
EV_CLOCK_OFFSET, EV_PACKET_TYPE_CHANGED = 0x1C, 0x1D

# Status and reason codes
SUCCESS, UNKNOWN_COMMAND, UNKNOWN_CONNECTION, PAGE_TIMED_OUT, CONNECTION_TIMED_OUT = 0x00, 0x01, 0x02, 0x04, 0x08
LIMIT_EXCEEDED = 0x09
ACL_ALREADY_EXISTS, COMMAND_DISALLOWED, REJECTED_LIMITED_RESOURCES, ACCEPT_TIMED_OUT = 0x0B, 0x0C, 0x0D, 0x10
INVALID_PARAMETERS, ENDED_BY_LOCAL_HOST = 0x12, 0x16

SLOT = 0.000625  # seconds
INQUIRY_UNIT = 1.28  # seconds
PAGE_LATENCY = 0.02  # seconds at any speed; a blocking connect of Linux 6.1 misses a faster refusal and waits 31 s
INQUIRY_SCAN, PAGE_SCAN = 1, 2  # bits of Write Scan Enable
LINK_TYPE_ACL = 1
MAX_LINKS = 7  # of a piconet
MAX_HANDLE = 0x0EFF
PB_MASK, PB_START = 0x3000, 0x2000  # packet boundary flag, above the handle in an ACL header
NAME_SIZE = 248
ACL_SIZE, ACL_BUFFERS = 1021, 8
FEATURES = bytes([0x07, 0, 0x04, 0, 0, 0, 0, 0])  # 3 and 5 slot packets, encryption, power control
VERSION = struct.pack("<BHH", 3, 0xFFFF, 0)  # LMP 2.0, no assigned manufacturer, subversion 0

# Commands that are always answered by Command Complete, with success and these bytes
FIXED_ANSWERS = {
    0x080F: b"",  # Write Default Link Policy Settings
    0x0C01: b"",  # Set Event Mask
    0x0C05: b"",  # Set Event Filter
    0x0C1B: struct.pack("<HH", 0x800, 0x12),  # Read Page Scan Activity
    0x0C1D: struct.pack("<HH", 0x1000, 0x12),  # Read Inquiry Scan Activity
    0x0C20: b"",  # Write Authentication Enable
    0x0C22: b"",  # Write Encryption Mode
    0x0C25: b"\x60\0",  # Read Voice Setting
    0x0C38: b"\1",  # Read Number Of Supported IAC
    0x0C39: b"\1\x33\x8b\x9e",  # Read Current IAC LAP: the general one
    0x0C3A: b"",  # Write Current IAC LAP
    0x1001: struct.pack("<BH", 3, 0) + VERSION,  # Read Local Version Information: HCI 2.0
    0x1002: bytes(64),  # Read Local Supported Commands: none named, so a host asks for no optional one
    0x1003: FEATURES,  # Read Local Supported Features
    0x1005: struct.pack("<HBHH", ACL_SIZE, 64, ACL_BUFFERS, 0),  # Read Buffer Size: no SCO
}
# Commands on a link, answered by Command Complete, with success, the handle and these bytes
LINK_ANSWERS = {
    0x080C: bytes(2),  # Read Link Policy Settings
    0x080D: b"",  # Write Link Policy Settings
    0x0C28: b"",  # Write Automatic Flush Timeout
    0x0C2D: b"\4",  # Read Transmit Power Level, in dBm
    0x1403: b"\xff",  # Get Link Quality: the best
    0x1405: b"\0",  # Read RSSI: within the golden range
    0x1406: b"\0" + bytes(10),  # Read AFH Channel Map: not in use
}
# Commands on a link, answered by Command Status and then this event, with success, the parameters and these bytes
REMOTE_ANSWERS = {
    0x040F: (EV_PACKET_TYPE_CHANGED, b""),  # Change Connection Packet Type
    0x041B: (EV_REMOTE_FEATURES, FEATURES),  # Read Remote Supported Features
    0x041D: (EV_REMOTE_VERSION, VERSION),  # Read Remote Version Information
    0x041F: (EV_CLOCK_OFFSET, bytes(2)),  # Read Clock Offset
}


class HciError(Exception):
    """Ends the handling of a command; its argument is the error code for the Command Status."""


class Refusal(Exception):
    """Why an argument or a line on stdin cannot be followed."""


class Trace:
    """A pcapng file of the packets between one controller and its host. Its interface bears the controller's name."""

    SECTION, INTERFACE, PACKET = 0x0A0D0D0A, 1, 6  # blocks
    H4_WITH_DIRECTION = 201  # link type
    NAME, DESCRIPTION, RESOLUTION = 2, 3, 9  # options

    def __init__(self, path: str, name: str) -> None:
        self.file = open(path, "wb", buffering=0)  # complete at any moment, however the radio ends
        self.write_block(self.SECTION, struct.pack("<IHHq", 0x1A2B3C4D, 1, 0, -1))
        options = {self.NAME: name.encode(), self.DESCRIPTION: b"lab, a controller", self.RESOLUTION: b"\x09"}
        packed = [struct.pack("<HH", code, len(value)) + self.padded(value) for code, value in options.items()]
        self.write_block(
            self.INTERFACE, struct.pack("<HHI", self.H4_WITH_DIRECTION, 0, 0) + b"".join(packed) + bytes(4)
        )

    @staticmethod
    def padded(data: bytes) -> bytes:
        return data + bytes(-len(data) % 4)

    def write_block(self, kind: int, body: bytes) -> None:
        size = struct.pack("<I", len(body) + 12)
        self.file.write(struct.pack("<I", kind) + size + body + size)

    def write(self, packet: bytes, to_host: bool) -> None:
        data = struct.pack(">I", to_host) + packet
        high, low = divmod(time.time_ns(), 1 << 32)
        self.write_block(self.PACKET, struct.pack("<5I", 0, high, low, len(data), len(data)) + self.padded(data))


class Device:
    """A device on the air. By itself it is a bare one, with no host behind it, that never accepts a connection."""

    def __init__(self, radio: Radio, name: str, address: bytes) -> None:
        self.radio = radio
        self.name = name.encode()  # what it tells in answer to a name request
        self.address = address  # 6 bytes, the last of the text form first, as in HCI
        self.device_class = bytes(3)
        self.scan = INQUIRY_SCAN | PAGE_SCAN
        self.in_range = True
        self.tells_name = True
        self.refuses = False
        self.rate = 0  # bytes a second on each link, 0: no limit
        self.ends: dict[int, LinkEnd] = {}  # its ends of links, by handle

    def padded_name(self) -> bytes:
        return self.name[:NAME_SIZE].ljust(NAME_SIZE, b"\0")

    def end_towards(self, other: Device | None) -> LinkEnd | None:
        return next((end for end in self.ends.values() if end.peer.device is other), None)


class LinkEnd:
    """One end of an ACL link, and the packets of its host that the other end has not yet acknowledged."""

    def __init__(self, link: Link, device: Controller) -> None:
        self.link = link
        self.device = device
        self.handle = device.free_handle()
        self.peer: LinkEnd  # the other end, which stays known when it is closed
        self.open = True
        self.unacknowledged: deque[tuple[int, bytes]] = deque()  # (packet boundary flag, data)
        self.slow_delivery: asyncio.TimerHandle | None = None
        self.supervision: asyncio.TimerHandle | None = None  # runs while the other end is silent
        device.ends[self.handle] = self

    def send(self, flag: int, data: bytes) -> None:
        self.unacknowledged.append((flag, data))
        self.deliver()

    def deliver(self) -> None:
        """Delivers all that can be delivered now, and sets a timer for the next packet of a slow link."""
        while self.unacknowledged and not self.slow_delivery and self.can_deliver():
            rate = self.link.rate()
            if rate:
                seconds = len(self.unacknowledged[0][1]) / rate
                self.slow_delivery = self.device.radio.later(seconds, self.deliver_slowly)
            else:
                self.deliver_one()

    def deliver_slowly(self) -> None:
        self.slow_delivery = None
        if self.can_deliver():  # else it stays unacknowledged
            self.deliver_one()
        self.deliver()

    def deliver_one(self) -> None:
        flag, data = self.unacknowledged.popleft()
        self.device.event(EV_COMPLETED_PACKETS, struct.pack("<BHH", 1, self.handle, 1))
        self.peer.device.send(struct.pack("<BHH", H4_ACL, self.peer.handle | flag, len(data)) + data)

    def can_deliver(self) -> bool:
        return self.link.carries() and not self.peer.device.host_stalls

    def change_rate(self) -> None:
        if self.slow_delivery:
            self.slow_delivery.cancel()
            self.slow_delivery = None
        self.deliver()

    def supervise(self) -> None:
        """Called whenever one end may have become silent or audible to the other."""
        if self.supervision and (self.link.carries() or not self.open):
            self.supervision.cancel()
            self.supervision = None
        elif self.open and not self.supervision and self.link.supervision_timeout and not self.link.carries():
            seconds = self.link.supervision_timeout * SLOT
            self.supervision = self.device.radio.later(seconds, self.close, CONNECTION_TIMED_OUT)
        self.deliver()

    def close(self, reason: int | None = None) -> None:
        """Ends the link here, telling the host why unless it is past caring. The other end notices by itself."""
        if not self.open:
            return
        self.open = False
        del self.device.ends[self.handle]
        self.unacknowledged.clear()
        self.supervise()
        if reason is not None:
            self.device.event(EV_DISCONNECTION_COMPLETE, struct.pack("<BHB", SUCCESS, self.handle, reason))
        self.peer.supervise()


class Link:
    """An ACL link: two ends, each of which outlives the other until it notices its silence."""

    def __init__(self, master: Controller, slave: Controller) -> None:
        self.supervision_timeout = 0x7D00  # slots, 20 s; 0: none
        self.master, self.slave = LinkEnd(self, master), LinkEnd(self, slave)
        self.master.peer, self.slave.peer = self.slave, self.master

    def carries(self) -> bool:
        master, slave = self.master, self.slave
        return master.open and slave.open and master.device.in_range and slave.device.in_range

    def rate(self) -> int:
        """Bytes a second: of the slower end; 0 if both are fast."""
        rates = self.master.device.rate, self.slave.device.rate
        return min(rates) or max(rates)


class Page:
    """One controller's page of a device, for its name or a connection, repeated until it is answered or times out."""

    def __init__(self, pager: Controller, address: bytes, for_name: bool) -> None:
        self.pager, self.address, self.for_name = pager, address, for_name
        self.over = False
        self.asked: Controller | None = (
            None  # the device that answered and now waits for its host to accept the connection
        )
        self.timer = pager.radio.later(pager.page_timeout * SLOT, self.finish, PAGE_TIMED_OUT)

    def attempt(self) -> None:
        device = self.pager.radio.find(self.address)
        if not self.over and not self.for_name and len(self.pager.ends) >= MAX_LINKS:
            self.finish(LIMIT_EXCEEDED)
        if self.over or self.asked or not device or not self.pager.hears(device):
            return
        linked = device.end_towards(self.pager)
        if not linked and not device.scan & PAGE_SCAN:
            return
        if self.for_name:
            if device.tells_name:
                self.finish(SUCCESS, device.padded_name())
        elif device.refuses or (not linked and len(device.ends) >= MAX_LINKS):
            self.finish(REJECTED_LIMITED_RESOURCES)
        elif linked:  # the device has not yet noticed that the last link is gone
            self.finish(ACL_ALREADY_EXISTS)
        elif isinstance(device, Controller):
            self.ask(device)

    def ask(self, device: Controller) -> None:
        self.asked = device
        self.timer.cancel()
        self.timer = self.pager.radio.later(device.accept_timeout * SLOT, self.not_accepted, device)
        caller = self.pager.address + self.pager.device_class + bytes([LINK_TYPE_ACL])
        device.event(EV_CONNECTION_REQUEST, caller)

    def not_accepted(self, device: Controller) -> None:
        device.connection_complete(ACCEPT_TIMED_OUT, self.pager.address)
        self.finish(ACCEPT_TIMED_OUT)

    def finish(self, status: int, name: bytes = b"") -> None:
        self.cancel()
        if self.for_name:
            self.pager.event(EV_REMOTE_NAME, bytes([status]) + self.address + name.ljust(NAME_SIZE, b"\0"))
        else:
            self.pager.connection_complete(status, self.address)

    def cancel(self) -> None:
        self.over = True
        self.timer.cancel()
        del self.pager.pages[self.address, self.for_name]


class Controller(Device):
    """A device with a host: the HCI commands of the host, and what the host is told."""

    def __init__(self, radio: Radio, name: str, address: bytes) -> None:
        super().__init__(radio, name, address)
        self.trace: Trace | None = None
        self.host: HostPort | None = None
        self.host_stalls = False  # the host does not read what it is sent
        self.pages: dict[tuple[bytes, bool], Page] = {}  # by address and whether for the name
        self.inquiry_timers: list[asyncio.TimerHandle] = []
        self.last_handle = 0
        self.opcode = 0  # of the command that is being answered
        self.reset()

    def reset(self) -> None:
        """Back to the defaults. Links vanish without a word on the air, as when the power fails."""
        for end in list(self.ends.values()):
            end.close()
        for page in list(self.pages.values()):
            page.cancel()
        self.stop_inquiry()
        self.scan = 0
        self.name = b""
        self.device_class = bytes(3)
        self.page_timeout = 0x2000  # slots, 5.12 s
        self.accept_timeout = 0x1FA0  # slots, 5 s

    # The host

    def set_host(self, host: HostPort | None) -> None:
        """A host connects, or disconnects (None), which switches the device off."""
        self.host = host
        self.host_stalls = False
        self.reset()

    def stall(self, stalls: bool) -> None:
        """While the host does not read, its controller acknowledges nothing: the senders wait, not this process."""
        self.host_stalls = stalls
        for end in list(self.ends.values()):
            end.peer.deliver()

    def send(self, packet: bytes) -> None:
        if self.host:
            self.host.send(packet)

    def event(self, code: int, parameters: bytes) -> None:
        self.send(bytes([H4_EVENT, code, len(parameters)]) + parameters)

    def complete(self, parameters: bytes = b"", status: int = SUCCESS) -> None:
        self.event(EV_COMMAND_COMPLETE, struct.pack("<BHB", 1, self.opcode, status) + parameters)

    def status(self, status: int = SUCCESS) -> None:
        self.event(EV_COMMAND_STATUS, struct.pack("<BBH", status, 1, self.opcode))

    def receive(self, packet_type: int, field: int, payload: bytes) -> None:
        """Takes a packet of the host; field is the opcode, or the handle with its flags."""
        if packet_type == H4_COMMAND:
            self.command(field, payload)
        elif packet_type == H4_ACL and (end := self.ends.get(field & 0x0FFF)):
            end.send(field & PB_MASK or PB_START, payload)  # a host may mark a start with 0, a controller may not

    def command(self, opcode: int, parameters: bytes) -> None:
        self.opcode = opcode
        try:
            if opcode in FIXED_ANSWERS:
                self.complete(FIXED_ANSWERS[opcode])
            elif opcode in LINK_ANSWERS:
                self.check_handle(parameters)
                self.complete(parameters[:2] + LINK_ANSWERS[opcode])
            elif opcode in REMOTE_ANSWERS:
                self.check_handle(parameters)
                self.status()
                code, more = REMOTE_ANSWERS[opcode]
                self.event(code, bytes([SUCCESS]) + parameters[:4] + more)
            elif opcode in HANDLERS:
                handler, layout = HANDLERS[opcode]
                handler(self, *struct.unpack("<" + layout, parameters))
            else:
                raise HciError(UNKNOWN_COMMAND)
        except struct.error:
            self.status(INVALID_PARAMETERS)
        except HciError as error:
            self.status(error.args[0])

    def check_handle(self, parameters: bytes) -> None:
        self.find_end(*struct.unpack_from("<H", parameters))

    def find_end(self, handle: int) -> LinkEnd:
        if handle not in self.ends:
            raise HciError(UNKNOWN_CONNECTION)
        return self.ends[handle]

    def free_handle(self) -> int:
        """The next handle that is not in use: one just closed is not soon reused, for the host may still send on it."""
        self.last_handle = self.last_handle % MAX_HANDLE + 1
        return self.last_handle if self.last_handle not in self.ends else self.free_handle()

    # The air

    def hears(self, device: Device) -> bool:
        return device is not self and device.in_range and self.in_range

    def connection_complete(self, status: int, address: bytes, handle: int = 0) -> None:
        self.event(EV_CONNECTION_COMPLETE, struct.pack("<BH6sBB", status, handle, address, LINK_TYPE_ACL, 0))

    def start_page(self, address: bytes, for_name: bool) -> None:
        if (address, for_name) in self.pages:
            raise HciError(COMMAND_DISALLOWED)
        self.status()
        page = self.pages[address, for_name] = Page(self, address, for_name)
        self.radio.loop.call_later(PAGE_LATENCY, page.attempt)

    def cancel_page(self, address: bytes, for_name: bool) -> None:
        page = self.pages.get((address, for_name))
        self.complete(address, SUCCESS if page else UNKNOWN_CONNECTION)
        if page:
            page.finish(UNKNOWN_CONNECTION)

    def page_from(self, address: bytes) -> Page | None:
        """The page of the device with this address that waits for the answer of this controller's host, or None."""
        pager = self.radio.find(address)
        if not isinstance(pager, Controller) or not self.hears(pager):
            return None
        page = pager.pages.get((self.address, False))
        return page if page and page.asked is self else None

    def inquiry_result(self, device: Device) -> None:
        if self.hears(device) and device.scan & INQUIRY_SCAN:
            found = device.address + bytes([1, 0, 0]) + device.device_class + bytes(2)  # page scan R1, clock offset 0
            self.event(EV_INQUIRY_RESULT, b"\1" + found)

    def inquiry_over(self) -> None:
        self.stop_inquiry()
        self.event(EV_INQUIRY_COMPLETE, bytes([SUCCESS]))

    def stop_inquiry(self) -> None:
        for timer in self.inquiry_timers:
            timer.cancel()
        self.inquiry_timers = []

    # Handlers of commands

    def inquiry(self, _access_code: bytes, length: int, most: int) -> None:
        """Each device answers once, spread over the first half; the inquiry lasts to its end even if none is left."""
        if self.inquiry_timers:
            raise HciError(COMMAND_DISALLOWED)
        self.status()
        seconds = length * INQUIRY_UNIT
        devices = [each for each in self.radio.devices.values() if self.hears(each) and each.scan & INQUIRY_SCAN]
        devices = devices[: most or None]
        step = seconds / 2 / (len(devices) + 1)
        for i, device in enumerate(devices):
            self.inquiry_timers.append(self.radio.later(step * (i + 1), self.inquiry_result, device))
        self.inquiry_timers.append(self.radio.later(seconds, self.inquiry_over))

    def inquiry_cancel(self) -> None:
        self.stop_inquiry()
        self.complete()

    def create_connection(self, address: bytes, *_: int) -> None:
        if any(end.peer.device.address == address for end in self.ends.values()):
            raise HciError(ACL_ALREADY_EXISTS)
        self.start_page(address, for_name=False)

    def accept_connection(self, address: bytes, _role: int) -> None:
        page = self.page_from(address)
        if not page and self.end_towards(self.radio.find(address)):
            raise HciError(ACL_ALREADY_EXISTS)  # the two paged each other, and the other host was faster
        self.status()
        if not page:  # the pager gave up or is out of reach
            self.connection_complete(CONNECTION_TIMED_OUT, address)
            return
        page.cancel()
        link = Link(page.pager, self)
        self.connection_complete(SUCCESS, address, link.slave.handle)
        page.pager.connection_complete(SUCCESS, self.address, link.master.handle)
        if own_page := self.pages.get((address, False)):
            own_page.finish(ACL_ALREADY_EXISTS)

    def reject_connection(self, address: bytes, reason: int) -> None:
        self.status()
        if page := self.page_from(address):
            page.finish(reason)
        self.connection_complete(reason, address)

    def disconnect(self, handle: int, reason: int) -> None:
        end = self.find_end(handle)
        self.status()
        heard = end.link.carries()
        end.close(ENDED_BY_LOCAL_HOST)
        if heard:
            end.peer.close(reason)

    def role_discovery(self, handle: int) -> None:
        end = self.find_end(handle)
        self.complete(struct.pack("<HB", handle, 0 if end is end.link.master else 1))

    def hci_reset(self) -> None:
        self.reset()
        self.complete()

    def write_scan_enable(self, scan: int) -> None:
        self.scan = scan
        self.complete()
        self.radio.repeat_pages()

    def read_supervision_timeout(self, handle: int) -> None:
        self.complete(struct.pack("<HH", handle, self.find_end(handle).link.supervision_timeout))

    def write_supervision_timeout(self, handle: int, slots: int) -> None:
        self.find_end(handle).link.supervision_timeout = slots  # the link managers tell each other
        self.complete(struct.pack("<H", handle))

    def set_value(self, attribute: str, value: int | bytes) -> None:
        setattr(self, attribute, value)
        self.complete()


# Opcode -> handler and the layout of its parameters. Parameters of another length are refused before the handler.
HANDLERS: dict[int, tuple[Callable[..., object], str]] = {
    INQUIRY: (Controller.inquiry, "3sBB"),
    INQUIRY_CANCEL: (Controller.inquiry_cancel, ""),
    CREATE_CONNECTION: (Controller.create_connection, "6sHBBHB"),
    DISCONNECT: (Controller.disconnect, "HB"),
    CREATE_CONNECTION_CANCEL: (lambda self, address: self.cancel_page(address, for_name=False), "6s"),
    ACCEPT_CONNECTION: (Controller.accept_connection, "6sB"),
    REJECT_CONNECTION: (Controller.reject_connection, "6sB"),
    REMOTE_NAME_REQUEST: (lambda self, address, *_: self.start_page(address, for_name=True), "6sBBH"),
    REMOTE_NAME_REQUEST_CANCEL: (lambda self, address: self.cancel_page(address, for_name=True), "6s"),
    ROLE_DISCOVERY: (Controller.role_discovery, "H"),
    RESET: (Controller.hci_reset, ""),
    WRITE_LOCAL_NAME: (lambda self, name: self.set_value("name", name.split(b"\0")[0]), f"{NAME_SIZE}s"),
    READ_LOCAL_NAME: (lambda self: self.complete(self.padded_name()), ""),
    READ_ACCEPT_TIMEOUT: (lambda self: self.complete(struct.pack("<H", self.accept_timeout)), ""),
    WRITE_ACCEPT_TIMEOUT: (lambda self, slots: self.set_value("accept_timeout", slots), "H"),
    READ_PAGE_TIMEOUT: (lambda self: self.complete(struct.pack("<H", self.page_timeout)), ""),
    WRITE_PAGE_TIMEOUT: (lambda self, slots: self.set_value("page_timeout", slots), "H"),
    READ_SCAN_ENABLE: (lambda self: self.complete(bytes([self.scan])), ""),
    WRITE_SCAN_ENABLE: (Controller.write_scan_enable, "B"),
    READ_CLASS: (lambda self: self.complete(self.device_class), ""),
    WRITE_CLASS: (lambda self, value: self.set_value("device_class", value), "3s"),
    READ_SUPERVISION_TIMEOUT: (Controller.read_supervision_timeout, "H"),
    WRITE_SUPERVISION_TIMEOUT: (Controller.write_supervision_timeout, "HH"),
    READ_BD_ADDR: (lambda self: self.complete(self.address), ""),
}


class HostPort(asyncio.Protocol):
    """One connection of a host to a controller's socket: cuts the byte stream into H4 packets."""

    def __init__(self, controller: Controller, name: str) -> None:
        self.controller, self.name = controller, name
        self.buffer = bytearray()
        self.transport: asyncio.Transport

    def connection_made(self, transport: asyncio.BaseTransport) -> None:
        assert isinstance(transport, asyncio.Transport)
        self.transport = transport
        if self.controller.host:
            self.drop("it has a host already")
        else:
            self.controller.set_host(self)

    def connection_lost(self, _exception: Exception | None) -> None:
        if self.controller.host is self:
            self.controller.set_host(None)

    def pause_writing(self) -> None:
        self.controller.stall(True)

    def resume_writing(self) -> None:
        self.controller.stall(False)

    def drop(self, reason: str) -> None:
        print(f"radio.py: {self.name}: host dropped: {reason}", file=sys.stderr, flush=True)
        self.transport.abort()

    def data_received(self, data: bytes) -> None:
        self.buffer += data
        start = 0
        while start < len(self.buffer):
            header = H4_HEADERS.get(self.buffer[start])
            if not header:
                self.drop(f"unknown H4 packet type 0x{self.buffer[start]:02x}")
                break
            if len(self.buffer) < start + header.size:
                break
            field, length = header.unpack_from(self.buffer, start)
            end = start + header.size + length
            if len(self.buffer) < end:
                break
            packet, payload = bytes(self.buffer[start:end]), bytes(self.buffer[start + header.size : end])
            if self.controller.trace:
                self.controller.trace.write(packet, to_host=False)
            self.controller.receive(packet[0], field, payload)
            start = end
        del self.buffer[:start]

    def send(self, packet: bytes) -> None:
        if self.controller.trace:
            self.controller.trace.write(packet, to_host=True)
        self.transport.write(packet)


SomeDevice = TypeVar("SomeDevice", bound=Device)


class Radio:
    """All devices that are on the air, and the commands that move them about."""

    def __init__(self, loop: asyncio.AbstractEventLoop, speed: float) -> None:
        self.loop, self.speed = loop, speed
        self.devices: dict[str, Device] = {}  # by name

    def later(self, seconds: float, function: Callable[..., None], *arguments: Any) -> asyncio.TimerHandle:
        return self.loop.call_later(seconds / self.speed, function, *arguments)

    def find(self, address: bytes) -> Device | None:
        return next((device for device in self.devices.values() if device.address == address), None)

    def repeat_pages(self) -> None:
        """Pages go on all the time until their time-out; this makes the one that a change of the air lets through."""
        for device in self.devices.values():
            for page in list(device.pages.values()) if isinstance(device, Controller) else ():
                page.attempt()

    def add(self, kind: type[SomeDevice], name: str, address: str) -> SomeDevice:
        if name in self.devices:
            raise Refusal(f"there is a {name} already")
        if not re.fullmatch("([0-9A-Fa-f]{2}:){5}[0-9A-Fa-f]{2}", address):
            raise Refusal(f"{address} is no address")
        bytes_of_address = bytes.fromhex(address.replace(":", ""))[::-1]
        if self.find(bytes_of_address):
            raise Refusal(f"two devices with the address of {name}")
        device = self.devices[name] = kind(self, name, bytes_of_address)
        return device

    def command(self, line: bytes) -> None:
        """Does what a line on stdin says, and answers it."""
        try:
            word, *arguments = shlex.split(line.decode(errors="replace")) or [""]
            action, count = RADIO_COMMANDS.get(word, (None, 0))
            if not action:
                raise Refusal(f"unknown command '{word}'")
            if len(arguments) != count:
                raise Refusal(f"{word} takes {count} argument{'s' if count > 1 else ''}")
            action(self, *arguments)
            self.repeat_pages()
            say("ok")
        except (Refusal, ValueError) as refusal:  # a quote without its end
            say(f"error: {refusal}")

    def device(self, name: str) -> Device:
        if name not in self.devices:
            raise Refusal(f"there is no {name}")
        return self.devices[name]

    def move(self, name: str, in_range: bool) -> None:
        device = self.device(name)
        device.in_range = in_range
        for end in list(device.ends.values()):
            end.supervise()
            end.peer.supervise()

    def trace(self, folder: str) -> None:
        for name, device in self.devices.items():
            try:
                if isinstance(device, Controller):
                    device.trace = Trace(os.path.join(folder, name + ".pcapng"), name)
            except OSError as error:
                raise Refusal(f"{error.filename}: {error.strerror}") from error

    def slow(self, name: str, rate: str) -> None:
        if not re.fullmatch("[0-9]{1,9}", rate):
            raise Refusal(f"{rate} is no number of bytes a second")
        device = self.device(name)
        device.rate = int(rate)
        for end in list(device.ends.values()):
            end.change_rate()
            end.peer.change_rate()


# Word on stdin -> action and the number of its arguments
RADIO_COMMANDS: dict[str, tuple[Callable[..., object], int]] = {
    "out": (lambda radio, name: radio.move(name, False), 1),
    "back": (lambda radio, name: radio.move(name, True), 1),
    "device": (lambda radio, name, address: radio.add(Device, name, address), 2),
    "nameless": (lambda radio, name: setattr(radio.device(name), "tells_name", False), 1),
    "named": (lambda radio, name: setattr(radio.device(name), "tells_name", True), 1),
    "refuse": (lambda radio, name: setattr(radio.device(name), "refuses", True), 1),
    "accept": (lambda radio, name: setattr(radio.device(name), "refuses", False), 1),
    "slow": (Radio.slow, 2),
    "trace": (Radio.trace, 1),
}


def say(text: str) -> None:
    with contextlib.suppress(BrokenPipeError):  # who does not listen any more closes stdin soon
        os.write(1, text.encode() + b"\n")


def read_commands(loop: asyncio.AbstractEventLoop, radio: Radio, stop: asyncio.Event) -> None:
    """Runs in a thread of its own, since stdin may be anything: a pipe, a terminal, a file."""
    with contextlib.suppress(RuntimeError, OSError):  # the loop has ended meanwhile; no stdin at all
        for line in io.FileIO(0, closefd=False):  # unbuffered: holds no lock that the end of the program would need
            loop.call_soon_threadsafe(radio.command, line)
    with contextlib.suppress(RuntimeError):
        loop.call_soon_threadsafe(stop.set)


async def listen(
    radio: Radio, loop: asyncio.AbstractEventLoop, controllers: list[str], folder: str, sockets: list[str]
) -> None:
    """Puts the controllers on the air; appends the paths of their sockets to sockets."""
    for argument in controllers:
        name, separator, address = argument.partition("=")
        if not separator or not re.fullmatch(r"[\w.-]*\w", name):
            raise Refusal(f"{argument} is not NAME=ADDRESS")
        controller = radio.add(Controller, name, address)
        path = os.path.join(folder, name)
        try:
            await loop.create_unix_server(functools.partial(HostPort, controller, name), path)
        except OSError as error:
            raise Refusal(f"{error.filename or path}: {error.strerror or error}") from error
        sockets.append(path)


async def run(arguments: argparse.Namespace) -> None:
    loop = asyncio.get_running_loop()
    stop = asyncio.Event()
    for number in signal.SIGTERM, signal.SIGINT:
        loop.add_signal_handler(number, stop.set)
    radio = Radio(loop, arguments.speed)
    sockets: list[str] = []
    try:
        await listen(radio, loop, arguments.controllers, arguments.folder, sockets)
        say("ready")
        threading.Thread(target=read_commands, args=(loop, radio, stop), daemon=True).start()
        await stop.wait()
    finally:
        for path in sockets:
            with contextlib.suppress(FileNotFoundError):  # its folder may be gone
                os.unlink(path)


class Parser(argparse.ArgumentParser):
    """Says what is wrong in one line, without the usage."""

    def error(self, message: str) -> NoReturn:
        self.exit(2, f"radio.py: {message}\n")


def main() -> None:
    parser = Parser(description="The radio of the lab: emulated Bluetooth controllers that reach each other.")
    parser.add_argument("--speed", metavar="N", type=float, default=1, help="divide all times of the radio by N")
    parser.add_argument("folder", metavar="DIR", help="where the sockets DIR/NAME are made")
    parser.add_argument("controllers", metavar="NAME=ADDRESS", nargs="+")
    arguments = parser.parse_args()
    if not 0 < arguments.speed < float("inf"):
        parser.error("--speed is a number above 0")
    try:
        asyncio.run(run(arguments))
    except Refusal as refusal:
        parser.error(str(refusal))


if __name__ == "__main__":
    main()
