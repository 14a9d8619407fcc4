"""The module for Python: in this process, and on the simulated air, where its programs are functions of this file."""

import ast
import copy
import inspect
import os
import re
import signal
import socket
import subprocess
import sys
import threading
import time
from collections.abc import Callable
from pathlib import Path
from typing import Any

import pytest

EXAMPLES = Path(__file__).resolve().parent.parent / "examples/python"
BUILD = Path(os.environ["TAV_BUILD"]).resolve()
MODULE = BUILD / "python"
MESSAGES = 100_000
sys.path.insert(0, str(MODULE))

from tav_bluetooth import (
    C_TAV_Bluetooth,
    S_BT_ScanDevice,
    S_BT_ServicesData,
    SDP_UUID16,
    SDP_UUID128,
    uuid_t,
)  # noqa: E402

# Of the class; pybind11 has some of its own.
MEMBERS = {name for name in dir(C_TAV_Bluetooth) if not name.startswith(("__", "_pybind11_"))}
TEXTS = ["", "a", "Käse", "a\0b\0", "\udcff\udc80 bad", "x" * 1000]
DATA = [b"a", b"\0\xff\0", bytes(range(256)), b"x" * 1000]
ID = "\udcffid"  # not UTF-8, either

# ---- Every operation, between two bricks ----------------------------------------------------------------------------


def ask() -> None:
    """Robot1."""
    bt = C_TAV_Bluetooth()
    assert bt.BT_Scan() == 1 and bt.Get_ScanDevice(0) == ("Robot2", "02:00:00:00:00:02")
    bt.m_ScanDevices.clear()
    assert bt.BT_ParseFileDevices() and bt.Get_IndexScanDevice(b"Robot2") == 0 and bt.Get_IndexScanDevice("") == -2
    assert bt.Get_BT_Services("Robot2") and bt.Get_BT_Services_Count("Robot2") == 1
    assert bt.Get_BT_Services_Name(0) == "Echo\udcff" and bt.Get_BT_Services_Description(0) == "returns"
    assert bt.Get_BT_Services_Provider(0) == "us" and bt.Get_BT_Services_PortRFCOMM(0) == 5
    service = bt.m_Services[0]
    assert service.ServiceClasses == [uuid_t(SDP_UUID16, 0x1101)] and service.Name == "Echo\udcff"
    assert bt.Convert_UUID_to_String(service.ServiceClasses[0]) == "1101"

    for text in TEXTS:  # as str and as bytes
        assert bt.SendMsg_TAV_String("Robot2", ID, text)
        assert bt.ReadMsg_TAV_String("Robot2", ID, 1000, 30000) == text
        assert bt.SendMsg_TAV_String(b"Robot2", b"\xffid", text.encode(errors="surrogateescape"))
        assert bt.ReadMsg_TAV_String("Robot2", ID, 1000, 30000) == text
    for value in True, False:
        assert bt.SendMsg_TAV_Bool("Robot2", ID, value) and bt.ReadMsg_TAV_Bool("Robot2", ID, 30000) is value
    for data in DATA:
        assert bt.SendMsg_TAV_Data("Robot2", ID, data) and bt.ReadMsg_TAV_Data("Robot2", ID, 1000, 30000) == data

    index = bt.isConnected("Robot2")
    socket = bt.m_ScanDevices[index].Socket
    assert bt.m_ClientSockets == {socket: 0} and bt.m_ScanDevices[index].Port == 16
    for text in TEXTS:
        assert bt._SendMsg_TAV_String(socket, ID, text)
        assert bt._ReadMsg_TAV_String(socket, "Robot2", ID, 1000, 30000) == text
    for data in DATA:
        assert bt._SendMsg_TAV_Data(socket, ID, data)
        assert bt._ReadMsg_TAV_Data(socket, "Robot2", ID, 1000, 30000) == data
    assert bt._SendMsg_TAV_Bool(socket, ID, True) and bt._ReadMsg_TAV_Bool(socket, "Robot2", ID, 30000) is True
    assert bt.WriteData(socket, b"\0raw\xff") == 5 and bt.ReadData(socket, 100, 30000) == b"\0raw\xff"
    assert bt.ReadMsg_TAV_String("Robot2", ID, 1000, 0) is None and bt.ReadData(socket, 100, 0) is None

    assert bt.Disconnect(socket) and bt.isConnected("Robot2") == -1
    time.sleep(0.1)  # longer than the release, as time runs here
    for text in TEXTS:
        assert bt.SendMsg_TAVOrg_String("Robot2", ID, text)
        assert bt.ReadMsg_TAVOrg_String("Robot2", ID, 1000, 30000) == text
    assert bt.SendMsg_TAVOrg_Bool("Robot2", ID, True) and bt.ReadMsg_TAVOrg_Bool("Robot2", ID, 30000) is True
    socket = bt.m_ScanDevices[0].Socket
    assert bt._SendMsg_TAVOrg_String(socket, ID, "Hi")
    assert bt._ReadMsg_TAVOrg_String(socket, "", ID, 1000, 30000) == "Hi"
    assert bt._SendMsg_TAVOrg_Bool(socket, ID, False) and bt._ReadMsg_TAVOrg_Bool(socket, "", ID, 30000) is False
    assert bt.Disconnect(socket)
    time.sleep(0.1)
    assert bt.Connect("Robot2", 5, 30000) >= 0 and bt.Disconnect(bt.m_ScanDevices[0].Socket)
    time.sleep(0.1)
    assert bt.Connect_Index(0, 5, 30000) >= 0 and bt.Connect_Index(1, 5, 30000) == -1
    bt.Close()
    assert not bt.m_ScanDevices and not bt.m_ClientSockets and not bt.m_Services
    print("asked all")


def answer() -> None:
    """Robot2: sends everything back."""
    bt = C_TAV_Bluetooth()
    other, classic = bt.OpenServer(5), bt.OpenServer(1)
    assert bt.OpenServer_TAV() and bt.OpenServer(5) == -1
    for text in [twice for text in TEXTS for twice in (text, text)]:
        assert bt.Server_ReadMsg_TAV_String("Robot1", ID, 1000, 30000) == text
        assert bt.Server_SendMsg_TAV_String(ID, text)
    for value in True, False:
        assert bt.Server_ReadMsg_TAV_Bool("Robot1", ID, 30000) is value and bt.Server_SendMsg_TAV_Bool(ID, value)
    assert bt.m_AcceptRunning and list(bt.m_ServerClients) == [bt.m_ServerSocket]
    client = bt.m_ServerClients[bt.m_ServerSocket][0]
    assert client.AddrText == "02:00:00:00:00:01" and client.Addr == b"\x01\0\0\0\0\x02"
    for data in DATA:
        assert bt._ReadMsg_TAV_Data(client.Socket, "Robot1", ID, 1000, 30000) == data
        assert bt._SendMsg_TAV_Data(client.Socket, ID, data)
    for text in TEXTS:
        assert bt._ReadMsg_TAV_String(client.Socket, "Robot1", ID, 1000, 30000) == text
        assert bt._SendMsg_TAV_String(client.Socket, ID, text)
    for data in DATA:
        assert bt._ReadMsg_TAV_Data(client.Socket, "Robot1", ID, 1000, 30000) == data
        assert bt._SendMsg_TAV_Data(client.Socket, ID, data)
    assert bt._ReadMsg_TAV_Bool(client.Socket, "Robot1", ID, 30000) is True
    assert bt._SendMsg_TAV_Bool(client.Socket, ID, True)
    assert bt.WriteData(client.Socket, bt.ReadData(client.Socket, 100, 30000) or b"") == 5

    socket = bt.AcceptClient(classic, 30000)
    for text in TEXTS:
        assert bt._ReadMsg_TAVOrg_String(socket, "", ID, 1000, 30000) == text
        assert bt._SendMsg_TAVOrg_String(socket, ID, text)
    assert bt._ReadMsg_TAVOrg_Bool(socket, "", ID, 30000) is True and bt._SendMsg_TAVOrg_Bool(socket, ID, True)
    assert bt._ReadMsg_TAVOrg_String(socket, "", ID, 1000, 30000) == "Hi"
    assert bt._SendMsg_TAVOrg_String(socket, ID, "Hi")
    assert bt._ReadMsg_TAVOrg_Bool(socket, "", ID, 30000) is False and bt._SendMsg_TAVOrg_Bool(socket, ID, False)
    assert bt.AcceptClient(other, 30000) >= 0 and bt.AcceptClient(other, 30000) >= 0
    assert bt.CloseClient(bt.m_ServerClients[other][0].Socket) and len(bt.m_ServerClients[other]) == 1
    assert bt.CloseAllClient(other) and not bt.CloseClient(socket + 100)
    assert bt.CloseServer(other) and not bt.CloseServer(other)
    assert bt.CloseServer_TAV() and bt.m_ServerSocket == -1
    assert bt.CloseAllServer() and not bt.m_ServerClients
    print("answered all")


def brick(air: Any, name: str, function: Any, *arguments: str, **options: Any) -> Any:
    """Starts a function of this file as a brick."""
    return air.brick(name, sys.executable, __file__, function.__name__, *arguments, **options)


def test_every_operation(air: Any) -> None:
    robot2 = brick(air, "Robot2", answer, services=["Echo\udcff|returns|us=5"])
    robot2.wait_for_channel(1, 5, 16)
    robot1 = brick(air, "Robot1", ask)
    assert robot1.wait() == 0 and robot2.wait() == 0
    tried = set(re.findall(r"\bbt\.(\w+)", inspect.getsource(ask) + inspect.getsource(answer)))
    assert MEMBERS - tried == {"Add_BT_Device", "m_StopAccept", "Thread_AcceptClient"}  # see below


# ---- In this process ------------------------------------------------------------------------------------------------


BT = C_TAV_Bluetooth()
WRONG: list[tuple[Callable[..., object], list[object]]] = [
    (BT.Connect, ["Robot2", 16]),  # there are no defaults
    (BT.Connect, ["Robot2", 16, 1, 1]),
    (BT.Connect, ["Robot2", 256, 1]),
    (BT.Connect, ["Robot2", 16, -1]),
    (BT.Connect, ["Robot2", 16, 1.5]),
    (BT.Connect, [None, 16, 1]),
    (BT.SendMsg_TAV_Bool, ["Robot2", "id", "true"]),
    (BT.SendMsg_TAV_Bool, ["Robot2", "id", 1]),
    (BT.SendMsg_TAV_Data, ["Robot2", "id", "text"]),
    (BT.SendMsg_TAV_String, ["Robot2", "id", 1]),
    (S_BT_ScanDevice, [b"12345", "A", "Robot1"]),
    (uuid_t, [SDP_UUID16, 70000]),
    (uuid_t, [SDP_UUID128, -1]),
    (copy.copy, [BT]),
]


def test_wrong_types_are_refused() -> None:
    for call, arguments in WRONG:
        with pytest.raises(TypeError):
            print(call, arguments, call(*arguments))
    assert BT.Connect(name="Robot2", channel=16, timeout=0) == -1  # names are those of C++


def test_containers_are_live() -> None:
    bt = C_TAV_Bluetooth()
    devices, device = bt.m_ScanDevices, S_BT_ScanDevice(b"123456", "A", "Robot1")
    devices.append(device)
    devices[0].Name = b"\xff"  # type: ignore[assignment]
    assert bt.Get_IndexScanDevice("\udcff") == 0 and device.Name == "Robot1"
    assert bt.Add_BT_Device("Robot2", "12:34:56:78:9A:BC", 7, 16) == 1 and len(devices) == 2
    kept, taken = devices[1], copy.copy(devices[1])
    assert bt.isConnected("Robot2") == 1 and kept == taken and kept in devices and devices[-1:] == [taken]
    assert [found.Name for found in devices] == ["\udcff", "Robot2"] and "Name='Robot2', Socket=7" in repr(kept)
    devices.insert(0, device)
    devices[1] = taken
    assert [found.Name for found in devices] == ["Robot1", "Robot2", "Robot2"]
    del devices[0], devices[-1], devices[0]
    assert taken.Socket == 7
    with pytest.raises(IndexError):  # it is gone, and harmless
        print(kept.Name)

    bt.m_Services.append(S_BT_ServicesData())
    bt.m_Services[0].ServiceClasses = [uuid_t(SDP_UUID128, 1 << 127)]
    assert bt.m_Services[0].ServiceClasses[0].value == 1 << 127
    bt.m_ClientSockets[5] = 3
    assert bt.m_ClientSockets == {5: 3} and bt.m_ClientSockets.get(6) is None
    bt.m_ServerClients[-4] = [device]  # no socket, as those are closed with the object
    bt.m_ServerClients[-4].append(device)
    clients = bt.m_ServerClients[-4]
    assert len(clients) == 2 and repr(bt.m_ServerClients) == repr({-4: [device, device]})
    del bt, devices  # the object lives while something of it does
    clients.clear()
    assert len(clients) == 0


def is_open(descriptor: int) -> bool:
    return os.path.lexists(f"/proc/self/fd/{descriptor}")


def test_with_closes_what_moved_in_the_list() -> None:
    sockets = [socket.socket().detach() for _ in range(3)]
    with C_TAV_Bluetooth() as bt:
        for index, descriptor in enumerate(sockets):
            bt.Add_BT_Device(f"Robot{index}", f"02:00:00:00:00:0{index}", descriptor, 16)
            bt.m_ClientSockets[descriptor] = index
        del bt.m_ScanDevices[0]
    assert [is_open(descriptor) for descriptor in sockets] == [True, False, False]
    os.close(sockets[0])


def test_the_reference_is_there() -> None:
    members = [getattr(C_TAV_Bluetooth, name) for name in MEMBERS]
    assert len(members) == 52 + 7 and all(len(member.__doc__.splitlines()[-1]) > 10 for member in members)
    assert "page time-out, 5.12 s" in str(C_TAV_Bluetooth.Connect_Index.__doc__)
    assert "returns name and addrText, or None" in str(C_TAV_Bluetooth.Get_ScanDevice.__doc__)


def test_the_stubs_say_what_is(tmp_path: Path) -> None:
    environment = os.environ | {"MYPYPATH": str(MODULE), "PYTHONPATH": str(MODULE)}
    subprocess.run(["/usr/bin/stubtest", "tav_bluetooth"], cwd=tmp_path, env=environment, check=True)
    # Which cannot see the arguments; pybind11 says them.
    stub = ast.parse((MODULE / "tav_bluetooth/__init__.pyi").read_text())
    told = {node.name: [a.arg for a in node.args.args] for node in ast.walk(stub) if isinstance(node, ast.FunctionDef)}
    for name in MEMBERS:
        if not name.startswith("m_"):
            signature = getattr(C_TAV_Bluetooth, name).__doc__.partition("\n")[0]
            assert re.findall(r"(\w+): ", signature) == told[name], name


# ---- Waiting --------------------------------------------------------------------------------------------------------


def wait_for_its_thread(bt: C_TAV_Bluetooth) -> bool:
    bt.m_AcceptRunning = True  # for ever, as nobody says otherwise
    return bt.CloseServer_TAV()


WAITS: dict[str, Callable[[C_TAV_Bluetooth], object]] = {
    "scan": lambda bt: bt.BT_Scan(),
    "connect": lambda bt: bt.Connect("Robot9", 16, 10**9),  # scans
    "accept": lambda bt: bt.AcceptClient(bt.OpenServer(1), 10**9),
    "server": lambda bt: bt.Server_ReadMsg_TAV_String("Robot2", "id", 100, 2**40),
    "read": lambda bt: bt.ReadData(-1, 100, 10**9),
    "write": lambda bt: bt.WriteData(-1, b"x"),  # for ever, as in C++
    "thread": lambda bt: C_TAV_Bluetooth.Thread_AcceptClient(bt),
    "stop": wait_for_its_thread,
    "names": lambda bt: bt.BT_Scan(),
}


def wait_for_signal(what: str) -> None:
    bt = C_TAV_Bluetooth()

    def tick() -> None:  # others run meanwhile
        time.sleep(0.2)
        print("waits", flush=True)

    threading.Thread(target=tick).start()
    try:
        print("returned", WAITS[what](bt))
    except KeyboardInterrupt:
        print("interrupted")


@pytest.mark.parametrize("waiting", WAITS)
def test_ctrl_c_ends(air: Any, waiting: str) -> None:
    """Each of them would wait for longer than the test."""
    air.speed = 4 if waiting == "names" else 0.1
    for name in "Ghost1", "Ghost2":
        air.device(name, state="nameless")
    robot1 = brick(air, "Robot1", wait_for_signal, waiting, trace=True)
    robot1.wait_for("hci_read_remote_name" if waiting == "names" else "waits")
    assert robot1.stop() == 0 and "interrupted" in robot1.said
    assert robot1.said.count("hci_read_remote_name") == (waiting == "names")  # the second was not asked


def send_to_the_deaf() -> None:
    bt = C_TAV_Bluetooth()
    bt.OpenServer_TAV()
    while len(bt.m_ServerClients.get(bt.m_ServerSocket, [])) < 2:
        time.sleep(0.01)
    print("sends", flush=True)
    try:
        print("returned", bt.Server_SendMsg_TAV_String("id", "x" * 40000))
    except KeyboardInterrupt:
        print("interrupted")


def be_deaf() -> None:
    bt = C_TAV_Bluetooth()
    bt.Add_BT_Device("Robot1", "02:00:00:00:00:01", -1, 0)
    assert bt.Connect("Robot1", 16, 30000) >= 0
    time.sleep(1000)


def test_ctrl_c_ends_sending_to_all(air: Any) -> None:
    robot1 = brick(air, "Robot1", send_to_the_deaf)
    robot1.wait_for_channel(16)
    for name in "Robot2", "Robot3":
        brick(air, name, be_deaf)
    robot1.wait_for("sends")
    time.sleep(0.3)  # until it waits for the first
    assert robot1.stop() == 0 and "interrupted" in robot1.said


def close_in_between() -> None:
    with C_TAV_Bluetooth() as bt:
        open_for("Robot2", bt)
        bt.m_StopAccept = True
        while bt.m_AcceptRunning:
            time.sleep(0.01)
        server = bt.m_ServerSocket
        bt.CloseAllServer()
        file = os.open(os.devnull, os.O_RDONLY)
        assert file == server  # its number
    assert is_open(file)

    signal.signal(signal.SIGALRM, lambda *_: bt.CloseServer_TAV())
    open_for("Robot3", bt)
    signal.setitimer(signal.ITIMER_REAL, 0.3)
    assert bt.Server_ReadMsg_TAV_String("", "id", 100, 3000) is None and bt.m_ServerSocket == -1


def open_for(client: str, bt: C_TAV_Bluetooth) -> None:
    assert bt.OpenServer_TAV()
    print(client, "may come", flush=True)
    while bt.m_ServerSocket not in bt.m_ServerClients:
        time.sleep(0.01)


def test_servers_are_closed_in_between(air: Any) -> None:
    """By CloseAllServer in `with`, and by a signal's handler while the server reads."""
    robot1 = brick(air, "Robot1", close_in_between)
    for name in "Robot2", "Robot3":
        robot1.wait_for(f"{name} may come")
        brick(air, name, be_deaf)
    assert robot1.wait() == 0


def ask_for_services() -> None:
    bt = C_TAV_Bluetooth()
    bt.Add_BT_Device("Robot2", "02:00:00:00:00:02", -1, 0)
    try:
        print("returned", bt.Get_BT_Services("Robot2"))
    except KeyboardInterrupt:
        print("interrupted")


def keep_silent() -> None:
    """An SDP server that never answers."""
    with socket.socket(socket.AF_BLUETOOTH, socket.SOCK_SEQPACKET, 0) as server:  # L2CAP
        server.bind(("00:00:00:00:00:00", 1))
        server.listen(1)
        print("listens", flush=True)
        link, _ = server.accept()
        print("was asked", link.recv(1024), flush=True)
        time.sleep(1000)


def test_ctrl_c_ends_a_query(air: Any) -> None:
    robot2 = brick(air, "Robot2", keep_silent, state="no-sdp")
    robot2.wait_for("listens")
    robot1 = brick(air, "Robot1", ask_for_services)
    robot2.wait_for("was asked")
    assert robot1.stop() == 0 and "interrupted" in robot1.said


def serve_and_ask() -> None:
    """A server in one thread and a client in another, of two objects in one program."""
    served: list[str | None] = []

    def serve() -> None:
        with C_TAV_Bluetooth() as server:
            served.append(server.Server_ReadMsg_TAV_String("Robot2", "id", 100, 30000))
            server.Server_SendMsg_TAV_String("id", "from Robot1")

    thread = threading.Thread(target=serve)
    thread.start()
    with C_TAV_Bluetooth() as client:
        client.Add_BT_Device("Robot2", "02:00:00:00:00:02", -1, 0)
        assert client.SendMsg_TAV_String("Robot2", "id", "to Robot2")
        thread.join()
        print(served, client.ReadMsg_TAV_String("Robot2", "id", 100, 30000))
    threading.Thread(target=C_TAV_Bluetooth().ReadData, args=(-1, 100, 10**9), daemon=True).start()
    threading.Thread(target=C_TAV_Bluetooth().Server_ReadMsg_TAV_Bool, args=("", "", 10**9), daemon=True).start()
    time.sleep(0.2)  # they wait when the program ends


def ask_and_serve() -> None:
    with C_TAV_Bluetooth() as bt:
        assert bt.OpenServer_TAV()
        bt.Add_BT_Device("Robot1", "02:00:00:00:00:01", -1, 0)
        while not bt.SendMsg_TAV_String("Robot1", "id", "from Robot2"):
            bt.Disconnect(bt.m_ScanDevices[0].Socket)
            time.sleep(0.1)
        assert bt.Server_ReadMsg_TAV_String("Robot1", "id", 100, 30000) == "to Robot2"
        assert bt.ReadMsg_TAV_String("Robot1", "id", 100, 30000) == "from Robot1"
        assert bt.Server_SendMsg_TAV_String("id", "answer")


def test_threads_with_objects_of_their_own(air: Any) -> None:
    robot2 = brick(air, "Robot2", ask_and_serve)
    robot2.wait_for_channel(16)
    robot1 = brick(air, "Robot1", serve_and_ask)
    assert robot1.wait() == 0 and robot2.wait() == 0 and "['from Robot2'] answer" in robot1.said


# ---- What adds up ---------------------------------------------------------------------------------------------------


def in_use() -> tuple[int, int]:
    """Threads and descriptors of this process."""
    return len(os.listdir("/proc/self/task")), len(os.listdir("/proc/self/fd"))


def drop_objects() -> None:
    C_TAV_Bluetooth().BT_Scan()  # what it takes once
    before = in_use()
    for _ in range(1000):
        C_TAV_Bluetooth().Add_BT_Device("Robot2", "02:00:00:00:00:02", -1, 0)
    own = [C_TAV_Bluetooth()]
    for number in range(6):
        while not own[0].OpenServer_TAV():  # while the last one's thread lives
            time.sleep(0.05)
        time.sleep(0.01 * (number % 2))
        own.clear()  # collected, while its thread runs or has not begun
        own.append(C_TAV_Bluetooth())  # not at the same place, or that thread would take this one for its own
        with C_TAV_Bluetooth() as closed:
            closed.BT_Scan()
    for _ in range(100):
        if in_use() != before:
            time.sleep(0.1)
    print(before, in_use())


def resident() -> int:
    return int(Path("/proc/self/statm").read_text().split()[1]) * os.sysconf("SC_PAGE_SIZE") // 1024


def return_many() -> None:
    with C_TAV_Bluetooth() as bt:
        server = bt.OpenServer(16)
        client = bt.AcceptClient(server, 30000)
        while (text := bt._ReadMsg_TAV_String(client, "Robot1", "id", 100, 30000)) is not None:
            bt._SendMsg_TAV_String(client, "id", text)


def send_many(count: str) -> None:
    with C_TAV_Bluetooth() as bt:
        bt.Add_BT_Device("Robot2", "02:00:00:00:00:02", -1, 0)
        for number in range(int(count)):
            if number == int(count) // 10:
                before = resident()
            text = f"{number} \udcff"
            assert bt.SendMsg_TAV_String("Robot2", "id", text)
            assert bt.ReadMsg_TAV_String("Robot2", "id", 100, 30000) == text
            assert not bt.m_ScanDevices[0].Name.startswith("x") and bt.Get_ScanDevice(0)
        assert resident() < before + 512, (before, resident())


def test_objects_leave_nothing(air: Any) -> None:
    robot1 = brick(air, "Robot1", drop_objects)
    assert robot1.wait() == 0
    before, after = re.findall(r"\(\d+, \d+\)", robot1.said)
    assert before == after


def test_messages_take_no_memory(air: Any) -> None:
    robot2 = brick(air, "Robot2", return_many)
    robot2.wait_for_channel(16)
    assert brick(air, "Robot1", send_many, str(MESSAGES)).wait(300) == 0


# ---- The examples ---------------------------------------------------------------------------------------------------


def example(air: Any, name: str, program: str, *arguments: str, **options: Any) -> Any:
    command = [sys.executable, EXAMPLES / program] if program.endswith(".py") else [str(BUILD / "examples" / program)]
    return air.brick(name, *command, *arguments, PYTHONPATH=str(MODULE), **options)


PAIRS = [("server.py", "client.py"), ("brick_server", "client.py"), ("server.py", "brick_client")]


@pytest.mark.parametrize("server, client", PAIRS)
def test_python_and_cpp_talk(air: Any, server: str, client: str) -> None:
    robot2 = example(air, "Robot2", server, "Robot1", services=["Serial Port=16"])
    robot2.wait_for_channel(1, 16)
    robot1 = example(air, "Robot1", client, "Robot2")
    assert robot1.wait() == 0 and robot2.wait() == 0
    assert (
        robot1.said.count("came back unchanged") == 4
        and robot2.said.count(" got " if server[0] == "b" else "got ") == 4
    )


def test_the_safe_server_outlives_its_clients(air: Any) -> None:
    for name in "Robot1", "Robot3":
        air.device(name)
    robot2 = example(air, "Robot2", "safe_server.py")
    robot2.wait_for("serving")
    robot1 = air.brick("Robot1", BUILD / "tools/tavbt/tavbt", "pipe", "Robot2")
    robot1.type('{"kind":"text","id":"say","value":"one"}\n')
    robot2.wait_for("'Robot1' says 'one'")
    robot1.kill()
    robot2.wait_for("'Robot1' is gone")
    assert air.brick("Robot3", BUILD / "tools/tavbt/tavbt", "send", "Robot2", "say", "--text", "two").wait() == 0
    robot2.wait_for("'Robot3' says 'two'\\s+'Robot3' is gone")
    assert robot2.stop() == 130


def test_a_robot_stops_when_it_hears_nothing(air: Any) -> None:
    robot2 = example(air, "Robot2", "robot.py", "Robot1")
    robot2.wait_for_channel(16)
    robot1 = example(air, "Robot1", "remote.py", "Robot2")
    robot1.type("50 -10\n")
    robot2.wait_for("drives '50 -10'")
    robot1.kill()
    robot2.wait_for(r"drives '50 -10'\s+drives '0 0'\s+waits for Robot1")
    robot1 = example(air, "Robot1", "remote.py", "Robot2")
    robot1.type("20 0\n")
    robot1.wait_for("Robot2 does '20 0'")
    assert robot1.wait() == 0


if __name__ == "__main__":
    globals()[sys.argv[1]](*sys.argv[2:])
