"""The guest image of the lab's bricks: kernel and programs from Debian packages.

Nothing is installed: packages are downloaded and unpacked below build/lab, with an apt state of the lab's own, so that
neither root nor a foreign architecture in the system is needed. The image is a kernel and three cpio archives, of which
a brick gets what it needs; the kernel unpacks archives that stand one after the other:

    base    busybox, the tools of bluez, libbluetooth, libstdc++, the kernel's Bluetooth modules, lab/init
    sdp     dbus-daemon and bluetoothd
    python  Python and PyBluez
"""

import ctypes
import fcntl
import hashlib
import lzma
import os
import re
import shutil
import signal
import subprocess
from contextlib import suppress
from dataclasses import dataclass
from pathlib import Path

LAB = Path(__file__).resolve().parent
CACHE = LAB.parent / "build" / "lab"
DISK_SPACE_MB = 900  # for packages and images of one architecture


class Problem(Exception):
    """Something that the user can mend; the text says what and how."""


@dataclass
class Arch:
    """What differs between the processors that the lab runs."""

    name: str  # Debian's port that the programs come from
    kernel_arch: str  # and the one of the kernel
    kernel_flavour: str
    bus: str  # module that finds virtio devices
    loader: str
    qemu: list  # command
    qemu_package: str
    console: str
    serial: str  # virtio device that carries the ports
    elf_machine: int  # of its programs


ARCHS = {
    "amd64": Arch(
        name="amd64",
        kernel_arch="amd64",
        kernel_flavour="amd64",
        bus="virtio_pci",
        loader="lib64/ld-linux-x86-64.so.2",
        qemu=["qemu-system-x86_64", "-accel", "tcg"],
        qemu_package="qemu-system-x86",
        console="ttyS0",
        serial="virtio-serial-pci",
        elf_machine=62,
    ),
    # Debian's armel kernels run on no machine that QEMU has: armel programs on the kernel of armhf.
    "armel": Arch(
        name="armel",
        kernel_arch="armhf",
        kernel_flavour="armmp",
        bus="virtio_mmio",
        loader="lib/ld-linux.so.3",
        qemu=["qemu-system-arm", "-M", "virt", "-cpu", "cortex-a15"],
        qemu_package="qemu-system-arm",
        console="ttyAMA0",
        serial="virtio-serial-device",
        elf_machine=40,
    ),
}

# Kernels that were seen to work. Not 6.1.0-56 (6.1.192): there a connect that fails by page time-out ends the kernel's
# RFCOMM thread. A kernel is taken only when the self-test passes in it.
PINNED_KERNELS = ["6.1.0-50"]

# Packages that hold the programs and every library that they need, directly or not.
PACKAGES = """
    busybox-static bluez libc6 libgcc-s1 libstdc++6 libbluetooth3 libglib2.0-0 libdbus-1-3 libreadline8 libtinfo6
    libudev1 libasound2 libpcre2-8-0 libsystemd0 libcap2 libgcrypt20 libgpg-error0 liblzma5 libzstd1 liblz4-1
    libapparmor1 libaudit1 libcap-ng0 libexpat1 libselinux1 libdw1 libelf1 zlib1g libbz2-1.0
    dbus-daemon dbus-system-bus-common dbus-session-bus-common
    python3.11-minimal libpython3.11-minimal libpython3.11-stdlib python3-bluez
""".split()

BASE_PROGRAMS = ["bin/hciconfig", "usr/bin/hcitool", "usr/bin/btattach", "usr/bin/rctest", "usr/bin/l2ping"]
BASE_PROGRAMS += ["usr/bin/sdptool"]
BASE_LIBRARIES = ["libbluetooth.so.3", "libstdc++.so.6", "libgcc_s.so.1"]  # for the users' programs
SDP_PROGRAMS = ["usr/bin/dbus-daemon", "usr/libexec/bluetooth/bluetoothd"]
MODULES = ["ecb", "cmac", "{bus}", "virtio_console", "bluetooth", "rfcomm", "hci_uart"]

PASSWD = "root:x:0:0:root:/:/bin/sh\nmessagebus:x:101:101::/:/bin/sh\n"
GROUP = "root:x:0:\nmessagebus:x:101:\nbluetooth:x:102:\nlp:x:7:\nnetdev:x:103:\n"

GUEST_SCRIPTS = ["init", "bluetoothd.sh", "self-test"]

TOOLS = {"cpio": "cpio", "modinfo": "kmod", "readelf": "binutils", "dpkg": "dpkg", "apt-get": "apt"}


def missing_packages(arch):
    """Debian packages that the lab needs on this machine and does not find."""
    needed = {**TOOLS, arch.qemu[0]: arch.qemu_package}
    return [package for tool, package in needed.items() if not shutil.which(tool, path=search_path())]


def search_path():
    return os.environ.get("PATH", "") + ":/usr/sbin:/sbin"


LIBC = ctypes.CDLL(None)
PR_SET_PDEATHSIG = 1


def die_with_parent():
    """For children: whatever ends this program ends them too."""
    LIBC.prctl(PR_SET_PDEATHSIG, signal.SIGKILL)


def run(*command, **options):
    """Runs a command and returns what it says; a Problem with its last lines when it fails."""
    done = subprocess.run(
        command,
        text=True,
        stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT,
        env={**os.environ, "PATH": search_path(), "LC_ALL": "C"},
        preexec_fn=die_with_parent,
        **options,
    )
    if done.returncode:
        raise Problem(f"{' '.join(map(str, command[:3]))} ... failed:\n" + "\n".join(done.stdout.splitlines()[-8:]))
    return done.stdout


class Packages:
    """The package source of one architecture, with an apt state of its own."""

    def __init__(self, architecture, folder):
        self.files = folder / architecture / "packages"
        state = folder / architecture / "apt"
        for needed in self.files, state / "lists" / "partial", state / "cache" / "archives" / "partial":
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
        self.apt_options = ["-q", *(word for name, value in options.items() for word in ("-o", f"{name}={value}"))]
        self.updated = False

    def downloaded(self):
        """Names of the packages that are there, and their files."""
        return {file.name.split("_")[0]: file for file in sorted(self.files.glob("*.deb"))}

    def update(self):
        if not self.updated:
            with suppress(Problem):  # a source may be out of order; what is missing then, the download tells
                run("apt-get", *self.apt_options, "update")
            self.updated = True

    def fetch(self, names):
        """Downloads what is not there yet; returns the files. What an interrupted download left is not taken."""
        missing = [name for name in names if name not in self.downloaded()]
        if missing:
            self.update()
            coming = self.files / "coming"
            shutil.rmtree(coming, ignore_errors=True)
            coming.mkdir()
            run("apt-get", *self.apt_options, "download", *missing, cwd=coming)
            for file in coming.glob("*.deb"):
                file.rename(self.files / file.name)
        return [self.downloaded()[name] for name in names]

    def search(self, pattern):
        self.update()
        lines = run("apt-cache", *self.apt_options, "search", "--names-only", pattern).splitlines()
        return [line.split(" ")[0] for line in lines]


def unpack(files, root):
    shutil.rmtree(root, ignore_errors=True)
    for file in files:
        run("dpkg", "-x", file, root)
    return root


class Archive:
    """A tree of files for the guest, copied from the root that the packages were unpacked to."""

    def __init__(self, source, folder, below=None):
        self.source = source
        self.folder = folder
        self.below = below  # the archive that this one is unpacked over
        shutil.rmtree(folder, ignore_errors=True)
        folder.mkdir(parents=True)

    def path(self, name):
        path = self.folder / name
        path.parent.mkdir(parents=True, exist_ok=True)
        return path

    def write(self, name, text):
        self.path(name).write_text(text)

    def copy(self, name):
        shutil.copy2(self.source / name, self.path(name))
        self.add_libraries_of(self.source / name)

    def copy_tree(self, name, *unwanted):
        shutil.copytree(
            self.source / name,
            self.path(name),
            symlinks=True,
            dirs_exist_ok=True,
            ignore=shutil.ignore_patterns(*unwanted),
        )

    def has(self, name):
        return (self.folder / name).exists() or (self.below is not None and self.below.has(name))

    def add_library(self, name):
        if self.has(f"lib/{name}"):
            return
        for place in "lib", "usr/lib":
            for file in (self.source / place).rglob(name):
                shutil.copy2(file.resolve(), self.path(f"lib/{name}"))
                return self.add_libraries_of(file)
        raise Problem(f"no package of the image holds {name}")

    def add_libraries_of(self, file):
        for name in re.findall(r"NEEDED.*\[(.*)\]", run("readelf", "-d", file)):
            self.add_library(name)

    def pack(self, file):
        names = [str(path.relative_to(self.folder)) for path in sorted(self.folder.rglob("*"))]
        options = ["-H", "newc", "--quiet", "-R", "0:0", "-F", file]
        run("cpio", "-o", *options, input="\n".join(names), cwd=self.folder)


def build_base(source, folder, loader):
    base = Archive(source, folder)
    for place in "dev", "proc", "sys", "tmp", "run", "etc", "usr/bin", "usr/lib", "var/lib/bluetooth", "brick":
        base.path(place).mkdir(parents=True, exist_ok=True)
    base.path("var/run").symlink_to("/run")
    base.copy("bin/busybox")
    base.path("bin/sh").symlink_to("busybox")
    base.path("usr/bin/env").symlink_to("/bin/busybox")
    shutil.copy2((source / loader).resolve(), base.path(loader))
    for program in BASE_PROGRAMS:
        base.copy(program)
    for library in BASE_LIBRARIES:
        base.add_library(library)
    base.write("etc/passwd", PASSWD)
    base.write("etc/group", GROUP)
    for name in GUEST_SCRIPTS:
        shutil.copy2(LAB / name, base.path(name))
        base.path(name).chmod(0o755)
    return base


def build_sdp(source, folder, base):
    sdp = Archive(source, folder, base)
    for program in SDP_PROGRAMS:
        sdp.copy(program)
    for place in "etc/dbus-1", "etc/bluetooth", "usr/share/dbus-1":
        sdp.copy_tree(place)
    return sdp


def build_python(source, folder, base):
    python = Archive(source, folder, base)
    python.copy("usr/bin/python3.11")
    python.path("usr/bin/python3").symlink_to("python3.11")
    python.copy_tree("usr/lib/python3.11", "test", "idlelib", "pydoc_data", "ensurepip", "lib2to3", "tkinter")
    python.copy_tree("usr/lib/python3/dist-packages")
    for module in python.folder.rglob("_bluetooth*.so"):
        python.add_libraries_of(module)
    return python


def add_modules(base, kernel, bus):
    """Copies the kernel's Bluetooth modules, and writes down the order in which they are loaded."""
    found = {file.name.split(".")[0].replace("-", "_"): file for file in (kernel / "lib/modules").rglob("*.ko*")}
    order = []

    def add(name):
        file = found.get(name)  # else it is built in
        if not file or name in order:
            return
        for needed in filter(None, run("modinfo", "-F", "depends", file).strip().split(",")):
            add(needed.replace("-", "_"))
        content = lzma.decompress(file.read_bytes()) if file.suffix == ".xz" else file.read_bytes()
        base.path(f"modules/{name}.ko").write_bytes(content)
        order.append(name)

    for name in MODULES:
        add(name.format(bus=bus))
    base.write("modules/order", "\n".join(order) + "\n")


def unpacked_kernel(arch, file):
    """The kernel as QEMU boots it fastest: unpacking it under emulation costs 5 s a boot."""
    content = file.read_bytes()
    if arch.name != "amd64":
        return content
    start = content.find(b"\xfd7zXZ\0")
    if start < 0:
        raise Problem("it is not compressed by xz")
    return lzma.LZMADecompressor(lzma.FORMAT_XZ).decompress(content[start:])


class Image:
    """What bricks of one architecture boot. ensure() makes it when it is missing or its inputs have changed."""

    def __init__(self, arch_name):
        self.arch = ARCHS[arch_name]
        self.folder = CACHE / arch_name
        self.kernel = self.folder / "kernel"
        self.stamp = self.folder / "built"

    def archives(self, sdp, python):
        names = ["base"] + ["sdp"] * sdp + ["python"] * python
        return [self.folder / f"{name}.cpio" for name in names]

    def inputs(self):
        inputs = hashlib.sha256()
        for name in ["image.py", *GUEST_SCRIPTS]:
            inputs.update((LAB / name).read_bytes())
        return inputs.hexdigest()

    def is_current(self):
        parts = self.stamp, self.kernel, *self.archives(sdp=True, python=True)
        return all(part.exists() for part in parts) and self.stamp.read_text().split("\n")[0] == self.inputs()

    def kernel_package(self):
        return self.stamp.read_text().split("\n")[1]

    def ensure(self, say, self_test):
        """Builds the image. self_test() boots it and tells whether failed connects leave the kernel's RFCOMM alive."""
        if self.is_current():
            return
        self.folder.mkdir(parents=True, exist_ok=True)
        with open(self.folder / "lock", "w") as lock:
            try:
                fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
            except BlockingIOError:
                say(f"Waiting for another run that builds the {self.arch.name} image ...")
                fcntl.flock(lock, fcntl.LOCK_EX)
            if not self.is_current():
                self.build(say, self_test)

    def build(self, say, self_test):
        free = shutil.disk_usage(self.folder).free // 1_000_000
        if free < DISK_SPACE_MB:
            raise Problem(f"{self.folder} has {free} MB free; to build the image takes {DISK_SPACE_MB} MB")
        self.stamp.unlink(missing_ok=True)
        say(f"Building the {self.arch.name} image, once ...")
        programs = Packages(self.arch.name, self.folder)
        source = unpack(programs.fetch(PACKAGES), self.folder / "unpacked")
        base = build_base(source, self.folder / "base", self.arch.loader)
        build_sdp(source, self.folder / "sdp", base).pack(self.folder / "sdp.cpio")
        build_python(source, self.folder / "python", base).pack(self.folder / "python.cpio")
        package = self.choose_kernel(base, say, self_test)
        for folder in "unpacked", "base", "sdp", "python", "unpacked-kernel":
            shutil.rmtree(self.folder / folder, ignore_errors=True)
        self.stamp.write_text(f"{self.inputs()}\n{package}\n")

    def choose_kernel(self, base, say, self_test):
        """Takes the first kernel that passes the self-test; its package."""
        kernels = Packages(self.arch.kernel_arch, self.folder)
        for package in self.kernel_packages(kernels):
            say(f"Testing {package} ...")
            try:
                self.add_kernel(base, kernels.fetch([package]))
                if self_test():
                    return package
                say(f"{package} does not survive failed connects; trying another kernel")
            except Problem as problem:
                say(f"{package}: {problem}; trying another kernel")
        raise Problem("no kernel package at hand passes the self-test")

    def kernel_packages(self, kernels):
        """The pinned kernels, then whatever else the package source offers, newest first."""
        flavour = self.arch.kernel_flavour
        pinned = [f"linux-image-{version}-{flavour}" for version in PINNED_KERNELS]
        at_hand = [name for name in pinned if name in kernels.downloaded()]
        yield from at_hand
        offered = set(kernels.search(rf"^linux-image-[0-9.]+-[0-9]+-{flavour}$")).difference(at_hand)
        yield from (name for name in pinned if name in offered)
        numbers = lambda name: [int(number) for number in re.findall(r"\d+", name)]
        yield from sorted(offered.difference(pinned), key=numbers, reverse=True)

    def add_kernel(self, base, files):
        kernel = unpack(files, self.folder / "unpacked-kernel")
        shutil.rmtree(base.folder / "modules", ignore_errors=True)
        add_modules(base, kernel, self.arch.bus)
        base.pack(self.folder / "base.cpio")
        self.kernel.write_bytes(unpacked_kernel(self.arch, next((kernel / "boot").glob("vmlinuz-*"))))
