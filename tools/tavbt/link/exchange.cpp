#include "tools/tavbt/link/exchange.h"

#include "bluetooth/constants.h"
#include "tools/tavbt/base/signals.h"
#include "tools/tavbt/base/terminal.h"
#include "tools/tavbt/base/text.h"
#include "tools/tavbt/link/json.h"
#include "tools/tavbt/link/reasons.h"

#include <algorithm>
#include <iterator>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace tavbt {

using namespace tav_c_api_impl::bluetooth_constants;

namespace {

constexpr unsigned int RECEIVE_SIZE = 65536;  // a message has about 23000 bytes at most
constexpr std::size_t SHOWN_SIZE = 256;
constexpr unsigned int LOGGED_SIZE = FIXED_DATA_LIMIT;  // with which all readers log what does not match
constexpr std::size_t MAX_CLASSIC_ID = 254;
constexpr std::size_t LONG_VALUE = 900;  // with sender and id, about what one frame carries on most controllers

bool Send_Value(C_TAV_Bluetooth& bluetooth, int socket, E_Format format, const std::string& id, const S_Value& value)
{
    if (format == E_Format::CLASSIC)
        return value.Kind == E_Kind::BOOL ? bluetooth._SendMsg_TAVOrg_Bool(socket, id, value.Bool)
                                          : bluetooth._SendMsg_TAVOrg_String(socket, id, value.Bytes);
    if (value.Kind == E_Kind::BOOL) return bluetooth._SendMsg_TAV_Bool(socket, id, value.Bool);
    if (value.Kind == E_Kind::TEXT) return bluetooth._SendMsg_TAV_String(socket, id, value.Bytes);
    return bluetooth._SendMsg_TAV_Data(socket, id, reinterpret_cast<const unsigned char*>(value.Bytes.data()),
                                       static_cast<unsigned int>(value.Bytes.size()));
}

// What about the message no reader takes, in words; empty: nothing.
std::string Get_Flaw(E_Format format, const std::string& id, const S_Value& value)
{
    if (format == E_Format::NAMED) return value.Kind == E_Kind::DATA && value.Bytes.empty() ? "data of 0 bytes" : "";
    if (id.size() > MAX_CLASSIC_ID) return "a classic id of more than 254 bytes";
    const bool startsWithZero = (id.size() + value.Bytes.size() + 9) % 256 == 0;  // its length
    return startsWithZero ? "a classic message of just this length; make it one byte longer" : "";
}

// ---- Reading --------------------------------------------------------------------------------------------------------

bool Read_Value(C_TAV_Bluetooth& bluetooth, int socket, const S_Wanted& wanted, unsigned int maxSize, S_Value& value)
{
    const auto& [sender, id, kind, asBytes, format] = wanted;
    if (format == E_Format::CLASSIC)
        return kind == E_Kind::BOOL
                   ? bluetooth._ReadMsg_TAVOrg_Bool(socket, sender, id, value.Bool, 0)
                   : bluetooth._ReadMsg_TAVOrg_String(socket, sender, id, value.Bytes, maxSize, 0) >= 0;
    if (kind == E_Kind::BOOL) return bluetooth._ReadMsg_TAV_Bool(socket, sender, id, value.Bool, 0);
    if (kind == E_Kind::TEXT) return bluetooth._ReadMsg_TAV_String(socket, sender, id, value.Bytes, maxSize, 0) >= 0;
    return bluetooth._ReadMsg_TAV_Data(socket, sender, id, value.Bytes, maxSize, 0) >= 0;
}

// A reader of named texts takes what was sent right behind a text into it. Gives those of them that are for it, too,
// back their own message each.
std::vector<S_Message> Split_Joined(const S_Wanted& wanted, const S_Value& value)
{
    std::vector<S_Message> messages;
    const std::string border = std::string("\0\x01", 2) + wanted.Sender + '\0' + wanted.Id + '\0';
    std::string rest = value.Bytes;
    for (std::size_t end = rest.find(border); end != std::string::npos; end = rest.find(border)) {
        messages.push_back({wanted.Sender, wanted.Id, {value.Kind, false, rest.substr(0, end)}});
        rest.erase(0, end + border.size());
    }
    messages.push_back({wanted.Sender, wanted.Id, {value.Kind, value.Bool, rest}});
    return messages;
}

// Bytes that a message of the wanted kind has beside its text or data.
std::size_t Get_Overhead(const S_Wanted& wanted)
{
    if (wanted.Format == E_Format::CLASSIC) return 2 + 2 + 2 + 1 + wanted.Id.size() + 1 + 2 + 1;
    const std::size_t head = 1 + wanted.Sender.size() + 1 + wanted.Id.size() + 1;
    return head + (wanted.Kind == E_Kind::DATA ? 4 : 1);
}

// What the module's own reader takes, as programs get it. Notes tell of what is lost to it.
std::vector<S_Message> Read_Wanted(C_TAV_Bluetooth& bluetooth, int socket, const std::string& peer,
                                   const S_Wanted& wanted)
{
    int available = 0;
    ioctl(socket, FIONREAD, &available);
    const unsigned int maxSize = std::max(static_cast<unsigned int>(available), LOGGED_SIZE);
    S_Value value;
    value.Kind = wanted.Kind;
    const bool taken = Read_Value(bluetooth, socket, wanted, maxSize, value);
    const S_Reason reason = Take_Reason();
    if (reason.Received <= 0 && (Is_Stopped() || reason.TimedOut)) return {};
    if (reason.Received <= 0) throw Explain(reason, peer, Get_Channel(wanted.Format));
    const auto received = static_cast<std::size_t>(reason.Received);
    if (!taken) {
        const std::string sender = wanted.Format == E_Format::NAMED ? " from " + Quoted(wanted.Sender) : "";
        Note("ignored " + Count_Of(received, "byte") + ", not " + (wanted.Kind == E_Kind::DATA ? "" : "a ") +
             Get_Word(wanted.Kind) + sender + " with the id " + Quoted(wanted.Id) +
             (reason.Mismatch.empty() ? "; --any shows what comes" : ": " + reason.Mismatch));
        return {};
    }
    const std::size_t size = Get_Overhead(wanted) + value.Bytes.size();
    const bool isSplit = wanted.Format == E_Format::NAMED && wanted.Kind == E_Kind::TEXT;
    if (!isSplit && received > size)
        Note("lost " + Count_Of(received - size, "byte") +
             " behind it: another message, joined to it, or a value of another kind; --any shows what comes");
    if (isSplit) return Split_Joined(wanted, value);
    return {{wanted.Sender, wanted.Id, value}};
}

// All messages in what one receive brings, joined as they may be.
std::vector<S_Message> Read_Any(C_TAV_Bluetooth& bluetooth, int socket, const std::string& peer, const S_Wanted& wanted)
{
    static char buffer[RECEIVE_SIZE];
    const int count = bluetooth.ReadData(socket, buffer, RECEIVE_SIZE, 0);
    const S_Reason reason = Take_Reason();
    if (count <= 0 && (Is_Stopped() || reason.TimedOut)) return {};
    if (count <= 0) throw Explain(reason, peer, Get_Channel(wanted.Format));
    std::string_view bytes(buffer, static_cast<std::size_t>(count));
    std::vector<S_Message> messages;
    if (wanted.AsBytes) return {{"", "", {E_Kind::UNKNOWN, false, std::string(bytes)}}};
    while (!bytes.empty()) {
        const S_Decoded decoded = Decode(Guess_Format(bytes).value_or(wanted.Format), bytes);
        if (decoded.Damage.empty())
            messages.push_back(decoded.Message);
        else
            Note("damaged, " + decoded.Damage[0] +
                 (bytes.size() > SHOWN_SIZE ? "; --dump shows its bytes"
                                            : "; to take it apart: tavbt decode " + To_Hex(bytes)));
        bytes.remove_prefix(decoded.Size);
    }
    return messages;
}

}  // namespace

unsigned char Get_Channel(E_Format format)
{
    return format == E_Format::NAMED ? NAMED_CHANNEL : CLASSIC_CHANNEL;
}

void Send(C_TAV_Bluetooth& bluetooth, int socket, const std::string& peer, E_Format format, const std::string& id,
          const S_Value& value)
{
    if (value.Bytes.size() > LONG_VALUE) Note("a message of more than about 1000 bytes may reach a waiting reader cut");
    const std::string flaw = Get_Flaw(format, id, value);
    if (!flaw.empty()) Note("no reader takes " + flaw);
    Take_Reason();
    if (Send_Value(bluetooth, socket, format, id, value)) return;
    const S_Reason reason = Take_Reason();
    Stop_If_Asked();
    if (reason.Call.empty() && !reason.NoName)
        throw S_Failure{FAILED,
                        "only the beginning of the message was sent: it is longer than a connection takes at once",
                        "keep messages below 1000 bytes; about 23000 is the most that a connection takes"};
    throw Explain(reason, peer, Get_Channel(format));
}

std::vector<S_Message> Read(C_TAV_Bluetooth& bluetooth, int socket, const std::string& peer, const S_Wanted& wanted,
                            int timeout)
{
    pollfd sources[] = {{Get_StopPipe(), POLLIN, 0}, {socket, POLLIN, 0}};
    if (poll(sources, std::size(sources), timeout) <= 0 || Is_Stopped()) return {};
    Take_Reason();
    return wanted.Kind == E_Kind::UNKNOWN ? Read_Any(bluetooth, socket, peer, wanted)
                                          : Read_Wanted(bluetooth, socket, peer, wanted);
}

void Send_Back(C_TAV_Bluetooth& bluetooth, const S_BT_ScanDevice& client, E_Format format, const S_Message& message)
{
    const std::string name = Get_NameOf(bluetooth, client);
    if (!Takes_Data(client.Socket)) throw S_Failure{NOT_CONNECTED, name + " does not read its answers"};
    Send(bluetooth, client.Socket, name, format, message.Id, message.Value);
}

void Serve(C_TAV_Bluetooth& bluetooth, C_Server& server, const S_Wanted& wanted, const std::vector<S_Event>& events,
           const Taker& take)
{
    const auto drop = [&](const S_BT_ScanDevice& client, const S_Failure& failure) {
        Note(failure.What);
        server.Drop(client);
    };
    for (const auto& [what, client] : events) {
        const std::string name = Get_NameOf(bluetooth, client);
        if (what == E_Event::CAME) Note(name + " connected");
        if (what == E_Event::GONE) drop(client, Hung_Up(name));
        if (what != E_Event::DATA) continue;
        try {
            for (const S_Message& message : Read(bluetooth, client.Socket, name, wanted, 0))
                take(client, message);
        } catch (const S_Failure& failure) {
            drop(client, failure);
        }
    }
}

void Run_Server(C_TAV_Bluetooth& bluetooth, C_Server& server, const S_Wanted& wanted, const C_Deadline& deadline,
                const std::function<bool()>& is_done, const Taker& take)
{
    while (!is_done() && !Is_Stopped() && !deadline.Is_Over())
        Serve(bluetooth, server, wanted, server.Wait(deadline.Get_Left()), take);
}

void Print_Message(const S_Message& message, bool whole, bool raw)
{
    const S_Value& value = message.Value;
    const bool isBool = value.Kind == E_Kind::BOOL;
    const bool isText = value.Kind == E_Kind::TEXT;
    const std::string word = isBool ? (value.Bool ? "true" : "false") : isText ? value.Bytes : To_Hex(value.Bytes);
    if (Style().Json && value.Kind == E_Kind::UNKNOWN) {
        Print(Stamp({{"bytes", word}}));
    } else if (Style().Json) {
        Print(Stamp(To_Json(message)));
    } else if (raw) {
        Print_Bytes(isBool ? word : value.Bytes);
    } else if (whole && value.Kind != E_Kind::UNKNOWN) {
        const std::string sender = message.Sender.empty() ? "" : " from " + Quoted(message.Sender);
        Print(Get_TimePrefix() + Get_Word(value.Kind) + sender + ", id " + Quoted(message.Id) + ": " +
              (isText ? Quoted(word) : word));
    } else {
        Print(Get_TimePrefix() + (isatty(STDOUT_FILENO) ? Printable(word) : word));
    }
}

}  // namespace tavbt
