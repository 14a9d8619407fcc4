// What the kernel offers on HCI sockets, as far as BlueZ's library and tools ask for it; and the echo of L2CAP.
#include "sim/internals.h"

#include <algorithm>
#include <bluetooth/hci_lib.h>
#include <bluetooth/l2cap.h>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <sstream>
#include <sys/ioctl.h>

namespace tav_air {

namespace {

// Of Bluetooth 2.0, without simple pairing.
constexpr std::uint8_t FEATURES[8] = {0x07, 0, 0x04, 0, 0, 0, 0, 0};  // as the lab's radio has them
constexpr std::uint8_t VERSION[8] = {3, 0, 0, 3, 0xFF, 0xFF, 0, 0};
constexpr std::uint16_t ACL_SIZE = 1021;
constexpr std::uint16_t ACL_COUNT = 8;

// ---- ioctl ----------------------------------------------------------------------------------------------------------

std::uint32_t Get_Flags(const S_Brick& brick)
{
    if (!brick.Powered) return 0;
    return 1U << HCI_UP | 1U << HCI_RUNNING | 1U << HCI_PSCAN | (brick.Discoverable ? 1U << HCI_ISCAN : 0U);
}

void Fill_Info(const S_Brick& brick, hci_dev_info& info)
{
    info = {};
    strcpy(info.name, "hci0");
    info.bdaddr = Get_Binary(brick.Address);
    info.flags = Get_Flags(brick);
    memcpy(info.features, FEATURES, sizeof(FEATURES));
    info.type = HCI_UART;
    info.pkt_type = 0xCC18;
    info.link_policy = HCI_LP_RSWITCH | HCI_LP_HOLD | HCI_LP_SNIFF | HCI_LP_PARK;
    info.link_mode = HCI_LM_ACCEPT;
    info.acl_mtu = ACL_SIZE;
    info.acl_pkts = ACL_COUNT;
}

// Lists the links of a brick that there is room for.
void List_Connections(const S_Brick& brick, hci_conn_list_req& list)
{
    const std::lock_guard lock(State().Mutex);
    const int room = std::exchange(list.conn_num, std::uint16_t{0});
    for (const auto& [peer, hasCalled] : List_Links(brick.Address)) {
        if (list.conn_num == room) break;
        hci_conn_info& info = list.conn_info[list.conn_num++];
        const std::uint32_t mode = hasCalled ? HCI_LM_MASTER : 0;
        info = {list.conn_num, Get_Binary(peer), ACL_LINK, hasCalled, BT_CONNECTED, mode};
    }
}

// The bricks that answer now, in the order of addresses.
std::vector<std::string> Look_Around(const std::string& own)
{
    std::unique_lock lock(State().Mutex);
    const auto names = List_Names();
    lock.unlock();
    std::vector<std::string> found;
    for (const std::string& address : names) {
        if (address.size() != ADDRESS_SIZE || address == own) continue;
        const auto brick = Ask_Brick(address);
        if (brick && brick->Discoverable) found.push_back(address);
    }
    return found;
}

// Takes the whole time that is asked for, unless it tells what the last one found, not long ago.
int Inquire(const S_Adapter& own, hci_inquiry_req& request)
{
    std::istringstream seen(own.Seen);
    Clock::rep time = 0;
    seen >> time;
    std::vector<std::string> found{std::istream_iterator<std::string>(seen), {}};
    const auto until = Clock::time_point(Clock::duration(time)) + Scaled(REMEMBERED);
    if (found.empty() || Clock::now() > until || (request.flags & IREQ_CACHE_FLUSH) != 0) {
        if (!Sleep_UntilSignal(INQUIRY_UNIT * request.length / 2)) return -1;
        found = Look_Around(own.Address);
        if (!Sleep_UntilSignal(INQUIRY_UNIT * request.length / 2)) return -1;
        auto now = Get_Adapter(own.Address).value_or(own);  // which may have changed meanwhile
        now.Seen = std::to_string(Clock::now().time_since_epoch().count());
        for (const std::string& address : found)
            now.Seen += " " + address;
        Change_Everywhere(now);
    }
    const std::size_t count = std::min<std::size_t>(found.size(), request.num_rsp ? request.num_rsp : 255);
    auto* const infos = reinterpret_cast<inquiry_info*>(&request + 1);
    for (std::size_t i = 0; i < count; ++i) {
        const inquiry_info info{Get_Binary(found[i]), 1, 0, 0, {}, 0};
        memcpy(&infos[i], &info, sizeof(info));
    }
    request.num_rsp = static_cast<std::uint8_t>(count);
    return 0;
}

// ---- Commands and events --------------------------------------------------------------------------------------------

void Send_Later(const SocketPointer& socket, const std::string& packet, Clock::duration after)
{
    const std::lock_guard lock(State().Mutex);
    State().Later.emplace(Clock::now() + after, std::pair(socket, packet));
    Wake_Thread();
}

// Sends an event, unless the socket's filter is against it.
void Send_Event(const SocketPointer& socket, std::uint8_t event, const std::string& parameters, std::uint16_t opcode,
                Clock::duration after = Clock::duration::zero())
{
    const bool isAnswer = event == EVT_CMD_COMPLETE || event == EVT_CMD_STATUS;
    hci_filter filter = socket->Filter;
    if (!hci_filter_test_ptype(HCI_EVENT_PKT, &filter) || !hci_filter_test_event(event, &filter)) return;
    if (isAnswer && filter.opcode != 0 && !hci_filter_test_opcode(opcode, &filter)) return;
    const std::string header = {HCI_EVENT_PKT, static_cast<char>(event), static_cast<char>(parameters.size())};
    Send_Later(socket, header + parameters, after);
}

// The name event follows the command's status as soon as the device has told its name, or cannot.
void Ask_Name(const SocketPointer& socket, const std::string& parameters, std::uint16_t opcode)
{
    evt_remote_name_req_complete answer{};
    memcpy(&answer.bdaddr, parameters.data(), std::min(parameters.size(), sizeof(answer.bdaddr)));
    Send_Event(socket, EVT_CMD_STATUS, Bytes_Of(evt_cmd_status{0, 1, opcode}), opcode);
    const auto brick = Ask_Brick(Get_Text(answer.bdaddr));
    const bool tells = brick && brick->TellsName;
    answer.status = tells ? 0 : HCI_PAGE_TIMEOUT;
    if (tells) brick->Name.copy(reinterpret_cast<char*>(answer.name), sizeof(answer.name));
    Send_Event(socket, EVT_REMOTE_NAME_REQ_COMPLETE, Bytes_Of(answer), 0, Scaled(tells ? NAME_TIME : PAGE_TIMEOUT));
}

// What a command that is done at once returns, behind its status.
std::optional<std::string> Do_Command(S_Adapter own, int opcode, const std::string& parameters)
{
    constexpr auto info = [](int command) { return cmd_opcode_pack(OGF_INFO_PARAM, command); };
    constexpr auto control = [](int command) { return cmd_opcode_pack(OGF_HOST_CTL, command); };
    const std::string status(1, '\0');
    switch (opcode) {
    case info(OCF_READ_LOCAL_VERSION):
        return status + Bytes_Of(VERSION);
    case info(OCF_READ_LOCAL_FEATURES):
        return status + Bytes_Of(FEATURES);
    case info(OCF_READ_BD_ADDR):
        return status + Bytes_Of(Get_Binary(own.Address));
    case control(OCF_READ_LOCAL_NAME):
        own.Name.resize(HCI_MAX_NAME_LENGTH);
        return status + own.Name;
    case control(OCF_CHANGE_LOCAL_NAME):
        own.Name = parameters.substr(0, parameters.find('\0'));
        return Change_Everywhere(own), status;
    case control(OCF_READ_CLASS_OF_DEV):
        return status + std::string(3, '\0');
    case control(OCF_READ_SCAN_ENABLE):
        return status + static_cast<char>(own.Discoverable ? SCAN_PAGE | SCAN_INQUIRY : SCAN_PAGE);
    case control(OCF_WRITE_SCAN_ENABLE):
        own.Discoverable = (parameters[0] & SCAN_INQUIRY) != 0;
        return Change_Everywhere(own), status;
    default:
        return std::nullopt;
    }
}

}  // namespace

int Control_Adapter(const S_Socket& socket, unsigned long request, void* argument)
{
    auto* const list = static_cast<hci_dev_list_req*>(argument);
    auto adapter = Get_Adapter(socket.Own);
    if (request == HCIGETDEVLIST) {
        list->dev_num = adapter && list->dev_num > 0 ? 1 : 0;
        if (list->dev_num > 0) list->dev_req[0] = {0, Get_Flags(*adapter)};
        return 0;
    }
    // Elsewhere the adapter's number is the argument, or stands first behind it.
    const bool isNumber = request == HCIDEVUP || request == HCIDEVDOWN || request == HCIDEVRESET ||
                          request == HCIDEVRESTAT || request == HCISETRAW;
    std::uint16_t number = 0;
    if (isNumber)
        number = static_cast<std::uint16_t>(reinterpret_cast<std::uintptr_t>(argument));
    else
        memcpy(&number, argument, sizeof(number));
    if (!adapter || number != 0) return Fail(ENODEV);
    const bool wasPowered = adapter->Powered;
    switch (request) {
    case HCIGETDEVINFO:
        return Fill_Info(*adapter, *static_cast<hci_dev_info*>(argument)), 0;
    case HCIGETCONNLIST:
        return List_Connections(*adapter, *static_cast<hci_conn_list_req*>(argument)), 0;
    case HCIDEVUP:
    case HCIDEVDOWN:
        adapter->Powered = request == HCIDEVUP;
        Change_Everywhere(*adapter);
        return wasPowered && adapter->Powered ? Fail(EALREADY) : 0;
    }
    if (!wasPowered) return Fail(ENETDOWN);
    switch (request) {
    case HCIINQUIRY:
        return Inquire(*adapter, *static_cast<hci_inquiry_req*>(argument));
    case HCISETSCAN:
        adapter->Discoverable = (static_cast<hci_dev_req*>(argument)->dev_opt & SCAN_INQUIRY) != 0;
        return Change_Everywhere(*adapter), 0;
    case HCIDEVRESET:
        return 0;
    default:
        return Fail(EOPNOTSUPP);
    }
}

ssize_t Send_Command(const SocketPointer& socket, const std::string& packet)
{
    const auto adapter = Get_Adapter(socket->Own);
    if (!adapter) return Fail(ENODEV);
    if (!adapter->Powered) return Fail(ENETDOWN);
    constexpr std::size_t HEADER = 1 + HCI_COMMAND_HDR_SIZE;
    if (packet.size() < HEADER || packet[0] != HCI_COMMAND_PKT) return Fail(EINVAL);
    std::uint16_t opcode = 0;
    memcpy(&opcode, packet.data() + 1, sizeof(opcode));
    const std::string parameters = packet.substr(HEADER);
    if (opcode == cmd_opcode_pack(OGF_LINK_CTL, OCF_REMOTE_NAME_REQ)) {
        Ask_Name(socket, parameters, opcode);
    } else {
        const std::string unknown(1, static_cast<char>(HCI_UNKNOWN_COMMAND));
        const std::string returned = Do_Command(*adapter, opcode, parameters).value_or(unknown);
        Send_Event(socket, EVT_CMD_COMPLETE, Bytes_Of(evt_cmd_complete{1, opcode}) + returned, opcode);
    }
    return static_cast<ssize_t>(packet.size());
}

ssize_t Send_Signal(const SocketPointer& socket, const std::string& packet)
{
    if (packet[0] == L2CAP_ECHO_REQ && Ask_Brick(socket->Peer))
        Send_Later(socket, static_cast<char>(L2CAP_ECHO_RSP) + packet.substr(1), Scaled(NAME_TIME));
    return static_cast<ssize_t>(packet.size());
}

}  // namespace tav_air
