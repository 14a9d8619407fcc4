// recv
#include "tools/tavbt/base/options.h"
#include "tools/tavbt/base/signals.h"
#include "tools/tavbt/verbs/message_options.h"
#include "tools/tavbt/verbs/verbs.h"

#include <memory>

namespace tavbt {

namespace {

struct S_Recv_Options
{
    std::string Address;
    S_Awaited Awaited;
};

void Run_Recv(const S_Recv_Options& options)
{
    const S_Awaited& awaited = options.Awaited;
    const S_Wanted wanted = Get_Wanted(awaited);
    C_TAV_Bluetooth bluetooth;
    const C_Connection link(bluetooth, awaited.Sender, options.Address, Get_Channel(wanted.Format));
    const C_Deadline deadline(awaited.Seconds);
    std::size_t count = 0;
    while (!awaited.Is_Enough(count) && !Is_Stopped() && !deadline.Is_Over())
        for (const S_Message& message :
             Read(bluetooth, link.Get_Socket(), awaited.Sender, wanted, deadline.Get_Left())) {
            if (awaited.Is_Enough(count)) break;
            Print_Message(message, awaited.IsAny, awaited.IsRaw);
            ++count;
        }
    Check_End(awaited, count);
}

}  // namespace

void Add_Recv(CLI::App& app)
{
    const auto options = std::make_shared<S_Recv_Options>();
    options->Awaited.Seconds = 10;
    options->Awaited.Count = 1;
    CLI::App& verb = Add_Verb(app, "recv",
                              "Connects to a brick and waits for messages that it sends on this connection: answers, "
                              "or what it broadcasts.",
                              "tavbt recv Robot2 news --text\n"
                              "tavbt recv Robot2 lamp --bool -n 3 -t 60\n"
                              "tavbt recv Robot2 --any -n 0 -t 0");
    Require(Add_Text(verb, "NAME", options->Awaited.Sender, "the brick"));
    Add_Text(verb, "ID", options->Awaited.Id, "the messages' id; with --any it may be missing");
    Add_Awaited(verb, options->Awaited, "wait so long for them; 0: for ever");
    Add_Address(verb, options->Address);
    On_Run(verb, [options] { Run_Recv(*options); });
}

}  // namespace tavbt
