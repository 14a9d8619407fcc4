// chat
#include "bluetooth/constants.h"
#include "tools/tavbt/base/failure.h"
#include "tools/tavbt/base/lines.h"
#include "tools/tavbt/base/options.h"
#include "tools/tavbt/base/signals.h"
#include "tools/tavbt/base/terminal.h"
#include "tools/tavbt/base/text.h"
#include "tools/tavbt/link/exchange.h"
#include "tools/tavbt/verbs/verbs.h"

#include <memory>
#include <optional>
#include <poll.h>
#include <unistd.h>

namespace tavbt {

using tav_c_api_impl::bluetooth_constants::NAMED_CHANNEL;

namespace {

constexpr const char* CHAT_ID = "chat";
constexpr std::size_t LINE_SIZE = 800;

struct S_Chat_Options
{
    std::string Name;
    std::string Address;
    std::string From;
    bool Listen = false;
};

void Show(const S_Message& message)
{
    if (message.Value.Bytes.empty()) return;  // a caller who has nothing to say yet
    if (Style().Json) return Print_Message(message, true, false);
    const bool isTerminal = isatty(STDOUT_FILENO) != 0;
    Print(Get_TimePrefix() + (isTerminal ? "\r\033[K" : "") +
          Paint(E_Paint::CYAN, Printable(message.Sender) + ":", STDOUT_FILENO) + " " + Printable(message.Value.Bytes));
}

S_Wanted Get_Wanted(const std::string& peer)
{
    S_Wanted wanted;
    wanted.Sender = peer;
    wanted.Id = CHAT_ID;
    wanted.Kind = E_Kind::TEXT;
    return wanted;
}

void Say(C_TAV_Bluetooth& bluetooth, int socket, const std::string& peer, const std::string& line)
{
    Send(bluetooth, socket, peer, E_Format::NAMED, CHAT_ID, {E_Kind::TEXT, false, line});
}

// Lines typed go out, texts that come are shown, until one side ends it.
void Talk(C_TAV_Bluetooth& bluetooth, int socket, const std::string& peer)
{
    const S_Wanted wanted = Get_Wanted(peer);
    C_Lines typed(LINE_SIZE);
    for (;;) {
        pollfd sources[] = {{Get_StopPipe(), POLLIN, 0}, {socket, POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}};
        poll(sources, std::size(sources), -1);
        if (Is_Stopped()) return;
        if (sources[1].revents != 0)
            for (const S_Message& message : Read(bluetooth, socket, peer, wanted, 0))
                Show(message);
        if (sources[2].revents == 0) continue;
        const bool isMore = typed.Read_More();
        for (std::string line; typed.Take(line);)
            Say(bluetooth, socket, peer, line);
        if (!isMore) return;
    }
}

void Note_Peer(const std::string& peer)
{
    Note("talking to " + Printable(peer) + "; Ctrl-D ends it");
}

// Runs until the other side leaves, too, which is a good end here unless nothing was said before.
void Talk_ToTheEnd(C_TAV_Bluetooth& bluetooth, int socket, const std::string& peer)
{
    try {
        Talk(bluetooth, socket, peer);
    } catch (const S_Failure& failure) {
        if (failure.End != HUNG_UP) throw;
        Note(Printable(peer) + " left");
    }
}

void Run_Chat(const S_Chat_Options& options)
{
    C_TAV_Bluetooth bluetooth;
    if (!options.Listen) {
        if (options.Name.empty()) throw S_Failure{USAGE, "with whom? chat NAME, or chat --listen --from NAME"};
        const C_Connection link(bluetooth, options.Name, options.Address, NAMED_CHANNEL);
        Say(bluetooth, link.Get_Socket(), options.Name, "");  // says who calls, before anybody types
        Note_Peer(options.Name);
        return Talk_ToTheEnd(bluetooth, link.Get_Socket(), options.Name);
    }
    if (options.From.empty()) throw S_Failure{USAGE, "whom to listen for? chat --listen --from NAME"};
    C_Server server(bluetooth, NAMED_CHANNEL);
    Note("waiting for " + Printable(options.From) + " to call; Ctrl-C ends it");
    std::optional<S_BT_ScanDevice> caller;  // who sends as the one that is waited for
    const auto is_there = [&] { return caller.has_value(); };
    Run_Server(bluetooth, server, Get_Wanted(options.From), C_Deadline(0), is_there,
               [&](const S_BT_ScanDevice& client, const S_Message& message) {
                   if (caller && caller->Socket != client.Socket) return;
                   if (!caller) Note_Peer(options.From);
                   caller = client;
                   Show(message);
               });
    Stop_If_Asked();
    if (!caller) return;
    for (const S_BT_ScanDevice& client : server.Get_Clients())
        if (client.Socket != caller->Socket) server.Drop(client);
    Talk_ToTheEnd(bluetooth, caller->Socket, options.From);
}

}  // namespace

void Add_Chat(CLI::App& app)
{
    const auto options = std::make_shared<S_Chat_Options>();
    CLI::App& verb =
        Add_Verb(app, "chat",
                 "Two people on two bricks type texts to each other, one a line. Ctrl-R shows what was being typed "
                 "when a text came.",
                 "tavbt chat --listen --from Robot1    on Robot2\n"
                 "tavbt chat Robot2                    on Robot1");
    auto* const name = Add_Text(verb, "NAME", options->Name, "the brick to call");
    auto* const listen = Add_Flag(verb, "--listen", options->Listen, "wait to be called");
    Exclude(listen, name);
    Need(Add_Text(verb, "--from", options->From, "the name that the caller goes by", "NAME"), listen);
    Add_Address(verb, options->Address);
    Add_Time(verb);
    On_Run(verb, [options] { Run_Chat(*options); });
}

}  // namespace tavbt
