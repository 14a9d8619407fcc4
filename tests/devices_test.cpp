// The object, its device list, and the file that the list is read from.
#include "bluetooth/C_TAV_Bluetooth.h"
#include "tests/support.h"

#include <fcntl.h>
#include <gtest/gtest.h>

using namespace tav_c_api_impl;

namespace {

TEST(Object, CloseForgetsOutgoingSocketsAndServersWithoutClients)
{
    S_SocketPair outgoing, server;
    C_TAV_Bluetooth bluetooth;
    bluetooth.Add_BT_Device("A", "", outgoing.Near, 16);
    bluetooth.m_ClientSockets[outgoing.Near] = 0;
    bluetooth.m_Services.resize(1);
    bluetooth.m_ServerSocket = server.Near;
    bluetooth.m_StopAccept = bluetooth.m_AcceptRunning = true;
    tav_air::Start_Trace();
    bluetooth.Close();
    EXPECT_TRUE(bluetooth.m_ScanDevices.empty() && bluetooth.m_ClientSockets.empty() && bluetooth.m_Services.empty());
    EXPECT_FALSE(bluetooth.m_ServerSocket != -1 || bluetooth.m_StopAccept || bluetooth.m_AcceptRunning);
    EXPECT_TRUE(fcntl(outgoing.Near, F_GETFD) >= 0 && fcntl(server.Near, F_GETFD) >= 0);
    EXPECT_TRUE(tav_air::Get_Trace().empty());
}

TEST(DeviceList, ByNameAndIndex)
{
    C_TAV_Bluetooth bluetooth;
    std::string name, text;
    EXPECT_EQ(bluetooth.Get_IndexScanDevice("A"), -1);
    EXPECT_FALSE(bluetooth.Get_ScanDevice(0, name, text));
    EXPECT_EQ(bluetooth.Add_BT_Device("A", "06:05:04:03:02:01", 7, 16), 0);
    EXPECT_EQ(bluetooth.Add_BT_Device("A", "00:00:00:00:00:01", 8, 1), -1);
    EXPECT_EQ(bluetooth.Add_BT_Device("B", "", -1, 0), 1);
    bluetooth.m_ScanDevices.emplace_back(bdaddr_t{{1, 2, 3, 4, 5, 6}}, "its address", "B");
    EXPECT_EQ(bluetooth.Get_IndexScanDevice("B"), 1) << "the first of two";
    EXPECT_EQ(bluetooth.Get_IndexScanDevice("a"), -2);
    EXPECT_TRUE(bluetooth.Get_ScanDevice(0, name, text));
    EXPECT_FALSE(bluetooth.Get_ScanDevice(3, name, text));
    EXPECT_EQ(name + " " + text, "A 06:05:04:03:02:01");
    const S_BT_ScanDevice added = bluetooth.m_ScanDevices[0], built = bluetooth.m_ScanDevices[2];
    EXPECT_TRUE(bacmp(&added.Addr, &built.Addr) == 0 && added.Socket == 7 && added.Port == 16);
    EXPECT_TRUE(built.AddrText == "its address" && built.Socket == -1 && built.Port == 0);
}

// The bytes of a file that is written with '#' for 00, '>' for 1C and '!' for 1A.
std::string File_Of(std::string text)
{
    for (char& byte : text)
        byte = byte == '#' ? '\0' : byte == '>' ? '\x1C' : byte == '!' ? '\x1A' : byte;
    return text;
}

TEST(DeviceFile, DevicesAndEveryLine)
{
    const std::string NO_CARD = "Error (Not open file : ../prjs/SD_Card/__BTScan__)|";
    const std::string CARD = "Open file ../prjs/SD_Card/__BTScan__ OK|";
    const std::string longName(300, 'n');
    const struct
    {
        std::optional<std::string> Card, Brick;
        bool Result;
        std::string Devices, Steps;
    } CASES[] = {
        {{}, {}, false, "", NO_CARD + "Error (Not open file : ../prjs/__BTScan__)"},
        {{}, "A#>1#!", true, "A=1;", NO_CARD + "Open file ../prjs/__BTScan__ OK|Name : A|Addr : 1"},
        {"", "A#>1#!", true, "", CARD},
        {"A#>1#!A#>2#!B#>3#!", {}, true, "A=1;B=3;", CARD + "Name : A|Addr : 1|Name : A|Addr : 2|Name : B|Addr : 3"},
        {"Old#>1#!A#!", {}, true, "", CARD + "Name : Old|Addr : 1|Name : A"},
        {longName + "#>#!", {}, true, longName + "=;", CARD + "Name : " + longName + "|Addr : "},
        {"A!>#>1>!#!", {}, true, File_Of("A!>=1>!;"), CARD + File_Of("Name : A!>|Addr : 1>!")},
        {"A#!1#!B#>2#!", {}, false, "", CARD + "Name : A"},
        {"A#>1#>B#>2#!", {}, false, "", CARD + "Name : A|Addr : 1"},
        {"A#>1#!B#>2#>", {}, true, "A=1;", CARD + "Name : A|Addr : 1|Name : B|Addr : 2"},
    };
    for (const auto& test : CASES) {
        SCOPED_TRACE(test.Card.value_or("none") + " and " + test.Brick.value_or("none"));
        C_ProjectFolder folder;
        if (test.Card) folder.Write_List(C_ProjectFolder::CARD, File_Of(*test.Card));
        if (test.Brick) folder.Write_List(C_ProjectFolder::BRICK, File_Of(*test.Brick));
        C_TAV_Bluetooth bluetooth;
        bluetooth.Add_BT_Device("Old", "", 7, 16);
        for (int call = 0; call < 2; ++call) {
            const int lowest = dup(0);
            close(lowest);
            tav_air::Start_Trace();
            EXPECT_EQ(bluetooth.BT_ParseFileDevices(), test.Result);
            EXPECT_EQ(Log_Lines(), Lines_Of({{"BT_ParseFileDevices", "Start|" + test.Steps}}));
            EXPECT_EQ(fcntl(lowest, F_GETFD) >= 0, test.Card || test.Brick) << "the stream stays open";
            std::string devices;
            for (const S_BT_ScanDevice& device : bluetooth.m_ScanDevices)
                if (device.Socket == -1 && device.Port == 0) devices += device.Name + "=" + device.AddrText + ";";
            EXPECT_TRUE(devices == test.Devices && bluetooth.m_ScanDevices[0].Socket == 7) << devices;
        }
    }
}

}  // namespace
