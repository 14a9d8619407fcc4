// Inquiry with its file, and the service query.
#include "tests/on_air.h"

#include <bluetooth/sdp.h>
#include <bluetooth/sdp_lib.h>

using namespace tav_c_api_impl;
using Lines = std::vector<std::string>;

namespace {

class Discovery : public C_OnAir
{
protected:
    Discovery() { tav_air::Put({"02:00:00:00:00:03", "Robot3", true, true, false}); }  // does not tell its name

    C_TAV_Bluetooth m_One;
};

TEST_F(Discovery, ScansInThisOrder)
{
    m_One.Add_BT_Device("Old", ROBOT1, -1, 0);
    tav_air::Put({"02:00:00:00:00:00", "Robot2"});  // of the same name as another
    tav_air::Put({"02:00:00:00:00:04", "Hidden", true, false});
    tav_air::Put({"02:00:00:00:00:05", "Absent", false});
    m_Folder.Write_List(C_ProjectFolder::CARD, std::string(1000, 'x'));
    EXPECT_EQ(m_One.BT_Scan(), 2);
    EXPECT_EQ(Steps("BT_Scan"),
              "Start; hci_get_route(); hci_open_dev(0); hci_inquiry(0, 8, 255, 1); "
              "DeleteFile(../prjs/SD_Card/__BTScan__); hci_read_remote_name(02:00:00:00:00:00); "
              "hci_read_remote_name(02:00:00:00:00:02); hci_read_remote_name(02:00:00:00:00:03); hci_close_dev()");
    std::string name;
    std::string address;
    ASSERT_TRUE(m_One.Get_ScanDevice(1, name, address));
    EXPECT_EQ(name + address, "Robot202:00:00:00:00:02");
    EXPECT_EQ(m_One.m_ScanDevices[1].Addr.b[0], 2) << "last byte first";
    EXPECT_EQ(m_One.Get_IndexScanDevice("Robot2"), 0) << "the first of that name";
    const std::string record = "52 6F 62 6F 74 32 00 1C 30 32 3A 30 30 3A 30 30 3A 30 30 3A 30 30 3A 30";
    EXPECT_EQ(m_Folder.Read_List(C_ProjectFolder::CARD), Bytes(record + " 30 00 1A " + record + " 32 00 1A"));

    C_TAV_Bluetooth reader;
    EXPECT_TRUE(reader.BT_ParseFileDevices());
    EXPECT_EQ(reader.m_ScanDevices.size(), 1U) << "two of one name";
}

TEST_F(Discovery, FailedScanChangesNothing)
{
    const struct
    {
        const char *Call, *Line;
    } CASES[] = {
        {"hci_get_route", "Error in fce hci_get_route(Error Code 19 : No such device)"},
        {"hci_open_dev", "Error in fce hci_open_dev(Error Code 19 : No such device)"},
        {"hci_inquiry", "Error in fce hci_inquiry(Error Code 19 : No such device)"},
    };
    m_One.Add_BT_Device("Old", ROBOT2, 99, 7);
    m_Folder.Write_List(C_ProjectFolder::CARD, "before");
    for (const auto& test : CASES) {
        SCOPED_TRACE(test.Call);
        Ask_Faults(std::string(test.Call) + ":1=ENODEV");
        EXPECT_EQ(m_One.BT_Scan(), -1);
        EXPECT_EQ(Log_Lines(),
                  (Lines{"C_TAV_Bluetooth::BT_Scan - Start", std::string("C_TAV_Bluetooth::BT_Scan - ") + test.Line}));
        EXPECT_TRUE(tav_air::Get_Open().empty());
        EXPECT_EQ(m_One.m_ScanDevices.at(0).Socket, 99);
        EXPECT_EQ(m_Folder.Read_List(C_ProjectFolder::CARD), "before");
    }
    tav_air::Act_As("");  // no adapter at all
    EXPECT_EQ(m_One.BT_Scan(), -1);
    EXPECT_EQ(m_One.Connect_Index(0, 16, 0), -1);
    EXPECT_EQ(Log_Lines().back(),
              "C_TAV_Bluetooth::Connect_Index - Error in fce connect(Error Code 113 : No route to host)");
}

TEST_F(Discovery, ScanWithoutCardOrFolder)
{
    const struct
    {
        bool Card, Brick;
    } CASES[] = {{true, true}, {false, true}, {false, false}};
    for (const auto& test : CASES) {
        C_ProjectFolder folder(test.Card);
        folder.Write_List(C_ProjectFolder::BRICK, "before");
        if (!test.Brick) std::filesystem::remove_all("../prjs");
        EXPECT_EQ(m_One.BT_Scan(), 1);
        EXPECT_EQ(folder.Read_List(C_ProjectFolder::CARD).has_value(), test.Card);
        const auto file = folder.Read_List(C_ProjectFolder::BRICK);
        EXPECT_EQ(file.value_or("none").size(), !test.Brick ? 4U
                                                : test.Card ? 6U
                                                            : 27U)
            << "deleted only where written";
        EXPECT_EQ(m_One.m_ScanDevices.size(), 1U);
        EXPECT_TRUE(tav_air::Get_Open().empty());
    }
}

TEST_F(Discovery, ScanForgetsConnectionsButKeepsThemOpen)
{
    const int server = As_Robot2([&] { return m_One.OpenServer(16); });
    ASSERT_EQ(m_One.BT_Scan(), 1);
    const int socket = m_One.Connect("Robot2", 16, 2000);
    ASSERT_GE(socket, 0);
    ASSERT_EQ(m_One.BT_Scan(), 1);
    EXPECT_EQ(m_One.isConnected("Robot2"), -1);
    EXPECT_EQ(tav_air::Get_Open(), (std::vector<int>{server, socket}));
    EXPECT_TRUE(m_One.Disconnect(socket)) << "by the remembered index";
}

// ---- Services -------------------------------------------------------------------------------------------------------

class Services : public Discovery
{
protected:
    Services()
    {
        tav_air::S_Brick brick = {ROBOT2, "Robot2"};
        brick.Services = {
            {"Mailboxes", "Bool and text", "TAV", 1, 0x1101}, {"", "", "", 16}, {"Plain", "", "", 0}, {"", "", "", -1}};
        tav_air::Put(brick);
        m_One.Add_BT_Device("Robot2", ROBOT2, -1, 0);
        m_One.Add_BT_Device("Robot3", "02:00:00:00:00:03", -1, 0);
    }
};

TEST_F(Services, SummariesOfAllRecords)
{
    for (int query = 0; query < 2; ++query) {
        tav_air::Start_Trace();
        EXPECT_EQ(m_One.Get_BT_Services_Count("Robot2"), 4) << "the second query starts anew";
    }
    std::string id;
    ASSERT_TRUE(m_One.Convert_UUID_to_String(&m_One.m_Services.at(0).ServiceId, id));
    EXPECT_NE(id.find("1101"), std::string::npos);
    EXPECT_EQ(Steps("Get_BT_Services"),
              "Start; sdp_connect(02:00:00:00:00:02); sdp_service_search_attr_req(); Service ID : " + id +
                  "; Service Name : Mailboxes; Service Description : Bool and text; Service Provider : TAV; Port : 1; "
                  "Port : 16; Service Name : Plain; Port : 0");
    EXPECT_EQ(tav_air::Get_Open().size(), 2U) << "the sessions stay open";

    EXPECT_EQ(m_One.m_Services[0].ServiceClasses.size(), 1U);
    EXPECT_EQ(m_One.m_Services[0].ProfileDescs.at(0).version, 0x0100);
    std::string text = "before";
    int port = -7;
    EXPECT_TRUE(m_One.Get_BT_Services_Name(0, text) && text == "Mailboxes");
    EXPECT_TRUE(m_One.Get_BT_Services_Description(0, text) && text == "Bool and text");
    EXPECT_TRUE(m_One.Get_BT_Services_Provider(0, text) && text == "TAV");
    EXPECT_TRUE(m_One.Get_BT_Services_Name(1, text) && text.empty());
    EXPECT_TRUE(m_One.Get_BT_Services_PortRFCOMM(1, port) && port == 16);
    text = "before";
    EXPECT_FALSE(m_One.Get_BT_Services_Name(4, text) || m_One.Get_BT_Services_Description(4, text) ||
                 m_One.Get_BT_Services_Provider(4, text) || m_One.Get_BT_Services_PortRFCOMM(4, port));
    EXPECT_FALSE(m_One.Convert_UUID_to_String(nullptr, text));
    uuid_t odd{};
    EXPECT_FALSE(m_One.Convert_UUID_to_String(&odd, text)) << "of no kind";
    EXPECT_EQ(text, "before");
    EXPECT_EQ(port, 16);
}

// By what a record mentions, and by no protocol that it does not list.
TEST_F(Services, SearchesFindWhatIsMentioned)
{
    bdaddr_t any{}, robot2{};
    str2ba(ROBOT2, &robot2);
    sdp_session_t* const session = sdp_connect(&any, &robot2, 0);
    ASSERT_NE(session, nullptr);
    const std::pair<std::uint16_t, int> COUNTS[] = {{PUBLIC_BROWSE_GROUP, 4}, {L2CAP_UUID, 3}, {RFCOMM_UUID, 2}};
    for (const auto& [number, count] : COUNTS) {
        uuid_t uuid{};
        sdp_list_t *found = nullptr, *search = sdp_list_append(nullptr, sdp_uuid16_create(&uuid, number));
        EXPECT_EQ(sdp_service_search_req(session, search, 99, &found), 0);
        EXPECT_EQ(sdp_list_len(found), count) << number;
        sdp_list_free(search, nullptr);
        sdp_list_free(found, free);
    }
    sdp_close(session);
}

TEST_F(Services, QueryLooksInListThenFileThenAir)
{
    const std::string file = Bytes("47 68 6F 73 74 00 1C 30 00 1A");
    const struct
    {
        const char *What, *Name;
        bool File;
        const char* Fault;
        int Count;
        long Scans;
    } CASES[] = {
        {"listed", "Robot3", false, "", 0, 0},     {"no file", "Robot2", false, "", -1, 0},
        {"in the file", "Ghost", true, "", -1, 0}, {"not in the file", "Robot2", true, "", 4, 1},
        {"nowhere", "Robot4", true, "", -1, 1},    {"scan fails", "Robot2", true, "hci_inquiry:1=EIO", -1, 1},
    };
    for (const auto& test : CASES) {
        SCOPED_TRACE(test.What);
        C_TAV_Bluetooth bluetooth;
        bluetooth.Add_BT_Device("Robot3", "02:00:00:00:00:03", -1, 0);
        DeleteFile("../prjs/SD_Card/__BTScan__");
        if (test.File) m_Folder.Write_List(C_ProjectFolder::CARD, file);
        Ask_Faults(test.Fault);
        EXPECT_EQ(bluetooth.Get_BT_Services_Count(test.Name), test.Count);
        EXPECT_EQ(Count("hci_inquiry"), test.Scans);
    }
}

}  // namespace
