// The two message formats: builders, readers, and the public operations that connect on demand.
#include "bluetooth/C_TAV_Bluetooth.h"
#include "bluetooth/constants.h"
#include "util/binary_dump.h"
#include "util/number_codecs.h"

#include <algorithm>
#include <memory>
#include <new>
#include <string_view>

namespace tav_c_api_impl {

using namespace bluetooth_constants;
using tav_c_api::WriteLog_Dbg;
using tav_c_api::WriteLogBinaryData_Dbg;

namespace {

// ---- Steps in the log -----------------------------------------------------------------------------------------------

// An operation whose log name is null writes no lines.

void Log_Step(const char* operation, const char* step)
{
    if (operation) WriteLog_Dbg("C_TAV_Bluetooth::%s - %s", operation, step);
}

void Log_Count(const char* operation, const char* step, int count)
{
    if (operation) WriteLog_Dbg("C_TAV_Bluetooth::%s - %s(%d)", operation, step, count);
}

void Log_Text(const char* operation, const char* step, std::string_view text)
{
    if (operation)
        WriteLog_Dbg("C_TAV_Bluetooth::%s - %s(%.*s)", operation, step, static_cast<int>(text.size()), text.data());
}

// ---- Bytes to send --------------------------------------------------------------------------------------------------

// A text with the NUL that ends it on the wire.
std::string_view With_Nul(const std::string& text)
{
    return {text.c_str(), text.size() + 1};
}

// The low 16 bits of a length; longer ones are truncated unchecked, on purpose.
void Append_Num16(std::string& message, std::size_t value)
{
    unsigned char bytes[2] = {};
    Write_NumBinary_To_Buf(static_cast<unsigned int>(value), bytes, sizeof(bytes));
    message.append({static_cast<char>(bytes[0]), static_cast<char>(bytes[1])});
}

// Classic message: length of the rest | counter | command | id length | id, NUL | payload length | payload.
// Id abc, bool true:          0C 00   |  01 00  |  81 9E  |    04     | 61 62 63 00 |    01 00   | 01
// Id abc, text Hi:            0E 00   |  01 00  |  81 9E  |    04     | 61 62 63 00 |    03 00   | 48 69 00
std::string Build_TAVOrg(const std::string& msgId, std::string_view payload)
{
    const std::size_t rest = 2 + 2 + 1 + (msgId.size() + 1) + 2 + payload.size();
    std::string message;
    message.reserve(2 + rest);
    Append_Num16(message, rest);
    Append_Num16(message, 1);
    message += WRITE_MAILBOX;
    message += static_cast<char>((msgId.size() + 1) & 0xFFU);
    message += With_Nul(msgId);
    Append_Num16(message, payload.size());
    message += payload;
    return message;
}

// Named message: type | sender, NUL | id, NUL     | value: bool 1 byte; text, NUL; or data size (4 bytes), data.
// Bool true:      03  |  41 42 00   | 61 62 63 00 | 01
// Text Hi:        01  |  41 42 00   | 61 62 63 00 | 48 69 00
// Data DE AD:     04  |  41 42 00   | 61 62 63 00 | 02 00 00 00 DE AD
//
// Starts `message` up to its value, with room for `valueSize` bytes of it. False when this brick has no name.
bool Build_TAV(const char* operation, unsigned char type, const std::string& msgId, std::size_t valueSize,
               std::string& message)
{
    Log_Step(operation, "Start");
    message = static_cast<char>(type);
    Log_Step(operation, "Set Msg Type");
    std::string sender;
    if (!Get_TAVBrickName(sender)) {
        Log_Step(operation, "Error(Not Brick Name)");
        return false;
    }
    message.reserve(1 + (sender.size() + 1) + (msgId.size() + 1) + valueSize);
    message += With_Nul(sender);
    Log_Text(operation, "Source Brick Name", sender);
    message += With_Nul(msgId);
    Log_Text(operation, "Msg Id", msgId);
    return true;
}

// Sends the message by one WriteData and logs the count as `countStep`. True when all of it was accepted.
bool Write_Message(C_TAV_Bluetooth& bluetooth, const char* operation, const char* countStep, int socket,
                   const std::string& message)
{
    const int count = bluetooth.WriteData(socket, message.data(), static_cast<unsigned int>(message.size()));
    if (count < 0) {
        Log_Step(operation, "Error Write data");
        return false;
    }
    Log_Count(operation, countStep, count);
    if (static_cast<std::size_t>(count) != message.size()) return false;
    Log_Step(operation, "End");
    return true;
}

// ---- Received bytes -------------------------------------------------------------------------------------------------

constexpr unsigned int FIXED_SIZE = 1024;

// Receives once into `buffer` and logs the count as `countStep`. Returns it, or -1.
int Receive_Fixed(C_TAV_Bluetooth& bluetooth, const char* operation, const char* countStep, int socket, char* buffer,
                  unsigned int size, unsigned long timeout)
{
    const int count = bluetooth.ReadData(socket, buffer, size, timeout);
    if (count < 0)
        Log_Step(operation, "Error (Read Data)");
    else
        Log_Count(operation, countStep, count);
    return count;
}

// What one receive brought. It stays in the fixed buffer or, for a large request, in a string of its own.
struct S_Received
{
    bool IsFixed = true;
    char Fixed[FIXED_SIZE] = {};
    std::size_t Count = 0;  // in Fixed
    std::string Large;

    std::string_view Get_Bytes() const { return IsFixed ? std::string_view(Fixed, Count) : Large; }
};

// How a reader receives: its name in the log, the step that logs the count, and the largest maxSize that the fixed
// buffer serves. A large request has room for as much beyond maxSize as the fixed buffer has beyond that limit.
struct S_Receiver
{
    const char* Operation;
    const char* CountStep;
    unsigned int FixedLimit;
};

// Receives once, in silence if the request is large. A large receive buffer is released before anything is parsed; a
// size that no memory is found for is a failed read, and a request that wraps at 32 bits asks for what is left of it.
bool Receive(C_TAV_Bluetooth& bluetooth, const S_Receiver& receiver, int socket, unsigned int maxSize,
             unsigned long timeout, S_Received& received)
{
    received.IsFixed = maxSize <= receiver.FixedLimit;
    if (received.IsFixed) {
        const int count = Receive_Fixed(bluetooth, receiver.Operation, receiver.CountStep, socket, received.Fixed,
                                        FIXED_SIZE, timeout);
        received.Count = static_cast<std::size_t>(std::max(count, 0));
        return count >= 0;
    }
    const unsigned int request = maxSize + (FIXED_SIZE - receiver.FixedLimit);
    const std::unique_ptr<char[]> buffer(new (std::nothrow) char[request]);
    if (!buffer) return false;
    const int count = bluetooth.ReadData(socket, buffer.get(), request, timeout);
    if (count >= 0) received.Large.assign(buffer.get(), static_cast<std::size_t>(count));
    return count >= 0;
}

// Received bytes, taken from the front. Every step takes a value, or returns false and takes nothing.
struct S_Cursor
{
    std::string_view Left;

    bool Skip(std::size_t count)
    {
        if (count > Left.size()) return false;
        Left.remove_prefix(count);
        return true;
    }

    bool Take_Byte(unsigned char& value)
    {
        if (!Left.empty()) value = static_cast<unsigned char>(Left[0]);
        return Skip(1);
    }

    bool Take_Num(unsigned int nbytes, unsigned int& value)
    {
        if (nbytes <= Left.size()) Write_BufByte_To_NumDec(Left.data(), nbytes, value);
        return Skip(nbytes);
    }

    // A text up to its NUL.
    bool Take_Text(std::string_view& text)
    {
        const std::size_t end = Left.find('\0');
        if (end == std::string_view::npos) return false;
        text = Left.substr(0, end);
        return Skip(end + 1);
    }
};

// The first bytes of `left`, all but one of `size`; a size of 0 wraps around and gives all of them.
std::string_view Without_Last(std::string_view left, std::size_t size)
{
    return left.substr(0, size - 1);
}

// Takes a classic message up to its payload length. False: too short, or another id.
bool Take_TAVOrgId(const char* operation, S_Cursor& in, const std::string& msgId)
{
    unsigned char size = 0;
    if (!in.Left.empty() && in.Left[0] == 0) in.Skip(1);  // one zero byte is skipped, whatever caused it
    if (!in.Skip(6) || !in.Take_Byte(size)) return false;
    WriteLog_Dbg("C_TAV_Bluetooth::%s - Length of MsgId : %lu", operation, static_cast<unsigned long>(size));
    if (size > in.Left.size()) return false;
    const std::string_view received = Without_Last(in.Left, size);
    WriteLog_Dbg("C_TAV_Bluetooth::%s - MsgId : %.*s", operation, static_cast<int>(received.size()), received.data());
    if (received == msgId) return in.Skip(size);
    Log_Step(operation, "Error (Msg Id)");
    return false;
}

// What a reader of the named format expects and how it words its steps; only NoNameEnd and NoIdEnd may be null in a
// reader that logs, which then writes no line.
struct S_TAVReader
{
    unsigned char Type;
    const char* NoNameEnd;  // no NUL after the sender's name
    const char* Name;
    const char* OtherName;
    const char* NoIdEnd;  // no NUL after the id
    const char* Id;
    const char* OtherId;
};

constexpr S_TAVReader READ_TEXT = {
    TYPE_TEXT, "2(Error find)", "3", "Error (Device Name)", "4(Error find)", "4", "Error (Msg Id)",
};
constexpr S_TAVReader READ_BOOL = {TYPE_BOOL, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr};
constexpr S_TAVReader READ_DATA = {
    TYPE_DATA, nullptr, "Brick Name", "Error(Device Name)", nullptr, "Msg Id", "Error(Msg Id)",
};

// Takes one of the two texts at the head of a named message and compares it.
bool Take_TAVText(const char* operation, S_Cursor& in, const std::string& expected, const char* noEnd, const char* step,
                  const char* other)
{
    std::string_view received;
    if (!in.Take_Text(received)) {
        if (noEnd) Log_Step(operation, noEnd);
        return false;
    }
    Log_Text(operation, step, received);
    if (received == expected) return true;
    Log_Step(operation, other);
    return false;
}

// Takes a named message up to its value. False: another type, sender or id, or cut within them.
bool Take_TAVHeader(const char* operation, const S_TAVReader& reader, S_Cursor& in, const std::string& name,
                    const std::string& msgId)
{
    unsigned char type = 0;  // stays 0 when nothing was received
    in.Take_Byte(type);
    if (type != reader.Type) {
        if (operation)
            WriteLog_Dbg(reader.Type == TYPE_DATA ? "C_TAV_Bluetooth::%s - Error (Not type data : %u)"
                                                  : "C_TAV_Bluetooth::%s - Error (Not type string : %u)",
                         operation, type);
        return false;
    }
    return Take_TAVText(operation, in, name, reader.NoNameEnd, reader.Name, reader.OtherName) &&
           Take_TAVText(operation, in, msgId, reader.NoIdEnd, reader.Id, reader.OtherId);
}

// ---- Devices by name ------------------------------------------------------------------------------------------------

struct S_MsgOperation
{
    const char* Name;          // in the log lines; null: writes none
    const char* NotConnected;  // step logged before connecting
    unsigned char Channel;     // to connect to
};

// The socket of the named device, connected now if need be; -1 when that fails.
int Get_MsgSocket(C_TAV_Bluetooth& bluetooth, const S_MsgOperation& operation, const std::string& name)
{
    Log_Step(operation.Name, "Start");
    const int index = bluetooth.isConnected(name);
    if (index >= 0) {
        const int socket = bluetooth.m_ScanDevices[static_cast<std::size_t>(index)].Socket;
        Log_Count(operation.Name, "3", socket);
        return socket;
    }
    Log_Step(operation.Name, operation.NotConnected);
    const int socket = bluetooth.Connect(name, operation.Channel, CONNECT_TIMEOUT_MS);
    if (socket < 0)
        Log_Step(operation.Name, "Error(Not Connect)");
    else
        Log_Count(operation.Name, "2", socket);
    return socket;
}

}  // namespace

// ---- Named format, by socket ----------------------------------------------------------------------------------------

bool C_TAV_Bluetooth::_SendMsg_TAV_Data(int socket, const std::string& msgId, const unsigned char* data,
                                        unsigned int size)
{
    constexpr const char* OPERATION = "_SendMsg_TAV_Data";
    std::string message;
    if (!Build_TAV(OPERATION, TYPE_DATA, msgId, std::size_t{4} + size, message)) return false;
    unsigned char sizeBytes[4] = {};
    Write_NumBinary_To_Buf(size, sizeBytes, sizeof(sizeBytes));
    message.append(reinterpret_cast<const char*>(sizeBytes), sizeof(sizeBytes));
    WriteLog_Dbg("C_TAV_Bluetooth::%s - Data Size(%lu)", OPERATION, static_cast<unsigned long>(size));
    message.append(reinterpret_cast<const char*>(data), size);
    Log_Step(OPERATION, "Data");
    return Write_Message(*this, OPERATION, "Write Data", socket, message);
}

bool C_TAV_Bluetooth::_SendMsg_TAV_Bool(int socket, const std::string& msgId, bool value)
{
    std::string message;
    if (!Build_TAV(nullptr, TYPE_BOOL, msgId, 1, message)) return false;
    message += value ? '\1' : '\0';
    return Write_Message(*this, nullptr, nullptr, socket, message);
}

bool C_TAV_Bluetooth::_SendMsg_TAV_String(int socket, const std::string& msgId, const std::string& text)
{
    constexpr const char* OPERATION = "_SendMsg_TAV_String";
    std::string message;
    if (!Build_TAV(OPERATION, TYPE_TEXT, msgId, text.size() + 1, message)) return false;
    message += With_Nul(text);
    Log_Text(OPERATION, "String", text);
    return Write_Message(*this, OPERATION, "5", socket, message);
}

int C_TAV_Bluetooth::_ReadMsg_TAV_Data(int socket, const std::string& name, const std::string& msgId, std::string& data,
                                       unsigned int maxSize, unsigned long timeout)
{
    constexpr S_Receiver RECEIVER = {"_ReadMsg_TAV_Data", "Read Data", FIXED_DATA_LIMIT};
    Log_Step(RECEIVER.Operation, "Start");
    data.clear();
    S_Received received;
    if (!Receive(*this, RECEIVER, socket, maxSize, timeout, received)) return -1;
    S_Cursor in{received.Get_Bytes()};
    if (!Take_TAVHeader(received.IsFixed ? RECEIVER.Operation : nullptr, READ_DATA, in, name, msgId)) return -1;
    unsigned int size = 0;
    if (!in.Take_Num(4, size) || in.Left.empty()) return -1;  // at least one byte must follow the size
    data = in.Left.substr(0, std::min(maxSize, size));
    return static_cast<int>(data.size());
}

bool C_TAV_Bluetooth::_ReadMsg_TAV_Bool(int socket, const std::string& name, const std::string& msgId, bool& value,
                                        unsigned long timeout)
{
    char buffer[FIXED_SIZE] = {};
    const int count = Receive_Fixed(*this, nullptr, nullptr, socket, buffer, sizeof(buffer), timeout);
    if (count < 0) return false;
    S_Cursor in{{buffer, static_cast<std::size_t>(count)}};
    unsigned char byte = 0;
    if (!Take_TAVHeader(nullptr, READ_BOOL, in, name, msgId) || !in.Take_Byte(byte)) return false;
    value = byte != 0;
    return true;
}

int C_TAV_Bluetooth::_ReadMsg_TAV_String(int socket, const std::string& name, const std::string& msgId,
                                         std::string& text, unsigned int maxSize, unsigned long timeout)
{
    constexpr S_Receiver RECEIVER = {"_ReadMsg_TAV_String", "1", FIXED_TEXT_LIMIT};
    Log_Step(RECEIVER.Operation, "Start");
    S_Received received;
    if (!Receive(*this, RECEIVER, socket, maxSize, timeout, received)) return -1;
    const char* const operation = received.IsFixed ? RECEIVER.Operation : nullptr;
    S_Cursor in{received.Get_Bytes()};
    if (!Take_TAVHeader(operation, READ_TEXT, in, name, msgId)) return -1;
    text = Without_Last(in.Left, in.Left.size());  // the last byte is dropped, whatever it holds
    Log_Text(operation, "5", text);
    return static_cast<int>(text.size());
}

// ---- Classic format, by socket --------------------------------------------------------------------------------------

bool C_TAV_Bluetooth::_SendMsg_TAVOrg_Bool(int socket, const std::string& msgId, bool value)
{
    constexpr const char* OPERATION = "_SendMsg_TAVOrg_Bool";
    Log_Step(OPERATION, "Start");
    const char payload = value ? '\1' : '\0';
    return Write_Message(*this, OPERATION, "5", socket, Build_TAVOrg(msgId, {&payload, 1}));
}

bool C_TAV_Bluetooth::_SendMsg_TAVOrg_String(int socket, const std::string& msgId, const std::string& text)
{
    constexpr const char* OPERATION = "_SendMsg_TAVOrg_String";
    Log_Step(OPERATION, "Start");
    return Write_Message(*this, OPERATION, "5", socket, Build_TAVOrg(msgId, With_Nul(text)));
}

bool C_TAV_Bluetooth::_ReadMsg_TAVOrg_Bool(int socket, const std::string& /*name*/, const std::string& msgId,
                                           bool& value, unsigned long timeout)
{
    constexpr const char* OPERATION = "_ReadMsg_TAVOrg_Bool";
    Log_Step(OPERATION, "Start");
    char buffer[32] = {};
    const int count = Receive_Fixed(*this, OPERATION, "1", socket, buffer, sizeof(buffer), timeout);
    if (count < 0) return false;
    WriteLogBinaryData_Dbg(buffer, static_cast<unsigned int>(count));
    S_Cursor in{{buffer, static_cast<std::size_t>(count)}};
    unsigned char byte = 0;
    if (!Take_TAVOrgId(OPERATION, in, msgId) || !in.Skip(2) || !in.Take_Byte(byte)) return false;
    WriteLog_Dbg("C_TAV_Bluetooth::%s - Bool Value : %u", OPERATION, byte);
    value = byte != 0;
    return true;
}

// Only the receive is silent for a large `maxSize`, unlike in the named format.
int C_TAV_Bluetooth::_ReadMsg_TAVOrg_String(int socket, const std::string& /*name*/, const std::string& msgId,
                                            std::string& text, unsigned int maxSize, unsigned long timeout)
{
    constexpr S_Receiver RECEIVER = {"_ReadMsg_TAVOrg_String", "1", FIXED_CLASSIC_TEXT_LIMIT};
    Log_Step(RECEIVER.Operation, "Start");
    S_Received received;
    if (!Receive(*this, RECEIVER, socket, maxSize, timeout, received)) return -1;
    if (received.IsFixed) WriteLogBinaryData_Dbg(received.Fixed, static_cast<unsigned int>(received.Count));
    S_Cursor in{received.Get_Bytes()};
    unsigned int size = 0;
    if (!Take_TAVOrgId(RECEIVER.Operation, in, msgId) || !in.Take_Num(2, size)) return -1;
    WriteLog_Dbg("C_TAV_Bluetooth::%s - Length of Msg Text : %lu", RECEIVER.Operation,
                 static_cast<unsigned long>(size));
    if (size > in.Left.size()) return -1;
    text = Without_Last(in.Left, size);
    WriteLog_Dbg("C_TAV_Bluetooth::%s - Msg Text : %s", RECEIVER.Operation, text.c_str());
    return static_cast<int>(text.size());
}

// ---- By device name -------------------------------------------------------------------------------------------------

bool C_TAV_Bluetooth::SendMsg_TAV_Data(const std::string& name, const std::string& msgId, const unsigned char* data,
                                       unsigned int size)
{
    const int socket = Get_MsgSocket(*this, {"SendMsg_TAV_Data", "1", NAMED_CHANNEL}, name);
    return socket >= 0 && _SendMsg_TAV_Data(socket, msgId, data, size);
}

bool C_TAV_Bluetooth::SendMsg_TAV_Bool(const std::string& name, const std::string& msgId, bool value)
{
    const int socket = Get_MsgSocket(*this, {nullptr, nullptr, NAMED_CHANNEL}, name);
    return socket >= 0 && _SendMsg_TAV_Bool(socket, msgId, value);
}

bool C_TAV_Bluetooth::SendMsg_TAV_String(const std::string& name, const std::string& msgId, const std::string& text)
{
    const int socket = Get_MsgSocket(*this, {"SendMsg_TAV_String", "1", NAMED_CHANNEL}, name);
    return socket >= 0 && _SendMsg_TAV_String(socket, msgId, text);
}

int C_TAV_Bluetooth::ReadMsg_TAV_Data(const std::string& name, const std::string& msgId, std::string& data,
                                      unsigned int maxSize, unsigned long timeout)
{
    const int socket = Get_MsgSocket(*this, {"ReadMsg_TAV_Data", "1(Not Connected)", NAMED_CHANNEL}, name);
    return socket < 0 ? -1 : _ReadMsg_TAV_Data(socket, name, msgId, data, maxSize, timeout);
}

bool C_TAV_Bluetooth::ReadMsg_TAV_Bool(const std::string& name, const std::string& msgId, bool& value,
                                       unsigned long timeout)
{
    const int socket = Get_MsgSocket(*this, {nullptr, nullptr, NAMED_CHANNEL}, name);
    return socket >= 0 && _ReadMsg_TAV_Bool(socket, name, msgId, value, timeout);
}

int C_TAV_Bluetooth::ReadMsg_TAV_String(const std::string& name, const std::string& msgId, std::string& text,
                                        unsigned int maxSize, unsigned long timeout)
{
    const int socket = Get_MsgSocket(*this, {"ReadMsg_TAV_String", "1(Not Connected)", NAMED_CHANNEL}, name);
    return socket < 0 ? -1 : _ReadMsg_TAV_String(socket, name, msgId, text, maxSize, timeout);
}

bool C_TAV_Bluetooth::SendMsg_TAVOrg_Bool(const std::string& name, const std::string& msgId, bool value)
{
    const int socket = Get_MsgSocket(*this, {"SendMsg_TAVOrg_Bool", "1", CLASSIC_CHANNEL}, name);
    return socket >= 0 && _SendMsg_TAVOrg_Bool(socket, msgId, value);
}

bool C_TAV_Bluetooth::SendMsg_TAVOrg_String(const std::string& name, const std::string& msgId, const std::string& text)
{
    const int socket = Get_MsgSocket(*this, {"SendMsg_TAVOrg_String", "1", CLASSIC_CHANNEL}, name);
    return socket >= 0 && _SendMsg_TAVOrg_String(socket, msgId, text);
}

bool C_TAV_Bluetooth::ReadMsg_TAVOrg_Bool(const std::string& name, const std::string& msgId, bool& value,
                                          unsigned long timeout)
{
    const int socket = Get_MsgSocket(*this, {"ReadMsg_TAVOrg_Bool", "1(Not Connected)", CLASSIC_CHANNEL}, name);
    return socket >= 0 && _ReadMsg_TAVOrg_Bool(socket, name, msgId, value, timeout);
}

int C_TAV_Bluetooth::ReadMsg_TAVOrg_String(const std::string& name, const std::string& msgId, std::string& text,
                                           unsigned int maxSize, unsigned long timeout)
{
    const int socket = Get_MsgSocket(*this, {"ReadMsg_TAVOrg_String", "1(Not Connected)", CLASSIC_CHANNEL}, name);
    return socket < 0 ? -1 : _ReadMsg_TAVOrg_String(socket, name, msgId, text, maxSize, timeout);
}

}  // namespace tav_c_api_impl
