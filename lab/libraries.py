"""The shared libraries of this machine that a program needs and a brick has not."""

import os
import re
from collections.abc import Iterable, Iterator
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


def python_module(arch: Arch, folders: Iterable[Path] = ()) -> dict[str, Path]:
    """The module tav_bluetooth for this processor, if there is one: in these folders, or where programs here find it."""
    names = [*filter(None, os.environ.get("PYTHONPATH", "").split(":")), "/usr/lib/python3/dist-packages"]
    built = [LAB.parent / "build" / preset / "python" for preset in ("release", "dev", arch.name)]
    for folder in [*folders, *built, *map(Path, names)]:
        for file in (folder / "tav_bluetooth").glob("__init__.*.so"):
            if elf_machine(file) == arch.elf_machine:
                return {f"tav_bluetooth/{file.name}": file}
    return {}


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
