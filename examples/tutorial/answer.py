import sys

from tav_bluetooth import C_TAV_Bluetooth

with C_TAV_Bluetooth() as bluetooth:
    if not bluetooth.OpenServer_TAV():
        sys.exit("There is no Bluetooth, or another program has channel 16")
    text = bluetooth.Server_ReadMsg_TAV_String("Robot1", "greeting", 100, 60000)  # waits a minute
    if text is None:
        sys.exit("Robot1 did not say hello")
    print("Robot1 says", repr(text))
    bluetooth.Server_SendMsg_TAV_String("greeting", "Hello to you")
