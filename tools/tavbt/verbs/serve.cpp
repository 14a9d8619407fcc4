// serve
#include "tools/tavbt/base/failure.h"
#include "tools/tavbt/base/options.h"
#include "tools/tavbt/base/terminal.h"
#include "tools/tavbt/verbs/message_options.h"
#include "tools/tavbt/verbs/verbs.h"

#include <memory>

namespace tavbt {

namespace {

struct S_Serve_Options
{
    S_Awaited Awaited;
    bool IsEcho = false;
};

void Run_Serve(const S_Serve_Options& options)
{
    const S_Awaited& awaited = options.Awaited;
    const S_Wanted wanted = Get_Wanted(awaited);
    if (awaited.IsDump && options.IsEcho) throw S_Failure{USAGE, "--dump has no messages to echo", "take --any"};
    if (awaited.Sender.empty() && wanted.Kind != E_Kind::UNKNOWN && !awaited.IsClassic)
        throw S_Failure{USAGE, "the sender's name is missing: --from NAME", "or take --any"};
    C_TAV_Bluetooth bluetooth;
    C_Server server(bluetooth, Get_Channel(wanted.Format));
    Note("listening on channel " + std::to_string(Get_Channel(wanted.Format)) + "; Ctrl-C ends it");
    std::size_t count = 0;
    const auto is_done = [&] { return awaited.Is_Enough(count); };
    Run_Server(bluetooth, server, wanted, C_Deadline(awaited.Seconds), is_done,
               [&](const S_BT_ScanDevice& client, const S_Message& message) {
                   if (is_done()) return;
                   Print_Message(message, awaited.IsAny, awaited.IsRaw);
                   ++count;
                   if (options.IsEcho) Send_Back(bluetooth, client, wanted.Format, message);
               });
    Check_End(awaited, count);
}

}  // namespace

void Add_Serve(CLI::App& app)
{
    const auto options = std::make_shared<S_Serve_Options>();
    CLI::App& verb = Add_Verb(app, "serve",
                              "Waits for bricks to connect, and prints the messages that they send. Clients may "
                              "leave, crash and come back.",
                              "tavbt serve --any\n"
                              "tavbt serve --from Robot1 --id greeting --text\n"
                              "tavbt serve --from Robot1 --id lamp --bool -n 1 -t 30\n"
                              "tavbt serve --from Robot1 --id say --text --echo\n"
                              "tavbt serve --classic --id mailbox --text");
    Add_Text(verb, "--from", options->Awaited.Sender, "the name that the sender goes by", "NAME");
    Add_Text(verb, "--id", options->Awaited.Id, "the messages' id", "ID");
    Add_Awaited(verb, options->Awaited, "end after so long; 0: never");
    Add_Flag(verb, "--echo", options->IsEcho, "send each message back to who sent it");
    On_Run(verb, [options] { Run_Serve(*options); });
}

}  // namespace tavbt
