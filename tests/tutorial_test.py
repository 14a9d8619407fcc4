"""The tutorial as a newcomer goes through it: each command as it stands there, with what it says. TAV_BUILD names the
build folder, of which all is installed."""

import os
import re
import subprocess
from pathlib import Path

from blocks import Block, blocks

ROOT = Path(__file__).resolve().parent.parent
BUILD = Path(os.environ["TAV_BUILD"]).resolve()
TUTORIAL = list(blocks((ROOT / "docs/tutorial.md").read_text()))
PROGRAMS = ROOT / "examples/tutorial", ROOT / "examples/python"


def install(folder: Path) -> dict[str, str]:
    """Variables for what Debian's folders need none for."""
    subprocess.run(["cmake", "--install", BUILD, "--prefix", folder], stdout=subprocess.DEVNULL, check=True)
    (pkg_config,) = folder.glob("lib/**/pkgconfig")
    variables = {
        "PATH": f"{folder}/bin:{os.environ['PATH']}",
        "PKG_CONFIG_PATH": str(pkg_config),
        "LD_LIBRARY_PATH": str(pkg_config.parent),
        "PYTHONPATH": f"{folder}/lib/python3/dist-packages",
    }
    return {**os.environ, **variables}


def told(output: str) -> list[str]:
    """Lines, those of each brick in their order: bricks run at the same time. Times differ."""
    lines = re.sub(r"in \d+\.\d\ds", "in a while", output).splitlines()
    return sorted(lines, key=lambda line: line.partition(" | ")[0] if " | " in line else "")


def test_commands(tmp_path: Path) -> None:
    environment = install(tmp_path / "usr") | {"HOME": str(tmp_path)}
    folder, output = ROOT, ""
    compared = 0
    for block in TUTORIAL:
        if block.language == "text":
            assert told(output) == told(block.text)
            compared += 1
        elif block.language is None and not block.text.startswith("scripts/package\n"):
            ran = subprocess.run(
                ["bash", "-ec", f'{block.text}\npwd >"{tmp_path}/folder"'],
                cwd=folder,
                env=environment,
                stdin=subprocess.DEVNULL,
                stdout=subprocess.PIPE,
                stderr=subprocess.STDOUT,
                text=True,
                timeout=120,
            )
            output = ran.stdout
            assert ran.returncode == 0, f"{block.text}{output}"
            folder = Path((tmp_path / "folder").read_text().rstrip("\n"))
    assert compared >= 7


def file_of(block: Block, before: str) -> str:
    names = re.findall(r"`(\w+\.\w+)`", block.before)
    return names[0] if names else before


def test_excerpts() -> None:
    """What the document shows of programs is what they are."""
    name = ""
    shown = set()
    for block in TUTORIAL:
        if block.language in ("cpp", "python"):
            name = file_of(block, name)
            (file,) = [folder / name for folder in PROGRAMS if (folder / name).exists()]
            assert block.text in file.read_text(), f"this is not in {file}:\n{block.text}"
            shown.add(file)
    assert shown >= {file for file in PROGRAMS[0].iterdir() if file.suffix}
    readme = [block.text for block in blocks((ROOT / "README.md").read_text()) if block.language == "cpp"]
    assert readme == [(PROGRAMS[0] / "hello.cpp").read_text()]
