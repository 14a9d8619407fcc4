"""Debian packages, downloaded and unpacked: nothing is installed.

apt works in a folder of the lab's own, with this machine's package sources, so that neither root nor a foreign
architecture in the system is needed.
"""

import re
import shutil
from collections.abc import Iterable
from pathlib import Path

from machine import attempt, failure, run, step
from tav_air.process import Problem

UNREACHED = re.compile("Failed to fetch|Could not resolve|Temporary failure|Could not connect|Unable to connect")
MERGED = ["bin", "sbin", "lib", "lib64"]  # links to folders of the same name below usr/, whatever a package thinks


class Packages:
    """The package source of one architecture."""

    def __init__(self, architecture: str, folder: Path) -> None:
        self.architecture = architecture
        self.folder = folder / architecture
        self.files = self.folder / "packages"
        self.scratch = self.folder / "scratch"  # what an interrupted run left here, the next one removes
        state = self.folder / "apt"
        shutil.rmtree(self.scratch, ignore_errors=True)
        for needed in self.scratch, self.files, state / "lists" / "partial", state / "cache" / "archives" / "partial":
            needed.mkdir(parents=True, exist_ok=True)
        (state / "status").touch()
        options = {
            "APT::Architecture": architecture,
            "APT::Architectures": architecture,
            "APT::Sandbox::User": "",
            "Acquire::Languages": "none",
            "Acquire::Retries": 3,
            "Dir::State": state,
            "Dir::State::status": state / "status",
            "Dir::Cache": state / "cache",
        }
        self.options = ["-q", *(word for name, value in options.items() for word in ("-o", f"{name}={value}"))]
        self.update_said: str | None = None

    def apt(self, program: str, *words: str, cwd: Path | None = None) -> list[str]:
        """The lines that apt says."""
        command = program, *self.options, *words
        status, said = attempt(*command, cwd=cwd, scratch=self.scratch)
        if not status:
            return said.splitlines()
        if UNREACHED.search(f"{self.update_said}\n{said}"):
            raise Problem(
                "the network is missing: this machine's package sources cannot be reached. The first run downloads\n"
                f"Debian packages to build the image of; later ones need no network. apt says:\n{last_line(said)}"
            )
        if "Unable to locate package" in said or "no installation candidate" in said:
            raise Problem(f"this machine's package sources do not offer all for {self.architecture}: {last_line(said)}")
        raise failure((program, *words), said)

    def update(self) -> None:
        if self.update_said is None:  # a source may be out of order; what is missing then, the next command tells
            with step(f"Looking what packages there are for {self.architecture}"):
                self.update_said = attempt("apt-get", *self.options, "update", scratch=self.scratch)[1]

    def with_dependencies(self, names: list[str]) -> list[str]:
        """These packages and all that they need; what was found is written down, so that it needs no network again."""
        note = self.folder / f"needed-by-{names[-1]}"
        if note.exists():
            wanted, *needed = note.read_text().splitlines()
            if wanted == " ".join(names):
                return needed
        self.update()
        lines = self.apt("apt-get", "install", "--simulate", "--no-install-recommends", *names)
        needed = [line.split(" ")[1] for line in lines if line.startswith("Inst ")]
        note.write_text("\n".join([" ".join(names), *needed]) + "\n")
        return needed

    def downloaded(self) -> dict[str, Path]:
        """Names of the packages that are there, and their files."""
        return {file.name.split("_")[0]: file for file in sorted(self.files.glob("*.deb"))}

    def fetch(self, names: list[str]) -> list[Path]:
        """Downloads what is not there yet; the files. What an interrupted download left is not taken."""
        missing = [name for name in names if name not in self.downloaded()]
        if missing:
            self.update()
            coming = self.files / "coming"
            shutil.rmtree(coming, ignore_errors=True)
            coming.mkdir()
            what = missing[0] if len(missing) == 1 else f"{len(missing)} packages"
            with step(f"Downloading {what} for {self.architecture}"):
                self.apt("apt-get", "download", *missing, cwd=coming)
            for file in coming.glob("*.deb"):
                file.rename(self.files / file.name)
        downloaded = self.downloaded()
        return [downloaded[name] for name in names]

    def search(self, pattern: str) -> list[str]:
        self.update()
        return [line.split(" ")[0] for line in self.apt("apt-cache", "search", "--names-only", pattern)]


def last_line(text: str) -> str:
    return text.rstrip().rpartition("\n")[2]


def unpack(files: Iterable[Path], root: Path) -> Path:
    """Unpacks packages into a new folder with merged /usr."""
    shutil.rmtree(root, ignore_errors=True)
    scratch = root / "tmp"
    for name in MERGED:
        (root / "usr" / name).mkdir(parents=True)
        (root / name).symlink_to(f"usr/{name}")
    scratch.mkdir()
    script = 'dpkg-deb --fsys-tarfile "$1" | tar -x --keep-directory-symlink -C "$2"'
    for file in files:
        run("sh", "-c", script, "unpack", file, root, scratch=scratch)
    return root
