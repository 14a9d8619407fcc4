#include "tools/tavbt/message.h"

#include "tools/tavbt/reasons.h"
#include "tools/tavbt/terminal.h"

#include <unistd.h>

namespace tavbt {

namespace {

constexpr unsigned int ANY_SIZE = 4096;
constexpr std::size_t FRAME_SIZE = 1000;  // what one frame carries, on most controllers

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

bool Read_Value(C_TAV_Bluetooth& bluetooth, int socket, const S_Wanted& wanted, int timeout, S_Value& value)
{
    const auto& [sender, id, kind, asBytes, format, size] = wanted;
    const auto wait = static_cast<unsigned long>(timeout);
    if (format == E_Format::CLASSIC)
        return kind == E_Kind::BOOL
                   ? bluetooth._ReadMsg_TAVOrg_Bool(socket, sender, id, value.Bool, wait)
                   : bluetooth._ReadMsg_TAVOrg_String(socket, sender, id, value.Bytes, size, wait) >= 0;
    if (kind == E_Kind::BOOL) return bluetooth._ReadMsg_TAV_Bool(socket, sender, id, value.Bool, wait);
    if (kind == E_Kind::TEXT) return bluetooth._ReadMsg_TAV_String(socket, sender, id, value.Bytes, size, wait) >= 0;
    return bluetooth._ReadMsg_TAV_Data(socket, sender, id, value.Bytes, size, wait) >= 0;
}

// A text reader takes what was sent right behind a text into it. Gives those that are texts for the same reader back
// their own message each.
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

// All messages in one receive, whatever they are.
std::vector<S_Message> Read_Any(C_TAV_Bluetooth& bluetooth, int socket, bool asBytes, int timeout)
{
    std::vector<S_Message> messages;
    std::string buffer(ANY_SIZE, '\0');
    const int count = bluetooth.ReadData(socket, buffer.data(), ANY_SIZE, static_cast<unsigned long>(timeout));
    std::string_view rest(buffer.data(), count > 0 ? static_cast<std::size_t>(count) : 0);
    if (asBytes && !rest.empty()) return {{"", "", {E_Kind::UNKNOWN, false, std::string(rest)}}};
    while (!rest.empty()) {
        const S_Decoded message = Decode(Guess_Format(rest).value_or(E_Format::NAMED), rest);
        if (!message.Damage.empty())
            Note("damaged, " + message.Damage[0] + "; to take it apart: tavbt decode " + To_Hex(rest));
        else
            messages.push_back(
                {message.Sender,
                 message.Id,
                 {message.Kind, message.Kind == E_Kind::BOOL && message.Value != std::string(1, '\0'), message.Value}});
        rest.remove_prefix(message.Size);
    }
    return messages;
}

std::string Get_Words(const S_Wanted& wanted)
{
    const std::string sender = wanted.Format == E_Format::NAMED ? " from " + Quoted(wanted.Sender) : "";
    return std::string(Get_Word(wanted.Kind)) + sender + " with the id " + Quoted(wanted.Id);
}

}  // namespace

unsigned char Get_Channel(E_Format format)
{
    return format == E_Format::NAMED ? NAMED_CHANNEL : CLASSIC_CHANNEL;
}

void Send(C_TAV_Bluetooth& bluetooth, int socket, const std::string& peer, E_Format format, const std::string& id,
          const S_Value& value)
{
    if (value.Bytes.size() > FRAME_SIZE - 100)
        Note("a message of more than about 1000 bytes may reach a waiting reader cut");
    Take_Reason();
    if (Send_Value(bluetooth, socket, format, id, value)) return;
    const S_Reason reason = Take_Reason();
    if (Is_Stopped()) throw S_Failure{INTERRUPTED, "interrupted"};
    if (reason.Call.empty() && !reason.NoName)
        throw S_Failure{FAILED,
                        "only the beginning of the message was sent: it is longer than a connection takes at once",
                        "keep messages below 1000 bytes; about 23000 is the most that a connection takes"};
    throw Explain(reason, peer, Get_Channel(format));
}

std::vector<S_Message> Read(C_TAV_Bluetooth& bluetooth, int socket, const std::string& peer, const S_Wanted& wanted,
                            int timeout)
{
    Take_Reason();
    S_Value value;
    value.Kind = wanted.Kind;
    std::vector<S_Message> messages;
    if (wanted.Kind == E_Kind::UNKNOWN)
        messages = Read_Any(bluetooth, socket, wanted.AsBytes, timeout);
    else if (Read_Value(bluetooth, socket, wanted, timeout, value))
        messages = Split_Joined(wanted, value);
    const S_Reason reason = Take_Reason();
    if (!messages.empty() || Is_Stopped() || reason.TimedOut) return messages;
    if (!reason.Call.empty() || reason.Received == 0) throw Explain(reason, peer, Get_Channel(wanted.Format));
    if (wanted.Kind != E_Kind::UNKNOWN)
        Note("ignored " + Count_Of(static_cast<std::size_t>(reason.Received), "byte") + ", not a " + Get_Words(wanted) +
             (reason.Mismatch.empty() ? "; --any shows what comes" : ": " + reason.Mismatch));
    return messages;
}

void Send_Back(C_TAV_Bluetooth& bluetooth, const S_BT_ScanDevice& client, E_Format format, const S_Message& message)
{
    const std::string name = Get_NameOf(bluetooth, client);
    if (!Takes_Data(client.Socket)) throw S_Failure{NOT_CONNECTED, name + " does not read its answers"};
    Send(bluetooth, client.Socket, name, format, message.Id, message.Value);
}

void Run_Server(C_TAV_Bluetooth& bluetooth, C_Server& server, const S_Wanted& wanted, const C_Deadline& deadline,
                const std::function<bool()>& is_done,
                const std::function<void(const S_BT_ScanDevice& client, const S_Message& message)>& take)
{
    while (!is_done() && !Is_Stopped() && !deadline.Is_Over())
        for (const auto& [what, client] : server.Wait(deadline.Get_Left())) {
            const std::string name = Get_NameOf(bluetooth, client);
            try {
                if (what == E_Event::CAME) Note(name + " connected");
                if (what == E_Event::GONE) throw S_Failure{NOT_CONNECTED, name + " hung up"};
                if (what != E_Event::DATA) continue;
                for (const S_Message& message : Read(bluetooth, client.Socket, name, wanted, 0))
                    take(client, message);
            } catch (const S_Failure& failure) {
                Note(failure.What);
                server.Drop(client);
            }
        }
}

void Print_Message(const S_Message& message, bool whole, bool raw)
{
    const S_Value& value = message.Value;
    const bool isBool = value.Kind == E_Kind::BOOL;
    const bool isText = value.Kind == E_Kind::TEXT;
    const std::string word = isBool ? (value.Bool ? "true" : "false") : isText ? value.Bytes : To_Hex(value.Bytes);
    if (Style().Json && value.Kind == E_Kind::UNKNOWN) {
        Print({{"bytes", word}});
    } else if (Style().Json) {
        nlohmann::ordered_json object = {{"kind", Get_Word(value.Kind)}, {"id", message.Id}};
        if (!message.Sender.empty()) object["sender"] = message.Sender;
        object["value"] = isBool ? nlohmann::ordered_json(value.Bool) : nlohmann::ordered_json(word);
        Print(object);
    } else if (raw) {
        Print_Bytes(isBool ? word : value.Bytes);
    } else if (whole && value.Kind != E_Kind::UNKNOWN) {
        const std::string sender = message.Sender.empty() ? "" : " from " + Quoted(message.Sender);
        Print(std::string(Get_Word(value.Kind)) + sender + ", id " + Quoted(message.Id) + ": " +
              (isText ? Quoted(word) : word));
    } else {
        Print(isatty(STDOUT_FILENO) ? Printable(word) : word);
    }
}

}  // namespace tavbt
