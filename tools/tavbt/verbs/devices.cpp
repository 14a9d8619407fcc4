// devices
#include "tools/tavbt/base/failure.h"
#include "tools/tavbt/base/options.h"
#include "tools/tavbt/base/terminal.h"
#include "tools/tavbt/base/text.h"
#include "tools/tavbt/link/device_list.h"
#include "tools/tavbt/verbs/verbs.h"

namespace tavbt {

namespace {

void Run_Devices()
{
    const std::string path = Get_ListFile();
    if (path.empty())
        throw S_Failure{NOT_FOUND,
                        "there is no device list file, neither ../prjs/SD_Card/__BTScan__ nor ../prjs/__BTScan__",
                        std::string(MAKE_LIST_FOLDER) + " && tavbt scan"};
    C_TAV_Bluetooth bluetooth;
    Read_List(bluetooth);
    Print_Devices(bluetooth);
    const std::string flaw = Find_ListFlaw(path);
    if (!flaw.empty()) throw S_Failure{DAMAGED, path + flaw, "tavbt scan writes it anew"};
    if (bluetooth.m_ScanDevices.empty()) Note("the list is empty");
}

}  // namespace

void Add_Devices(CLI::App& app)
{
    CLI::App& verb = Add_Verb(app, "devices", "Lists the devices of the device list file, without looking around.",
                              "tavbt devices\n"
                              "tavbt devices --json");
    On_Run(verb, Run_Devices);
}

}  // namespace tavbt
