#!/usr/bin/env python3
"""What is not prose in a document. docs/blocks.py DOCUMENT LANGUAGE N prints the N-th block of a language."""

import re
import sys
from collections.abc import Iterator
from pathlib import Path
from typing import NamedTuple

FENCED = r"^```(?P<language>[^\n]*)\n(?P<fenced>.*?)^```$"
INDENTED = r"(?:^    [^\n]*\n|(?<=\n)\n(?=    ))+"


class Block(NamedTuple):
    language: str | None  # None: indented, for a shell
    text: str
    before: str  # the paragraph that leads to it


def blocks(document: str) -> Iterator[Block]:
    for found in re.finditer(f"{FENCED}|{INDENTED}", document, re.M | re.S):
        before = document[: found.start()].rstrip().rpartition("\n\n")[2]
        if found["language"] is not None:
            yield Block(found["language"], found["fenced"], before)
        elif found[0].strip():
            yield Block(None, re.sub("^    ", "", found[0].lstrip("\n"), flags=re.M), before)


def main() -> None:
    document, language, number = sys.argv[1:]
    found = [block.text for block in blocks(Path(document).read_text()) if block.language == language]
    sys.stdout.write(found[int(number) - 1])


if __name__ == "__main__":
    main()
