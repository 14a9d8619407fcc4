// The object and the device record, and the timed transfer that moves every byte of every message.
#include "bluetooth/C_TAV_Bluetooth.h"
#include "bluetooth/system_calls.h"

#include <sys/socket.h>

namespace tav_c_api_impl {

using namespace bluetooth_calls;
using tav_c_api::WriteLog_Dbg;

S_BT_ScanDevice::S_BT_ScanDevice() : Addr{}, Socket(-1), Port(0) {}

S_BT_ScanDevice::S_BT_ScanDevice(const bdaddr_t& addr, const std::string& addrText, const std::string& name)
    : Addr(addr), AddrText(addrText), Name(name), Socket(-1), Port(0)
{
}

C_TAV_Bluetooth::C_TAV_Bluetooth() : m_ServerSocket(-1), m_StopAccept(false), m_AcceptRunning(false) {}

C_TAV_Bluetooth::~C_TAV_Bluetooth()
{
    Close();
}

// Outgoing sockets, a server without clients and the accept thread are left alone on purpose.
void C_TAV_Bluetooth::Close()
{
    m_ScanDevices.clear();
    m_ClientSockets.clear();
    m_Services.clear();
    CloseAllServer();
    m_ServerClients.clear();
    m_ServerSocket = -1;
    m_StopAccept = false;
    m_AcceptRunning = false;
}

// Time-out, failed wait and failed receive are all -1, and an interrupted wait is a failure like any other: only the
// log tells them apart.
template <typename BYTE>
int C_TAV_Bluetooth::ReadData(int socket, BYTE* buf, unsigned int len, unsigned long timeout)
{
    WriteLog_Dbg("C_TAV_Bluetooth::ReadData - Start(%lu)", static_cast<unsigned long>(len));
    fd_set readable = Get_Set(socket);
    timeval time = Get_Timeval(timeout);
    const int ready = select(socket + 1, &readable, nullptr, nullptr, &time);
    if (ready < 0) return Fail_Call("ReadData", "select");
    if (ready == 0) {
        WriteLog_Dbg("C_TAV_Bluetooth::ReadData - Timeout");
        return -1;
    }
    WriteLog_Dbg("C_TAV_Bluetooth::ReadData - 1(%d)", ready);
    const int count = static_cast<int>(recv(socket, buf, len, 0));
    if (count < 0) Fail_Call("ReadData", "recv");
    WriteLog_Dbg("C_TAV_Bluetooth::ReadData - 2(%d)", count);
    return count;
}

template <typename BYTE>
int C_TAV_Bluetooth::WriteData(int socket, const BYTE* buf, unsigned int len)
{
    WriteLog_Dbg("C_TAV_Bluetooth::WriteData - Start(%lu)", static_cast<unsigned long>(len));
    fd_set writable = Get_Set(socket);
    const int ready = select(socket + 1, nullptr, &writable, nullptr, nullptr);
    if (ready < 0) return Fail_Call("WriteData", "select");
    WriteLog_Dbg("C_TAV_Bluetooth::WriteData - 1(%d)", ready);
    const int count = static_cast<int>(send(socket, buf, len, 0));
    if (count < 0) Fail_Call("WriteData", "send");
    WriteLog_Dbg("C_TAV_Bluetooth::WriteData - 2(%d)", count);
    return count;
}

template int C_TAV_Bluetooth::ReadData<char>(int, char*, unsigned int, unsigned long);
template int C_TAV_Bluetooth::WriteData<char>(int, const char*, unsigned int);

}  // namespace tav_c_api_impl
