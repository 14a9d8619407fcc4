"""The guest image of the lab's bricks: kernel and programs from the Debian packages of this machine's release.

The image is a kernel and three cpio archives, of which a brick gets what it needs; the kernel unpacks archives that
stand one after the other:

    base    busybox, the tools of bluez, libbluetooth, libstdc++, the kernel's Bluetooth modules, what is in lab/guest
    sdp     dbus-daemon and bluetoothd
    python  Python and PyBluez
"""

import fcntl
import hashlib
import lzma
import re
import shutil
import struct
import subprocess
from collections.abc import Callable, Iterator
from dataclasses import dataclass
from pathlib import Path

from machine import LAB, cache, release, run, search_path, step
from packages import Packages, unpack
from tav_air.process import Problem, die_with_parent, say

DISK_SPACE_MB = 1000  # for packages and images of one architecture


@dataclass
class Arch:
    """What differs between the processors that the lab runs."""

    name: str  # Debian's port that the programs come from
    triplet: str  # of its compiler and folders of libraries
    kernel_arch: str  # Debian's port that the kernel comes from
    kernel_flavour: str
    bus: str  # module that finds virtio devices
    qemu: list[str]  # command
    qemu_package: str
    console: str
    serial: str  # virtio device that carries the ports
    elf_machine: int  # of its programs


ARCHS = {
    "amd64": Arch(
        name="amd64",
        triplet="x86_64-linux-gnu",
        kernel_arch="amd64",
        kernel_flavour="amd64",
        bus="virtio_pci",
        qemu=["qemu-system-x86_64", "-accel", "tcg"],
        qemu_package="qemu-system-x86",
        console="ttyS0",
        serial="virtio-serial-pci",
        elf_machine=62,
    ),
    # Debian's armel kernels run on no machine that QEMU has: armel programs on the kernel of armhf.
    "armel": Arch(
        name="armel",
        triplet="arm-linux-gnueabi",
        kernel_arch="armhf",
        kernel_flavour="armmp",
        bus="virtio_mmio",
        qemu=["qemu-system-arm", "-M", "virt", "-cpu", "cortex-a15"],
        qemu_package="qemu-system-arm",
        console="ttyAMA0",
        serial="virtio-serial-device",
        elf_machine=40,
    ),
}

# Kernels that were seen to work, by release. Not 6.1.0-56 (6.1.192): there a connect that fails by page time-out ends
# the kernel's RFCOMM thread. A kernel is taken only when the self-test passes in it.
SEEN_KERNELS = {"bookworm": ["6.1.0-50"], "trixie": ["6.12.107+deb13"]}

# What the bricks run; what that needs, the packages themselves know.
PACKAGES = ["busybox-static", "bluez", "libbluetooth3", "libstdc++6", "dbus-daemon", "python3-bluez"]
BASE_PROGRAMS = ["hciconfig", "hcitool", "btattach", "rctest", "l2ping", "sdptool"]
BASE_LIBRARIES = ["libbluetooth.so.3", "libstdc++.so.6", "libgcc_s.so.1"]  # for the users' programs
SDP_PROGRAMS = ["dbus-daemon", "bluetoothd"]
SDP_FOLDERS = ["etc/dbus-1", "etc/bluetooth", "usr/share/dbus-1"]
MODULES = ["ecb", "cmac", "{bus}", "virtio_console", "bluetooth", "rfcomm", "hci_uart"]

PASSWD = "root:x:0:0:root:/:/bin/sh\nmessagebus:x:101:101::/:/bin/sh\n"
GROUP = "root:x:0:\nmessagebus:x:101:\nbluetooth:x:102:\nlp:x:7:\nnetdev:x:103:\n"

GUEST = LAB / "guest"  # scripts that run in a brick
SOURCES = ["image.py", "packages.py"]  # what an image depends on, beside them

TOOLS = {
    "apt-get": "apt",
    "cpio": "cpio",
    "dpkg-deb": "dpkg",
    "modinfo": "kmod",
    "readelf": "binutils",
    "tar": "tar",
    "zstd": "zstd",
}


def missing_packages(arch: Arch) -> list[str]:
    """Debian packages that the lab needs on this machine and does not find."""
    needed = {**TOOLS, arch.qemu[0]: arch.qemu_package}
    return [package for tool, package in needed.items() if not shutil.which(tool, path=search_path())]


def needed_libraries(file: Path) -> list[str]:
    return re.findall(r"NEEDED.*\[(.*)\]", run("readelf", "-d", file))


class Source:
    """The tree that the packages were unpacked to, with merged /usr."""

    def __init__(self, root: Path) -> None:
        self.root = root
        self.programs = self.index("usr/bin", "usr/sbin", "usr/libexec")
        self.libraries = self.index("usr/lib", "usr/lib64")

    def index(self, *folders: str) -> dict[str, Path]:
        return {path.name: path for folder in folders for path in (self.root / folder).rglob("*") if path.is_file()}

    def find(self, known: dict[str, Path], name: str) -> Path:
        if name not in known:
            raise Problem(f"no package of the image holds {name}")
        return known[name]


class Archive:
    """A tree of files for the guest."""

    def __init__(self, folder: Path) -> None:
        self.folder = folder
        shutil.rmtree(folder, ignore_errors=True)
        folder.mkdir(parents=True)

    def path(self, name: str | Path) -> Path:
        path = self.folder / name
        path.parent.mkdir(parents=True, exist_ok=True)
        return path

    def write(self, name: str, text: str) -> None:
        self.path(name).write_text(text)

    def pack(self, file: Path) -> None:
        names = [str(path.relative_to(self.folder)) for path in sorted(self.folder.rglob("*"))]
        options = ["-H", "newc", "--quiet", "-R", "0:0", "-F", str(file)]
        run("cpio", "-o", *options, text="\n".join(names), cwd=self.folder)


class Part(Archive):
    """One archive of the image: files of the source, and the libraries that they need."""

    def __init__(self, source: Source, folder: Path, below: "Part | None" = None) -> None:
        super().__init__(folder)
        self.source = source
        self.below = below  # the archive that this one is unpacked over

    def add_program(self, name: str) -> None:
        file = self.source.find(self.source.programs, name)
        shutil.copy2(file, self.path(file.relative_to(self.source.root)))
        self.add_libraries_of(file)

    def add_tree(self, name: str, *unwanted: str) -> None:
        ignore = shutil.ignore_patterns(*unwanted)
        shutil.copytree(self.source.root / name, self.path(name), symlinks=True, dirs_exist_ok=True, ignore=ignore)

    def libraries(self) -> set[str]:
        own = {file.name for file in self.folder.glob("usr/lib/*.so*")}
        return own | self.below.libraries() if self.below else own

    def add_library(self, name: str) -> None:
        if name not in self.libraries():
            file = self.source.find(self.source.libraries, name)
            shutil.copy2(file.resolve(), self.path(f"usr/lib/{name}"))
            self.add_libraries_of(file)

    def add_libraries_of(self, file: Path) -> None:
        for name in needed_libraries(file):
            self.add_library(name)


def build_base(source: Source, folder: Path) -> Part:
    base = Part(source, folder)
    for place in "dev", "proc", "sys", "tmp", "run", "etc", "usr/bin", "usr/lib", "var/lib/bluetooth", "brick":
        base.path(place).mkdir(parents=True, exist_ok=True)
    for name, target in ("bin", "usr/bin"), ("lib", "usr/lib"), ("lib64", "usr/lib"), ("var/run", "/run"):
        base.path(name).symlink_to(target)
    base.add_program("busybox")
    base.path("usr/bin/sh").symlink_to("busybox")
    for program in BASE_PROGRAMS:
        base.add_program(program)
    for library in BASE_LIBRARIES:
        base.add_library(library)
    base.write("etc/passwd", PASSWD)
    base.write("etc/group", GROUP)
    for script in GUEST.iterdir():
        shutil.copy2(script, base.path(script.name))
        base.path(script.name).chmod(0o755)
    return base


def build_sdp(source: Source, folder: Path, base: Part) -> Part:
    sdp = Part(source, folder, base)
    for program in SDP_PROGRAMS:
        sdp.add_program(program)
    for place in SDP_FOLDERS:
        sdp.add_tree(place)
    return sdp


def build_python(source: Source, folder: Path, base: Part) -> Part:
    python = Part(source, folder, base)
    link = source.root / "usr/bin/python3"
    version = link.readlink().name
    python.add_program(version)
    python.path(f"usr/bin/{link.name}").symlink_to(version)
    python.add_tree(f"usr/lib/{version}", "test", "idlelib", "pydoc_data", "ensurepip", "lib2to3", "tkinter")
    python.add_tree("usr/lib/python3/dist-packages/bluetooth")
    for module in python.folder.rglob("_bluetooth*.so"):
        python.add_libraries_of(module)
    return python


def decompressed(content: bytes) -> bytes:
    """What a stream of xz or zstd holds."""
    if content.startswith(b"\xfd7zXZ\0"):
        return lzma.LZMADecompressor(lzma.FORMAT_XZ).decompress(content)
    if content.startswith(b"\x28\xb5\x2f\xfd"):
        command = ["zstd", "-dcq"]
        done = subprocess.run(command, input=content, stdout=subprocess.PIPE, preexec_fn=die_with_parent)
        if done.returncode:
            raise Problem("zstd cannot unpack it")
        return done.stdout
    return content


def add_modules(base: Part, kernel: Path, bus: str) -> None:
    """Copies the kernel's Bluetooth modules, and writes down the order in which they are loaded."""
    found = {file.name.split(".")[0].replace("-", "_"): file for file in (kernel / "lib/modules").rglob("*.ko*")}
    order: list[str] = []

    def add(name: str) -> None:
        file = found.get(name)  # else it is built in
        if not file or name in order:
            return
        for needed in filter(None, run("modinfo", "-F", "depends", file).strip().split(",")):
            add(needed.replace("-", "_"))
        base.path(f"modules/{name}.ko").write_bytes(decompressed(file.read_bytes()))
        order.append(name)

    for name in MODULES:
        add(name.format(bus=bus))
    base.write("modules/order", "\n".join(order) + "\n")


def unpacked_kernel(arch: Arch, file: Path) -> bytes:
    """The kernel as QEMU boots it fastest: unpacking it under emulation costs 5 s a boot."""
    content = file.read_bytes()
    if arch.name != "amd64":
        return content
    # Linux' boot protocol: after the boot sectors, so many bytes in, lies the compressed kernel, and its size behind it.
    boot_sectors = content[0x1F1] or 4
    offset, length = struct.unpack_from("<II", content, 0x248)
    start = (boot_sectors + 1) * 512 + offset
    kernel = decompressed(content[start : start + length - 4])
    if not kernel.startswith(b"\x7fELF"):
        raise Problem("it is compressed by neither xz nor zstd")
    return kernel


class Image:
    """What bricks of one architecture boot. ensure() makes it when it is missing or its inputs have changed."""

    def __init__(self, arch_name: str) -> None:
        self.arch = ARCHS[arch_name]
        self.release = release()
        self.folder = cache() / self.release / arch_name
        self.kernel = self.folder / "kernel"
        self.stamp = self.folder / "built"  # hash of the inputs, kernel's package, libraries that every brick has

    def archives(self, sdp: bool, python: bool) -> list[Path]:
        names = ["base"] + ["sdp"] * sdp + ["python"] * python
        return [self.folder / f"{name}.cpio" for name in names]

    def inputs(self) -> str:
        inputs = hashlib.sha256()
        for source in *(LAB / name for name in SOURCES), *sorted(GUEST.iterdir()):
            inputs.update(source.read_bytes())
        return inputs.hexdigest()

    def is_current(self) -> bool:
        parts = self.stamp, self.kernel, *self.archives(sdp=True, python=True)
        return all(part.exists() for part in parts) and self.stamp.read_text().split("\n")[0] == self.inputs()

    def kernel_package(self) -> str:
        return self.stamp.read_text().split("\n")[1]

    def libraries(self) -> set[str]:
        return set(self.stamp.read_text().split("\n")[2].split())

    def ensure(self, self_test: Callable[[], bool]) -> None:
        """Builds the image. self_test() boots it and tells whether failed connects leave the kernel's RFCOMM alive."""
        if self.is_current():
            return
        self.folder.mkdir(parents=True, exist_ok=True)
        with open(self.folder / "lock", "w") as lock:
            try:
                fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
            except BlockingIOError:
                with step(f"Waiting for another run that builds the {self.arch.name} image"):
                    fcntl.flock(lock, fcntl.LOCK_EX)
            if not self.is_current():
                self.build(self_test)

    def build(self, self_test: Callable[[], bool]) -> None:
        free = shutil.disk_usage(self.folder).free // 1_000_000
        if free < DISK_SPACE_MB:
            raise Problem(f"{self.folder} has {free} MB free; to build the image takes {DISK_SPACE_MB} MB")
        self.stamp.unlink(missing_ok=True)
        say(f"The {self.arch.name} image is built, once, from packages of {self.release}.")
        programs = Packages(self.arch.name, self.folder)
        files = programs.fetch(programs.with_dependencies(PACKAGES))
        with step("Unpacking"):
            source = Source(unpack(files, self.folder / "unpacked"))
        with step("Packing"):
            base = build_base(source, self.folder / "base")
            build_sdp(source, self.folder / "sdp", base).pack(self.folder / "sdp.cpio")
            build_python(source, self.folder / "python", base).pack(self.folder / "python.cpio")
        package = self.choose_kernel(base, self_test)
        libraries = base.libraries()
        for folder in "unpacked", "base", "sdp", "python", "unpacked-kernel":
            shutil.rmtree(self.folder / folder, ignore_errors=True)
        self.stamp.write_text(f"{self.inputs()}\n{package}\n{' '.join(sorted(libraries))}\n")

    def choose_kernel(self, base: Part, self_test: Callable[[], bool]) -> str:
        """Takes the first kernel that passes the self-test; its package."""
        kernels = Packages(self.arch.kernel_arch, self.folder)
        for package in self.kernel_packages(kernels):
            try:
                version = package.removeprefix("linux-image-")  # some kernels come in several packages
                files = kernels.fetch([name for name in kernels.with_dependencies([package]) if version in name])
                with step(f"Testing {package}"):
                    self.add_kernel(base, files)
                    passed = self_test()
                if passed:
                    return package
                say(f"{package} does not survive failed connects; trying another kernel")
            except Problem as problem:
                say(f"{package}: {problem}; trying another kernel")
        raise Problem("no kernel package at hand passes the self-test")

    def kernel_packages(self, kernels: Packages) -> Iterator[str]:
        """The kernels that were seen to work, then whatever else the package source offers, newest first."""
        flavour = self.arch.kernel_flavour
        seen = [f"linux-image-{version}-{flavour}" for version in SEEN_KERNELS.get(self.release, [])]
        at_hand = [name for name in seen if name in kernels.downloaded()]
        yield from at_hand
        # Not those with another word between version and flavour: rt, cloud, unsigned.
        found = kernels.search(rf"^linux-image-[0-9.]+(-[0-9]+)?([+~][0-9a-z.]+)*-{flavour}$")
        offered = set(found).difference(at_hand)
        yield from (name for name in seen if name in offered)
        yield from sorted(offered.difference(seen), key=numbers, reverse=True)

    def add_kernel(self, base: Part, packages: list[Path]) -> None:
        kernel = unpack(packages, self.folder / "unpacked-kernel")
        shutil.rmtree(base.folder / "modules", ignore_errors=True)
        add_modules(base, kernel, self.arch.bus)
        base.pack(self.folder / "base.cpio")
        files = [*kernel.glob("boot/vmlinuz-*"), *kernel.glob("usr/lib/modules/*/vmlinuz")]
        if not files:
            raise Problem("its packages hold no kernel")
        self.kernel.write_bytes(unpacked_kernel(self.arch, files[0]))


def numbers(name: str) -> list[int]:
    return [int(number) for number in re.findall(r"\d+", name)]
