// Inquiry, the device list and its file, and the service query.
#include "bluetooth/C_TAV_Bluetooth.h"
#include "bluetooth/constants.h"
#include "bluetooth/system_calls.h"
#include "util/file_readers.h"

#include <bluetooth/hci.h>
#include <bluetooth/hci_lib.h>
#include <bluetooth/sdp_lib.h>
#include <cstdint>
#include <cstdio>
#include <fcntl.h>
#include <memory>
#include <unistd.h>
#include <utility>

namespace tav_c_api_impl {

using namespace bluetooth_calls;
using namespace bluetooth_constants;
using tav_c_api::WriteLog_Dbg;

namespace {

// ---- Device list file -----------------------------------------------------------------------------------------------

constexpr unsigned int TEXT_LIMIT = 256;  // without effect, see File_Read_String

std::string Get_DevicePath(const char* folder)
{
    return std::string(folder) + DEVICE_FILE;
}

// Deletes and creates the file in the first folder that lets it be opened. Its descriptor, or -1.
int Create_DeviceFile()
{
    for (const char* folder : DEVICE_FOLDERS) {
        const std::string path = Get_DevicePath(folder);
        DeleteFile(path);
        const int file = open(path.c_str(), O_WRONLY | O_CREAT, 0666);
        if (file >= 0) return file;
    }
    return -1;
}

void Write_DeviceRecord(int file, const S_BT_ScanDevice& device)
{
    // A write that fails is not noticed; the lambda's result only tells the compiler that this is meant.
    const auto put = [file](const char* bytes, std::size_t size) { return write(file, bytes, size) >= 0; };
    put(device.Name.c_str(), device.Name.size() + 1);
    put(&FIELD_SEPARATOR, 1);
    put(device.AddrText.c_str(), device.AddrText.size() + 1);
    put(&RECORD_END, 1);
}

// The stream of the first file that opens, or null.
FILE* Open_DeviceFile()
{
    for (const char* folder : DEVICE_FOLDERS) {
        const std::string path = Get_DevicePath(folder);
        FILE* const file = fopen(path.c_str(), "rb");
        if (file) {
            WriteLog_Dbg("C_TAV_Bluetooth::BT_ParseFileDevices - Open file %s OK", path.c_str());
            return file;
        }
        WriteLog_Dbg("C_TAV_Bluetooth::BT_ParseFileDevices - Error (Not open file : %s)", path.c_str());
    }
    return nullptr;
}

bool Read_Mark(FILE* file, char mark)
{
    char read = 0;
    return File_Read_Character(file, read) && read == mark;
}

// ---- Inquiry --------------------------------------------------------------------------------------------------------

constexpr int MAX_RESPONSES = 255;
constexpr int NAME_SIZE = 248;  // the longest name of a device

// ---- Services -------------------------------------------------------------------------------------------------------

// Copies what a list of the BlueZ SDP library holds. The list is not released, on purpose.
template <typename VALUE>
void Append_All(const sdp_list_t* list, std::vector<VALUE>& values)
{
    for (; list; list = list->next)
        values.push_back(*static_cast<const VALUE*>(list->data));
}

// Reads a text attribute and logs it as `what`; a missing one leaves `text` as it is.
// The type of `get` differs between versions of BlueZ: it takes its buffer's size as int or as size_t.
template <typename GET>
void Read_Text(const sdp_record_t* record, GET get, const char* what, std::string& text)
{
    char buffer[512] = {};
    get(record, buffer, sizeof(buffer));
    if (buffer[0] == 0) return;
    text = Get_Text(buffer);
    WriteLog_Dbg("C_TAV_Bluetooth::Get_BT_Services - Service %s : %s", what, text.c_str());
}

// Reads the RFCOMM channel from a record's protocol list, of which only the top level is released, on purpose.
void Read_Port(const sdp_record_t* record, int& port)
{
    sdp_list_t* protocols = nullptr;
    if (sdp_get_access_protos(record, &protocols) != 0 || !protocols) return;
    port = sdp_get_proto_port(protocols, RFCOMM_UUID);
    sdp_list_free(protocols, nullptr);
    WriteLog_Dbg("C_TAV_Bluetooth::Get_BT_Services - Port : %d", port);
}

S_BT_ServicesData Read_Service(const C_TAV_Bluetooth& bluetooth, const sdp_record_t* record)
{
    S_BT_ServicesData service{};
    std::string text;
    if (sdp_get_service_id(record, &service.ServiceId) == 0 &&
        bluetooth.Convert_UUID_to_String(&service.ServiceId, text))
        WriteLog_Dbg("C_TAV_Bluetooth::Get_BT_Services - Service ID : %s", text.c_str());
    sdp_list_t* list = nullptr;
    if (sdp_get_service_classes(record, &list) == 0) Append_All(list, service.ServiceClasses);
    list = nullptr;
    if (sdp_get_profile_descs(record, &list) == 0) Append_All(list, service.ProfileDescs);
    Read_Text(record, sdp_get_service_name, "Name", service.Name);
    Read_Text(record, sdp_get_service_desc, "Description", service.Description);
    Read_Text(record, sdp_get_provider_name, "Provider", service.Provider);
    Read_Port(record, service.PortRFCOMM);
    return service;
}

// Asks for the public services with all their attributes. A negative result is the call's failure.
int Search_Services(sdp_session_t* session, sdp_list_t*& responses)
{
    uuid_t group{};
    sdp_uuid16_create(&group, PUBLIC_BROWSE_GROUP);
    sdp_list_t* const search = sdp_list_append(nullptr, &group);
    std::uint32_t range = 0x0000FFFF;
    sdp_list_t* const attributes = sdp_list_append(nullptr, &range);
    const int result = sdp_service_search_attr_req(session, search, SDP_ATTR_REQ_RANGE, attributes, &responses);
    if (result < 0) Fail_Call("Get_BT_Services", "sdp_service_search_attr_req");
    sdp_list_free(attributes, nullptr);
    sdp_list_free(search, nullptr);
    return result;
}

// Copies one field of service `index`; false when there is none.
template <typename FIELD, typename VALUE>
bool Copy_Field(const C_TAV_Bluetooth& bluetooth, unsigned int index, FIELD field, VALUE& value)
{
    if (index >= bluetooth.m_Services.size()) return false;
    value = bluetooth.m_Services[index].*field;
    return true;
}

}  // namespace

// ---- Device list ----------------------------------------------------------------------------------------------------

int C_TAV_Bluetooth::BT_Scan()
{
    constexpr const char* OPERATION = "BT_Scan";
    WriteLog_Dbg("C_TAV_Bluetooth::BT_Scan - Start");
    const int adapter = hci_get_route(nullptr);
    if (adapter < 0) return Fail_Call(OPERATION, "hci_get_route");
    const C_Guard<hci_close_dev> device(hci_open_dev(adapter));
    if (device.Get() < 0) return Fail_Call(OPERATION, "hci_open_dev");
    auto responses = std::make_unique<inquiry_info[]>(MAX_RESPONSES);
    inquiry_info* buffer = responses.get();
    const int count = hci_inquiry(adapter, INQUIRY_LENGTH, MAX_RESPONSES, nullptr, &buffer, IREQ_CACHE_FLUSH);
    if (count < 0) return Fail_Call(OPERATION, "hci_inquiry");
    const C_Guard<close> file(Create_DeviceFile());
    m_ScanDevices.clear();  // connected ones too; their sockets stay open
    for (int i = 0; i < count; ++i) {
        const bdaddr_t address = buffer[i].bdaddr;
        char addrText[32] = {};
        ba2str(&address, addrText);
        char name[NAME_SIZE] = {};
        if (hci_read_remote_name(device.Get(), &address, NAME_SIZE, name, 0) != 0) continue;
        m_ScanDevices.push_back(S_BT_ScanDevice(address, addrText, std::string(Get_Text(name))));
        if (file.Get() >= 0) Write_DeviceRecord(file.Get(), m_ScanDevices.back());
    }
    responses.reset();  // before the file and the adapter are closed
    return static_cast<int>(m_ScanDevices.size());
}

// The stream is not closed, on purpose.
bool C_TAV_Bluetooth::BT_ParseFileDevices()
{
    WriteLog_Dbg("C_TAV_Bluetooth::BT_ParseFileDevices - Start");
    FILE* const file = Open_DeviceFile();
    if (!file) return false;
    bool added = false;
    std::string name;
    std::string address;
    while (File_Read_String(file, TEXT_LIMIT, name)) {
        WriteLog_Dbg("C_TAV_Bluetooth::BT_ParseFileDevices - Name : %s", name.c_str());
        if (!Read_Mark(file, FIELD_SEPARATOR) || !File_Read_String(file, TEXT_LIMIT, address)) return added;
        WriteLog_Dbg("C_TAV_Bluetooth::BT_ParseFileDevices - Addr : %s", address.c_str());
        if (!Read_Mark(file, RECORD_END)) return added;
        Add_BT_Device(name, address, -1, 0);
        added = true;
    }
    return true;  // the end of the file, or of what can be read, at a name: fine even if nothing was added
}

int C_TAV_Bluetooth::Add_BT_Device(const std::string& name, const std::string& addrText, int socket, unsigned char port)
{
    if (Get_IndexScanDevice(name) >= 0) return -1;
    bdaddr_t address{};
    str2ba(addrText.c_str(), &address);
    S_BT_ScanDevice device(address, addrText, name);
    device.Socket = socket;
    device.Port = port;
    m_ScanDevices.push_back(std::move(device));
    return static_cast<int>(m_ScanDevices.size()) - 1;
}

bool C_TAV_Bluetooth::Get_ScanDevice(unsigned int index, std::string& name, std::string& addrText) const
{
    if (index >= m_ScanDevices.size()) return false;
    name = m_ScanDevices[index].Name;
    addrText = m_ScanDevices[index].AddrText;
    return true;
}

int C_TAV_Bluetooth::Get_IndexScanDevice(const std::string& name) const
{
    if (m_ScanDevices.empty()) return -1;
    for (std::size_t i = 0; i < m_ScanDevices.size(); ++i)
        if (m_ScanDevices[i].Name == name) return static_cast<int>(i);
    return -2;
}

// ---- Services -------------------------------------------------------------------------------------------------------

bool C_TAV_Bluetooth::Get_BT_Services(const std::string& name)
{
    WriteLog_Dbg("C_TAV_Bluetooth::Get_BT_Services - Start");
    m_Services.clear();
    int index = Get_IndexScanDevice(name);
    if (index < 0) {
        if (!BT_ParseFileDevices()) return false;  // without an inquiry, unlike Connect
        index = Get_IndexScanDevice(name);
        if (index < 0 && BT_Scan() < 0) return false;
        index = Get_IndexScanDevice(name);
    }
    if (index < 0) return false;
    const bdaddr_t any{};
    sdp_session_t* const session = sdp_connect(&any, &m_ScanDevices[static_cast<std::size_t>(index)].Addr, 0);
    if (!session) {
        Fail_Call("Get_BT_Services", "sdp_connect");
        return false;
    }
    sdp_list_t* responses = nullptr;
    if (Search_Services(session, responses) < 0) {
        sdp_close(session);
        return false;
    }
    // The nodes of the list are not released and the session is not closed, on purpose.
    for (const sdp_list_t* node = responses; node; node = node->next) {
        auto* const record = static_cast<sdp_record_t*>(node->data);
        m_Services.push_back(Read_Service(*this, record));
        sdp_record_free(record);
    }
    return true;
}

int C_TAV_Bluetooth::Get_BT_Services_Count(const std::string& name)
{
    return Get_BT_Services(name) ? static_cast<int>(m_Services.size()) : -1;
}

bool C_TAV_Bluetooth::Get_BT_Services_Name(unsigned int index, std::string& text) const
{
    return Copy_Field(*this, index, &S_BT_ServicesData::Name, text);
}

bool C_TAV_Bluetooth::Get_BT_Services_Description(unsigned int index, std::string& text) const
{
    return Copy_Field(*this, index, &S_BT_ServicesData::Description, text);
}

bool C_TAV_Bluetooth::Get_BT_Services_Provider(unsigned int index, std::string& text) const
{
    return Copy_Field(*this, index, &S_BT_ServicesData::Provider, text);
}

bool C_TAV_Bluetooth::Get_BT_Services_PortRFCOMM(unsigned int index, int& port) const
{
    return Copy_Field(*this, index, &S_BT_ServicesData::PortRFCOMM, port);
}

bool C_TAV_Bluetooth::Convert_UUID_to_String(const uuid_t* uuid, std::string& text) const
{
    if (!uuid) return false;
    char buffer[512] = {};
    if (sdp_uuid2strn(uuid, buffer, sizeof(buffer)) < 0) return false;
    text = Get_Text(buffer);
    return true;
}

}  // namespace tav_c_api_impl
