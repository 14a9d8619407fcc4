#include "tools/tavbt/link/device_list.h"

#include "api/tav_c_api.h"
#include "bluetooth/constants.h"
#include "tools/tavbt/base/failure.h"
#include "tools/tavbt/base/process.h"
#include "tools/tavbt/base/signals.h"
#include "tools/tavbt/base/terminal.h"
#include "tools/tavbt/base/text.h"
#include "tools/tavbt/link/reasons.h"

#include <filesystem>
#include <nlohmann/json.hpp>
#include <strings.h>
#include <unistd.h>

namespace tavbt {

using namespace tav_c_api_impl::bluetooth_constants;

namespace {

constexpr double SCAN_SECONDS = 1.28 * INQUIRY_LENGTH;
constexpr const char* NO_FILE = " is no file";

// Whether something stands at the path that is neither a file nor leads to one.
bool Is_Other(const std::string& path)
{
    std::error_code none;
    return std::filesystem::exists(path, none) && !std::filesystem::is_regular_file(path, none);
}

// A brick whose name differs in capitals only, as a hint; empty: none.
std::string Get_Similar(const C_TAV_Bluetooth& bluetooth, const std::string& name)
{
    for (const S_BT_ScanDevice& device : bluetooth.m_ScanDevices)
        if (strcasecmp(device.Name.c_str(), name.c_str()) == 0) return device.Name;
    return "";
}

}  // namespace

std::string Get_ListFolder()
{
    for (const char* const folder : DEVICE_FOLDERS)
        if (std::filesystem::is_directory(folder)) return folder;
    return "";
}

std::string Get_ListFile()
{
    for (const char* const folder : DEVICE_FOLDERS) {
        std::string file = std::string(folder) + DEVICE_FILE;
        if (access(file.c_str(), R_OK) == 0) return file;
    }
    return "";
}

void Read_List(C_TAV_Bluetooth& bluetooth)
{
    if (Get_ListFile().empty()) return;
    for (const char* const folder : DEVICE_FOLDERS) {
        const std::string path = std::string(folder) + DEVICE_FILE;
        if (Is_Other(path)) throw S_Failure{FAILED, path + NO_FILE, "rm " + path + " && tavbt scan"};
    }
    bluetooth.BT_ParseFileDevices();
}

std::string Find_ListFlaw(const std::string& path)
{
    if (Is_Other(path)) return NO_FILE;
    const std::string file = Read_File(path);
    std::size_t at = 0;
    while (at < file.size()) {
        const std::size_t name = file.find('\0', at);
        const std::size_t address = name == std::string::npos ? name : file.find('\0', name + 1);
        if (address == std::string::npos || file[name + 1] != FIELD_SEPARATOR ||
            file.substr(address + 1, 1) != std::string(1, RECORD_END))
            return " is damaged from byte " + std::to_string(at) + " on; nothing behind is read";
        at = address + 2;
    }
    return "";
}

void Scan(C_TAV_Bluetooth& bluetooth)
{
    Take_Reason();
    int count = 0;
    {
        const C_Progress progress("Looking around", SCAN_SECONDS);
        count = bluetooth.BT_Scan();
    }
    if (count < 0) throw Explain(Take_Reason(), "", 0);
    Stop_If_Asked();
}

unsigned int Find_Brick(C_TAV_Bluetooth& bluetooth, const std::string& name, const std::string& address)
{
    if (!address.empty()) return static_cast<unsigned int>(bluetooth.Add_BT_Device(name, address, -1, 0));
    Read_List(bluetooth);
    std::string own;
    if (bluetooth.Get_IndexScanDevice(name) < 0 && tav_c_api_impl::Get_TAVBrickName(own) && own == name)
        throw S_Failure{NOT_FOUND, Quoted(name) + " is this brick itself"};
    if (bluetooth.Get_IndexScanDevice(name) < 0) Scan(bluetooth);
    const int index = bluetooth.Get_IndexScanDevice(name);
    if (index >= 0) return static_cast<unsigned int>(index);
    const std::string similar = Get_Similar(bluetooth, name);
    if (!similar.empty())
        throw S_Failure{NOT_FOUND, "there is no " + Quoted(name) + ", but there is " + Quoted(similar),
                        "names are compared exactly, capitals and all"};
    throw S_Failure{NOT_FOUND, Quoted(name) + " was not found",
                    "is it switched on, in range and discoverable? tavbt scan shows who is, tavbt doctor looks at this "
                    "brick's own adapter"};
}

void Print_Devices(const C_TAV_Bluetooth& bluetooth)
{
    C_Table table({"ADDRESS", "NAME"});
    for (const S_BT_ScanDevice& device : bluetooth.m_ScanDevices)
        table.Add({Printable(device.AddrText), Printable(device.Name)},
                  {{"address", device.AddrText}, {"name", device.Name}});
    table.Print();
}

std::string Get_NameOf(const C_TAV_Bluetooth& bluetooth, const S_BT_ScanDevice& wanted)
{
    for (const S_BT_ScanDevice& device : bluetooth.m_ScanDevices)
        if (device.AddrText == wanted.AddrText) return Printable(device.Name);
    return wanted.AddrText;
}

}  // namespace tavbt
