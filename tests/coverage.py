"""The table of scripts/coverage, from `llvm-cov export` on stdin: lines and branches by folder. Of the folders that are
named as arguments, and of those below their goal, also the branches that no test takes."""

import json
import sys
from collections import defaultdict
from pathlib import Path
from typing import Any

ROOT = Path(__file__).resolve().parent.parent
GOALS = {"bluetooth": 100.0, "host": 90.0, "sim": 85.0, "tools": 90.0}  # % of the branches that can be taken

# Branches that cannot: file, outcome and line, and why.
UNREACHABLE = {
    ("bluetooth/connections.cpp", "true", "if (bluetooth.m_ServerSocket < 0) return nullptr;"): (
        "the server was opened just before; only another thread could have closed it"
    ),
    ("bluetooth/connections.cpp", "true", "if (!FD_ISSET(serverSocket, &readable)) {"): (
        "select tells of the one descriptor that it was asked for"
    ),
    ("bluetooth/discovery.cpp", "true", "if (sdp_get_access_protos(record, &protocols) != 0 || !protocols) return;"): (
        "where libbluetooth succeeds, it gives a list, also of an empty sequence"
    ),
}


class Folder:
    def __init__(self) -> None:
        self.lines = self.lines_run = self.branches = self.branches_taken = 0
        self.missed: list[str] = []

    def share(self) -> float:
        return 100 * self.branches_taken / max(self.branches, 1)


def sources(export: dict[str, Any]) -> list[tuple[str, dict[str, Any]]]:
    files = [(Path(file["filename"]).resolve(), file) for file in export["data"][0]["files"]]
    ours = [(path.relative_to(ROOT), file) for path, file in files if path.is_relative_to(ROOT)]
    return [(str(path), file) for path, file in ours if path.parts[0] != "build"]


def count_branches(name: str, file: dict[str, Any], folder: Folder) -> None:
    """A condition counts twice, for true and false; of a template, all instances are one."""
    taken: dict[tuple[int, int], list[int]] = defaultdict(lambda: [0, 0])
    for line, column, _, _, true, false, *_ in file["branches"]:
        taken[line, column][0] += true
        taken[line, column][1] += false
    source = (ROOT / name).read_text().splitlines()
    for (line, column), counts in sorted(taken.items()):
        text = source[line - 1].strip()
        for outcome, count in zip(("true", "false"), counts):
            if not count and (name, outcome, text) in UNREACHABLE:
                continue
            folder.branches += 1
            folder.branches_taken += count > 0
            if not count:
                folder.missed.append(f"{name}:{line}:{column}: never {outcome}: {text}")


def main() -> int:
    folders: dict[str, Folder] = defaultdict(Folder)
    for name, file in sources(json.load(sys.stdin)):
        folder = folders[Path(name).parts[0]]
        folder.lines += file["summary"]["lines"]["count"]
        folder.lines_run += file["summary"]["lines"]["covered"]
        count_branches(name, file, folder)
    below = [name for name, goal in GOALS.items() if folders[name].share() < goal]
    for name in sorted({*below, *sys.argv[1:]}):
        print("\n".join(folders[name].missed))
    print(f"{'folder':<12}{'lines':>8}{'run':>8}{'branches':>10}{'taken':>8}{'goal':>8}")
    for name, folder in sorted(folders.items()):
        goal = f"{GOALS[name]:6.0f} %" if name in GOALS else ""
        run = 100 * folder.lines_run / max(folder.lines, 1)
        print(f"{name:<12}{folder.lines:8}{run:6.1f} %{folder.branches:10}{folder.share():6.1f} %{goal}")
    for (name, outcome, text), why in UNREACHABLE.items():
        print(f"not counted: {name}, never {outcome}: {text} ({why})")
    if below:
        print(f"below the goal: {', '.join(below)}")
    return 1 if below else 0


sys.exit(main())
