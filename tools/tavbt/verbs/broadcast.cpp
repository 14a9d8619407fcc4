// broadcast
#include "tools/tavbt/base/failure.h"
#include "tools/tavbt/base/options.h"
#include "tools/tavbt/base/signals.h"
#include "tools/tavbt/base/terminal.h"
#include "tools/tavbt/base/text.h"
#include "tools/tavbt/verbs/message_options.h"
#include "tools/tavbt/verbs/verbs.h"

#include <memory>
#include <optional>

namespace tavbt {

namespace {

struct S_Broadcast_Options
{
    std::string Id;
    S_GivenValue Value;
    unsigned int Clients = 1;
    double Seconds = 60;
    bool IsClassic = false;
};

void Run_Broadcast(const S_Broadcast_Options& options)
{
    const S_Value value = Get_Value(options.Value, options.IsClassic);
    const E_Format format = Get_Format(options.IsClassic);
    C_TAV_Bluetooth bluetooth;
    C_Server server(bluetooth, Get_Channel(format));
    Note("waiting for " + Count_Of(options.Clients, "client"));
    const auto is_done = [&] { return server.Get_Clients().size() >= options.Clients; };
    Run_Server(bluetooth, server, {}, C_Deadline(options.Seconds), is_done, [](const auto&, const auto&) {});
    Stop_If_Asked();
    if (!is_done())
        throw S_Failure{TIMED_OUT,
                        std::to_string(server.Get_Clients().size()) + " of " + Count_Of(options.Clients, "client") +
                            " came in time; nothing was sent",
                        "clients connect with, for example: tavbt recv NAME ID --text"};
    std::optional<S_Failure> failure;
    std::size_t sent = 0;
    for (const S_BT_ScanDevice& client : server.Get_Clients())
        try {
            Send(bluetooth, client.Socket, Get_NameOf(bluetooth, client), format, options.Id, value);
            ++sent;
        } catch (const S_Failure& one) {  // the others get theirs all the same
            failure = one;
        }
    Note("sent to " + Count_Of(sent, "client"));
    if (failure) throw S_Failure{*failure};
}

}  // namespace

void Add_Broadcast(CLI::App& app)
{
    const auto options = std::make_shared<S_Broadcast_Options>();
    CLI::App& verb = Add_Verb(app, "broadcast", "Waits until so many bricks have connected, and sends all the message.",
                              "tavbt broadcast news --text 'Dinner is ready' --clients 3\n"
                              "tavbt broadcast stop --bool true -t 20");
    Require(Add_Text(verb, "ID", options->Id, "the message's id"));
    Add_Value(verb, options->Value);
    Add_Count(verb, "--clients", options->Clients, "how many, at most 7", 1, 7);
    Add_Seconds(verb, "-t,--timeout", options->Seconds, "wait so long for them; 0: for ever");
    Add_Classic(verb, options->IsClassic);
    On_Run(verb, [options] { Run_Broadcast(*options); });
}

}  // namespace tavbt
