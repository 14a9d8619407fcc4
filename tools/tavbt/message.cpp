#include "tools/tavbt/message.h"

#include "tools/tavbt/reasons.h"
#include "tools/tavbt/terminal.h"

#include <iterator>
#include <poll.h>
#include <unistd.h>

namespace tavbt {

namespace {

constexpr unsigned int RECEIVE_SIZE = 65536;  // a message has about 23000 bytes at most
constexpr std::size_t SHOWN_SIZE = 256;
constexpr std::size_t MAX_CLASSIC_ID = 254;
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

// What about the message no reader takes, in words; empty: nothing.
std::string Get_Flaw(E_Format format, const std::string& id, const S_Value& value)
{
    if (format == E_Format::NAMED) return value.Kind == E_Kind::DATA && value.Bytes.empty() ? "data of 0 bytes" : "";
    if (id.size() > MAX_CLASSIC_ID) return "a classic id of more than 254 bytes";
    const bool startsWithZero = (id.size() + value.Bytes.size() + 9) % 256 == 0;  // its length
    return startsWithZero ? "a classic message of just this length; make it one byte longer" : "";
}

// What the message has that is not wanted, in words; empty: nothing.
std::string Get_Mismatch(const S_Wanted& wanted, const S_Message& message)
{
    if (wanted.Kind == E_Kind::UNKNOWN) return "";
    const bool hasSender = wanted.Format == E_Format::NAMED;
    if (message.Value.Kind != wanted.Kind) return std::string("its kind is ") + Get_Word(message.Value.Kind);
    if (hasSender && message.Sender != wanted.Sender) return "its sender is " + Quoted(message.Sender);
    if (message.Id != wanted.Id) return "its id is " + Quoted(message.Id);
    return "";
}

S_Message To_Message(const S_Decoded& decoded, const S_Wanted& wanted)
{
    S_Message message{decoded.Sender, decoded.Id, {decoded.Kind, false, decoded.Value}};
    if (decoded.Kind != E_Kind::BOOL) return message;
    message.Value = {E_Kind::BOOL, decoded.Value == std::string(1, '\1'), ""};
    // The classic format has the same bytes for false and an empty text.
    if (decoded.Format == E_Format::CLASSIC && wanted.Kind == E_Kind::TEXT) message.Value.Kind = E_Kind::TEXT;
    return message;
}

// The messages in what one receive brought, joined as they may be, that are wanted. Notes tell of the others.
std::vector<S_Message> Take_Apart(const S_Wanted& wanted, std::string_view bytes)
{
    std::vector<S_Message> messages;
    while (!bytes.empty()) {
        const bool any = wanted.Kind == E_Kind::UNKNOWN;
        const S_Decoded decoded = Decode(any ? Guess_Format(bytes).value_or(wanted.Format) : wanted.Format, bytes);
        const S_Message message = To_Message(decoded, wanted);
        const std::string mismatch = Get_Mismatch(wanted, message);
        if (!decoded.Damage.empty())
            Note("damaged, " + decoded.Damage[0] +
                 (bytes.size() > SHOWN_SIZE ? "; --dump shows its bytes"
                                            : "; to take it apart: tavbt decode " + To_Hex(bytes)));
        else if (!mismatch.empty())
            Note("ignored a message: " + mismatch + "; --any shows what comes");
        else
            messages.push_back(message);
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
    if (value.Bytes.size() > FRAME_SIZE - 100)
        Note("a message of more than about 1000 bytes may reach a waiting reader cut");
    const std::string flaw = Get_Flaw(format, id, value);
    if (!flaw.empty()) Note("no reader takes " + flaw);
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
    pollfd sources[] = {{Get_StopPipe(), POLLIN, 0}, {socket, POLLIN, 0}};
    if (poll(sources, std::size(sources), timeout) <= 0 || Is_Stopped()) return {};
    static char buffer[RECEIVE_SIZE];
    Take_Reason();
    const int count = bluetooth.ReadData(socket, buffer, RECEIVE_SIZE, 0);
    const S_Reason reason = Take_Reason();
    if (count <= 0 && (Is_Stopped() || reason.TimedOut)) return {};
    if (count <= 0) throw Explain(reason, peer, Get_Channel(wanted.Format));
    const std::string_view bytes(buffer, static_cast<std::size_t>(count));
    if (wanted.AsBytes) return {{"", "", {E_Kind::UNKNOWN, false, std::string(bytes)}}};
    return Take_Apart(wanted, bytes);
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
                    if (!is_done()) take(client, message);
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
