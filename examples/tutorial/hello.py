import sys

from tav_bluetooth import C_TAV_Bluetooth

with C_TAV_Bluetooth() as bluetooth:
    if bluetooth.BT_Scan() < 0:
        sys.exit("There is no Bluetooth adapter that works")
    for device in bluetooth.m_ScanDevices:
        print(device.AddrText, repr(device.Name))
    if not bluetooth.SendMsg_TAV_String("Robot2", "greeting", "Hello!"):  # connects it if need be
        sys.exit("Robot2 cannot be reached")
    answer = bluetooth.ReadMsg_TAV_String("Robot2", "greeting", 100, 5000)
    if answer is None:
        sys.exit("Robot2 does not answer")
    print("Robot2 says", repr(answer))
