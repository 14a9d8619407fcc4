// scan
#include "tools/tavbt/base/failure.h"
#include "tools/tavbt/base/options.h"
#include "tools/tavbt/base/terminal.h"
#include "tools/tavbt/base/text.h"
#include "tools/tavbt/link/device_list.h"
#include "tools/tavbt/verbs/verbs.h"

#include <filesystem>

namespace tavbt {

namespace {

void Run_Scan()
{
    const auto start = std::filesystem::file_time_type::clock::now();
    C_TAV_Bluetooth bluetooth;
    Scan(bluetooth);
    Print_Devices(bluetooth);
    const std::size_t count = bluetooth.m_ScanDevices.size();
    if (count == 0)
        throw S_Failure{NOT_FOUND, "no device answered",
                        "are the others switched on, in range and discoverable? On each: tavbt doctor"};
    const std::string file = Get_ListFile();
    std::error_code none;
    const bool kept = !file.empty() && std::filesystem::last_write_time(file, none) >= start - std::chrono::seconds(1);
    const std::string folder = Get_ListFolder();
    std::string fate = ", not kept: " + folder + " is not writable";
    if (kept) fate = ", kept in " + file;
    if (folder.empty()) fate = "; to keep the list for other verbs: " + std::string(MAKE_LIST_FOLDER);
    Note(Count_Of(count, "device") + fate);
}

}  // namespace

void Add_Scan(CLI::App& app)
{
    CLI::App& verb = Add_Verb(
        app, "scan",
        "Looks around for other bricks. It takes 10.24 s, and then asks all who answered for their names; the list "
        "is kept in the device list file, if there is a folder for it (../prjs/SD_Card or ../prjs).",
        "tavbt scan\n"
        "tavbt scan --json | jq -r .name");
    On_Run(verb, Run_Scan);
}

}  // namespace tavbt
