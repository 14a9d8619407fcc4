// pipe
#include "tools/tavbt/base/failure.h"
#include "tools/tavbt/base/lines.h"
#include "tools/tavbt/base/options.h"
#include "tools/tavbt/base/signals.h"
#include "tools/tavbt/base/terminal.h"
#include "tools/tavbt/base/text.h"
#include "tools/tavbt/link/json.h"
#include "tools/tavbt/verbs/message_options.h"
#include "tools/tavbt/verbs/verbs.h"

#include <algorithm>
#include <map>
#include <memory>
#include <optional>
#include <poll.h>
#include <unistd.h>

namespace tavbt {

namespace {

constexpr std::size_t MAX_LINE = 1 << 20;
constexpr int RECONNECT_PAUSE_MS = 1000;

struct S_Pipe_Options
{
    std::string Name;
    std::string Address;
    bool Listen = false;
    bool Reconnect = false;
    bool IsClassic = false;
    unsigned int Clients = 1;
    double Wait = 0;
    double Linger = 1;

    E_Format Get_Format() const { return tavbt::Get_Format(IsClassic); }

    S_Wanted Get_Wanted() const
    {
        S_Wanted any;
        any.Format = Get_Format();
        return any;
    }
};

// The messages on stdin, one after the other.
class C_Outbox
{
public:
    explicit C_Outbox(const S_Pipe_Options& options) : m_Options(options), m_Lines(MAX_LINE) {}

    // Whether stdin is to be read; not while a line waits to be sent, so that whoever writes there waits, too.
    bool Wants_Input() const { return !m_Next && !m_Answer && !m_IsAtEnd; }

    // Reads stdin if there is something.
    void Read()
    {
        pollfd input = {STDIN_FILENO, POLLIN, 0};
        if (Wants_Input() && poll(&input, 1, 0) == 1) m_IsAtEnd = !m_Lines.Read_More();
    }

    // The message to be sent now; null if there is none.
    const S_Outgoing* Get_Next()
    {
        if (m_Answer && m_Answer->Is_Over()) {
            End_With(TIMED_OUT, "there was no answer in " + Format_Number(m_Options.Wait) + " s");
            m_Answer.reset();
        }
        for (std::string line; !m_Next && !m_Answer && m_Lines.Take(line);)
            Take(line);
        if (!m_Next && !m_Answer && m_IsAtEnd && !m_Linger) m_Linger.emplace(m_Options.Linger);
        return m_Next ? &*m_Next : nullptr;
    }

    void Note_Sent()
    {
        m_Next.reset();
        if (m_Options.Wait > 0) m_Answer.emplace(m_Options.Wait);
    }

    void Note_Answer() { m_Answer.reset(); }

    // All is sent, and what came later has been waited for.
    bool Is_Over() const { return m_Linger && (m_Options.Linger == 0 || m_Linger->Is_Over()); }
    bool Is_Sent() const { return m_Linger.has_value(); }

    int Get_Timeout() const
    {
        if (Is_Over()) return 0;
        return (m_Answer ? *m_Answer : m_Linger ? *m_Linger : C_Deadline(0)).Get_Left();
    }

    // Says what is wrong with the last line; it decides how the program ends if nothing did before.
    void End_With(E_End end, const std::string& what)
    {
        Report({end, "line " + std::to_string(m_Number) + what});
        if (m_End == DONE) m_End = end;
    }

    void Check_End() const
    {
        if (m_End != DONE) throw S_Failure{m_End, ""};
    }

private:
    void Take(const std::string& line)
    {
        ++m_Number;
        if (line.find_first_not_of(" \t\r") == std::string::npos) return;
        try {
            S_Outgoing next = From_Json(line);
            if (m_Options.IsClassic && next.Message.Value.Kind == E_Kind::DATA)
                throw S_Flaw{1, "the classic format has no raw data"};
            if (!m_Options.Listen && !next.To.empty()) throw S_Flaw{1, "\"to\" goes with --listen only"};
            m_Next = std::move(next);
        } catch (const S_Flaw& flaw) {
            End_With(USAGE, ", column " + std::to_string(flaw.Column) + ": " + flaw.What);
        }
    }

    const S_Pipe_Options& m_Options;
    C_Lines m_Lines;
    std::size_t m_Number = 0;
    bool m_IsAtEnd = false;
    std::optional<S_Outgoing> m_Next;
    std::optional<C_Deadline> m_Answer;  // until when it is waited for
    std::optional<C_Deadline> m_Linger;
    E_End m_End = DONE;
};

// ---- One connection -------------------------------------------------------------------------------------------------

// Until all is done; throws S_Failure when the connection ends before.
void Exchange(C_TAV_Bluetooth& bluetooth, int socket, const S_Pipe_Options& options, C_Outbox& outbox)
{
    while (!outbox.Is_Over()) {
        const S_Outgoing* const next = outbox.Get_Next();
        const short wanted = static_cast<short>(next ? POLLIN | POLLOUT : POLLIN);
        pollfd sources[] = {
            {Get_StopPipe(), POLLIN, 0}, {socket, wanted, 0}, {outbox.Wants_Input() ? STDIN_FILENO : -1, POLLIN, 0}};
        poll(sources, std::size(sources), outbox.Get_Timeout());
        Stop_If_Asked();
        if ((sources[1].revents & ~POLLOUT) != 0)
            for (const S_Message& message : Read(bluetooth, socket, options.Name, options.Get_Wanted(), 0)) {
                outbox.Note_Answer();
                Print(Stamp(To_Json(message)));
            }
        if (next && (sources[1].revents & POLLOUT)) {
            Send(bluetooth, socket, options.Name, options.Get_Format(), next->Message.Id, next->Message.Value);
            outbox.Note_Sent();
        }
        outbox.Read();
    }
}

// Whether it may work later what did not work now.
bool May_Pass(E_End end)
{
    return end == HUNG_UP || end == NOT_CONNECTED || end == NOT_FOUND || end == NO_ADAPTER;
}

void Run_Connection(const S_Pipe_Options& options, C_Outbox& outbox)
{
    C_TAV_Bluetooth bluetooth;
    while (!outbox.Is_Over()) {
        try {
            const C_Connection link(bluetooth, options.Name, options.Address, Get_Channel(options.Get_Format()));
            Note("connected to " + Printable(options.Name));
            Exchange(bluetooth, link.Get_Socket(), options, outbox);
        } catch (const S_Failure& failure) {
            if (failure.End == HUNG_UP && outbox.Is_Sent()) return Note(failure.What);
            if (!options.Reconnect || !May_Pass(failure.End)) throw;
            Note(failure.What + "; trying again");
            pollfd stop = {Get_StopPipe(), POLLIN, 0};
            poll(&stop, 1, RECONNECT_PAUSE_MS);
            Stop_If_Asked();
        }
    }
}

// ---- A server -------------------------------------------------------------------------------------------------------

// The names under which clients have sent, by their sockets.
using Senders = std::map<int, std::string>;

// Sends the message to the clients that it is for. One that does not take it is dropped.
void Hand_Out(C_TAV_Bluetooth& bluetooth, C_Server& server, const S_Pipe_Options& options, const Senders& senders,
              const S_Outgoing& next, C_Outbox& outbox)
{
    bool isFound = false;
    for (const S_BT_ScanDevice& client : server.Get_Clients()) {
        const auto sender = senders.find(client.Socket);
        const bool isMeant = next.To.empty() || next.To == client.AddrText ||
                             next.To == Get_NameOf(bluetooth, client) ||
                             (sender != senders.end() && next.To == sender->second);
        if (!isMeant) continue;
        isFound = true;
        try {
            Send_Back(bluetooth, client, options.Get_Format(), next.Message);
        } catch (const S_Failure& failure) {
            Note(failure.What);
            server.Drop(client);
        }
    }
    if (!isFound) outbox.End_With(NOT_CONNECTED, ": no client is " + Quoted(next.To));
    outbox.Note_Sent();
    if (!isFound) outbox.Note_Answer();  // there will be none
}

void Run_Listener(const S_Pipe_Options& options, C_Outbox& outbox)
{
    C_TAV_Bluetooth bluetooth;
    C_Server server(bluetooth, Get_Channel(options.Get_Format()));
    Note("listening on channel " + std::to_string(Get_Channel(options.Get_Format())) + "; Ctrl-C ends it");
    Senders senders;
    const Taker take = [&](const S_BT_ScanDevice& client, const S_Message& message) {
        senders[client.Socket] = message.Sender;
        outbox.Note_Answer();
        nlohmann::ordered_json object = To_Json(message);
        object["address"] = client.AddrText;
        Print(Stamp(object));
    };
    bool isBegun = false;  // once as many clients were there as were asked for
    while (!outbox.Is_Over()) {
        const std::size_t count = server.Get_Clients().size();
        isBegun = isBegun || count >= options.Clients;
        const S_Outgoing* const next = isBegun ? outbox.Get_Next() : nullptr;
        const bool isSent = next && count > 0;
        if (isSent) Hand_Out(bluetooth, server, options, senders, *next, outbox);
        const bool isIdle = isBegun && outbox.Wants_Input();
        const std::vector<S_Event> events = server.Wait(isSent ? 0 : outbox.Get_Timeout(), isIdle ? STDIN_FILENO : -1);
        Stop_If_Asked();
        for (const S_Event& event : events)
            if (event.What == E_Event::CAME) senders.erase(event.Client.Socket);
        Serve(bluetooth, server, options.Get_Wanted(), events, take);
        if (isIdle) outbox.Read();
    }
}

void Run_Pipe(const S_Pipe_Options& options)
{
    if (!options.Listen && options.Name.empty())
        throw S_Failure{USAGE, "with whom? pipe NAME, or pipe --listen to be called"};
    Style().Json = true;
    C_Outbox outbox(options);
    if (options.Listen)
        Run_Listener(options, outbox);
    else
        Run_Connection(options, outbox);
    outbox.Check_End();
}

}  // namespace

void Add_Pipe(CLI::App& app)
{
    const auto options = std::make_shared<S_Pipe_Options>();
    CLI::App& verb =
        Add_Verb(app, "pipe",
                 "Sends the messages that stand on stdin, a JSON object a line, and prints those that come, "
                 "over a connection that lasts.",
                 "tavbt pipe Robot2 <messages\n"
                 "echo '{\"kind\":\"text\",\"id\":\"greeting\",\"value\":\"Hello!\"}' | tavbt pipe Robot2\n"
                 "tavbt pipe --listen --clients 2");
    auto* const name = Add_Text(verb, "NAME", options->Name, "the brick to call");
    auto* const listen = Add_Flag(verb, "--listen", options->Listen, "wait to be called");
    Exclude(listen, name);
    Need(Add_Count(verb, "--clients", options->Clients, "send nothing before so many have called", 1, 7), listen);
    Add_Seconds(verb, "--wait", options->Wait, "after each line, wait so long for an answer, whatever it is");
    Add_Seconds(verb, "--linger", options->Linger, "after the last line, wait so long for what comes");
    auto* const reconnect =
        Add_Flag(verb, "--reconnect", options->Reconnect, "connect anew after a loss, for as long as it takes");
    Exclude(reconnect, listen);
    Add_Classic(verb, options->IsClassic);
    Add_Time(verb);
    Add_Address(verb, options->Address);
    On_Run(verb, [options] { Run_Pipe(*options); });
}

}  // namespace tavbt
