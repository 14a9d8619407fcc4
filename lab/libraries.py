"""The shared libraries of this machine that a program needs and a brick has not."""

import os
import re
from collections.abc import Iterator
from pathlib import Path

from image import Arch
from machine import LAB, run
from tav_air.process import Problem


def elf_machine(file: Path) -> int:
    """The processor that a program or library is built for; 0: it is neither."""
    with open(file, "rb") as content:
        start = content.read(20)
    return int.from_bytes(start[18:20], "little") if start.startswith(b"\x7fELF") else 0


def system_folders(arch: Arch) -> list[Path]:
    """Where libraries for this processor are installed, the cross compiler's and a checkout's own included."""
    names = [
        "/usr/local/lib",
        "/usr/lib",
        f"/usr/{arch.triplet}/lib",
        f"{LAB.parent}/build/{arch.name}-sysroot/usr/lib",
    ]
    return [folder for name in names for folder in (Path(name) / arch.triplet, Path(name))]


def search_folders(said: str, origin: Path) -> Iterator[Path]:
    """Where a file that lies in `origin` wants its libraries to be looked for; readelf said so."""
    for path in re.findall(r"\((?:RPATH|RUNPATH)\).*\[(.*)\]", said):
        yield from (Path(re.sub(r"\$ORIGIN|\$\{ORIGIN\}", str(origin), folder)) for folder in path.split(":"))
    yield from map(Path, filter(None, os.environ.get("LD_LIBRARY_PATH", "").split(":")))


def add_libraries(files: dict[str, Path], present: set[str], arch: Arch, more: list[Path]) -> None:
    """Adds to files, by name, the libraries that they need and that are not present; `more` are folders to look in."""
    waiting = [file for file in files.values() if elf_machine(file)]
    while waiting:
        file = waiting.pop()
        said = run("readelf", "-d", file)
        for name in re.findall(r"\(NEEDED\).*\[(.*)\]", said):
            if name in present or name in files:
                continue
            for folder in *search_folders(said, file.resolve().parent), *more, *system_folders(arch):
                if (folder / name).is_file() and elf_machine(folder / name) == arch.elf_machine:
                    files[name] = folder / name
                    waiting.append(folder / name)
                    break
            else:
                raise Problem(
                    f"{file} needs {name}, which neither a brick has nor this machine for {arch.name}; "
                    "--libraries names a folder with it"
                )
