"""What bricks are known by: names, addresses, and what files and commands call them."""

import re

LONGEST_NAME = 248  # bytes


def get_address(name: str, position: int) -> str:
    """Robot2 gets an address that ends in 02; one without a number gets that of its position, from 80 on."""
    number = re.search(r"(?<!\d)\d{1,2}$", name)
    return f"02:00:00:00:00:{int(number[0]) if number else 0x80 + position:02X}"


def get_id(name: str) -> str:
    """The name as files, paths of sockets and the radio's commands can bear it."""
    return re.sub(r"[^A-Za-z0-9_]", "_", name)[:40]
