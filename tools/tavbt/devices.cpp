// scan, devices, services
#include "tools/tavbt/link.h"
#include "tools/tavbt/reasons.h"
#include "tools/tavbt/terminal.h"
#include "tools/tavbt/verbs.h"

#include <filesystem>
#include <memory>

namespace tavbt {

namespace {

constexpr int LAST_RFCOMM_CHANNEL = 30;

void Print_Devices(const C_TAV_Bluetooth& bluetooth)
{
    std::vector<std::vector<std::string>> rows;
    for (const S_BT_ScanDevice& device : bluetooth.m_ScanDevices)
        if (Style().Json)
            Print({{"address", device.AddrText}, {"name", device.Name}});
        else
            rows.push_back({Printable(device.AddrText), Printable(device.Name)});
    if (!rows.empty()) Print_Table({"ADDRESS", "NAME"}, rows);
}

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

void Run_Devices()
{
    const std::string path = Get_ListFile();
    if (path.empty())
        throw S_Failure{NOT_FOUND,
                        "there is no device list file, neither ../prjs/SD_Card/__BTScan__ nor ../prjs/__BTScan__",
                        std::string(MAKE_LIST_FOLDER) + " && tavbt scan"};
    C_TAV_Bluetooth bluetooth;
    bluetooth.BT_ParseFileDevices();
    Print_Devices(bluetooth);
    const std::size_t damage = Find_ListDamage(path);
    if (damage != std::string::npos)
        throw S_Failure{DAMAGED,
                        path + " is damaged from byte " + std::to_string(damage) + " on; nothing behind is read",
                        "tavbt scan writes it anew"};
    if (bluetooth.m_ScanDevices.empty()) Note("the list is empty");
}

void Run_Services(const std::string& name, const std::string& address)
{
    C_TAV_Bluetooth bluetooth;
    Find_Brick(bluetooth, name, address);
    Take_Reason();
    const int count = bluetooth.Get_BT_Services_Count(name);
    if (count < 0) throw Explain(Take_Reason(), name, 0);
    std::vector<std::vector<std::string>> rows;
    for (unsigned int i = 0; i < static_cast<unsigned int>(count); ++i) {
        std::string service;
        std::string description;
        std::string provider;
        int channel = 0;
        bluetooth.Get_BT_Services_Name(i, service);
        bluetooth.Get_BT_Services_Description(i, description);
        bluetooth.Get_BT_Services_Provider(i, provider);
        bluetooth.Get_BT_Services_PortRFCOMM(i, channel);
        const bool hasChannel = channel >= 1 && channel <= LAST_RFCOMM_CHANNEL;
        if (Style().Json)
            Print({{"name", service},
                   {"description", description},
                   {"provider", provider},
                   {"channel", hasChannel ? nlohmann::ordered_json(channel) : nlohmann::ordered_json()}});
        else
            rows.push_back({hasChannel ? std::to_string(channel) : "-", Printable(service), Printable(description),
                            Printable(provider)});
    }
    if (!rows.empty()) Print_Table({"CHANNEL", "NAME", "DESCRIPTION", "PROVIDER"}, rows);
    Note(Count_Of(static_cast<std::size_t>(count), "public service"));
}

}  // namespace

void Add_DeviceVerbs(CLI::App& app)
{
    Add_Verb(
        app, "scan",
        "Looks around for other bricks. It takes 10.24 s, and then asks all who answered for their names; the list "
        "is kept in the device list file, if there is a folder for it (../prjs/SD_Card or ../prjs).",
        "tavbt scan\n"
        "tavbt scan --json | jq -r .name")
        ->callback(Run_Scan);
    Add_Verb(app, "devices", "Lists the devices of the device list file, without looking around.",
             "tavbt devices\n"
             "tavbt devices --json")
        ->callback(Run_Devices);

    auto* const services = Add_Verb(app, "services", "Lists the public services (SDP) of a device.",
                                    "tavbt services Robot2\n"
                                    "tavbt services Robot2 --address 12:34:56:78:9A:BC");
    const auto name = std::make_shared<std::string>();
    const auto address = std::make_shared<std::string>();
    services->add_option("NAME", *name, "the device")->required();
    Add_Address(*services, *address);
    services->callback([name, address] { Run_Services(*name, *address); });
}

}  // namespace tavbt
