// chat
#include "tools/tavbt/message.h"
#include "tools/tavbt/reasons.h"
#include "tools/tavbt/terminal.h"
#include "tools/tavbt/verbs.h"

#include <memory>
#include <poll.h>
#include <unistd.h>

namespace tavbt {

namespace {

constexpr const char* CHAT_ID = "chat";
constexpr std::size_t LINE_SIZE = 800;

struct S_Options
{
    std::string Name;
    std::string Address;
    std::string From;
    bool Listen = false;
};

// Lines from stdin, which is read as it comes.
class C_Typed
{
public:
    // Reads once; false at the end of the input.
    bool Read_More()
    {
        char buffer[4096];
        const ssize_t count = read(STDIN_FILENO, buffer, sizeof(buffer));
        if (count > 0) m_Text.append(buffer, static_cast<std::size_t>(count));
        return count > 0;
    }

    // The next whole line, or as much of a long one as a message takes; at the end of the input also what is left.
    bool Take_Line(std::string& line, bool atEnd)
    {
        const std::size_t end = m_Text.find('\n');
        if (end == std::string::npos && m_Text.size() < LINE_SIZE && (!atEnd || m_Text.empty())) return false;
        const bool isWhole = end <= LINE_SIZE;
        line = m_Text.substr(0, isWhole ? end : LINE_SIZE);
        m_Text.erase(0, line.size() + (isWhole ? 1 : 0));
        return true;
    }

private:
    std::string m_Text;
};

void Show(const S_Message& message)
{
    if (Style().Json) return Print_Message(message, true, false);
    const bool isTerminal = isatty(STDOUT_FILENO) != 0;
    Print((isTerminal ? "\r\033[K" : "") + Paint(E_Paint::CYAN, Printable(message.Sender) + ":", STDOUT_FILENO) + " " +
          Printable(message.Value.Bytes));
}

// Lines typed go out, texts that come are shown, until one side ends it.
void Talk(C_TAV_Bluetooth& bluetooth, int socket, const std::string& peer)
{
    S_Wanted wanted;
    wanted.Sender = peer;
    wanted.Id = CHAT_ID;
    wanted.Kind = E_Kind::TEXT;
    C_Typed typed;
    for (;;) {
        pollfd sources[] = {{Get_StopPipe(), POLLIN, 0}, {socket, POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}};
        poll(sources, std::size(sources), -1);
        if (Is_Stopped()) return;
        if (sources[1].revents != 0)
            for (const S_Message& message : Read(bluetooth, socket, peer, wanted, 0))
                Show(message);
        if (sources[2].revents == 0) continue;
        const bool atEnd = !typed.Read_More();
        for (std::string line; typed.Take_Line(line, atEnd);)
            Send(bluetooth, socket, peer, E_Format::NAMED, CHAT_ID, {E_Kind::TEXT, false, line});
        if (atEnd) return;
    }
}

// Runs until the other side leaves, too, which is a good end here unless nothing was said before.
void Talk_ToTheEnd(C_TAV_Bluetooth& bluetooth, int socket, const std::string& peer)
{
    try {
        Note("talking to " + Printable(peer) + "; Ctrl-D ends it");
        Talk(bluetooth, socket, peer);
    } catch (const S_Failure& failure) {
        if (failure.What != Printable(peer) + " hung up") throw;
        Note(Printable(peer) + " left");
    }
}

void Run_Chat(const S_Options& options)
{
    C_TAV_Bluetooth bluetooth;
    if (!options.Listen) {
        if (options.Name.empty()) throw S_Failure{USAGE, "with whom? chat NAME, or chat --listen --from NAME"};
        const C_Connection link(bluetooth, options.Name, options.Address, NAMED_CHANNEL);
        return Talk_ToTheEnd(bluetooth, link.Get_Socket(), options.Name);
    }
    if (options.From.empty()) throw S_Failure{USAGE, "whom to listen for? chat --listen --from NAME"};
    C_Server server(bluetooth, NAMED_CHANNEL);
    Note("waiting for " + Printable(options.From) + " to call; Ctrl-C ends it");
    while (server.Get_Clients().empty()) {
        server.Wait(C_Deadline(0).Get_Left());
        Stop_If_Asked();
    }
    Talk_ToTheEnd(bluetooth, server.Get_Clients()[0].Socket, options.From);
}

}  // namespace

void Add_Chat(CLI::App& app)
{
    const auto options = std::make_shared<S_Options>();
    auto* const verb =
        Add_Verb(app, "chat",
                 "Two people on two bricks type texts to each other, one a line. Ctrl-R shows what was being typed "
                 "when a text came.",
                 "tavbt chat --listen --from Robot1    on Robot2\n"
                 "tavbt chat Robot2                    on Robot1");
    auto* const name = verb->add_option("NAME", options->Name, "the brick to call");
    auto* const listen = verb->add_flag("--listen", options->Listen, "wait to be called")->excludes(name);
    verb->add_option("--from", options->From, "the name that the caller goes by")->type_name("NAME")->needs(listen);
    Add_Address(*verb, options->Address);
    verb->callback([options] { Run_Chat(*options); });
}

}  // namespace tavbt
