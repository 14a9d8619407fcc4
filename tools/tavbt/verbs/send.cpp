// send
#include "tools/tavbt/base/failure.h"
#include "tools/tavbt/base/options.h"
#include "tools/tavbt/base/signals.h"
#include "tools/tavbt/base/terminal.h"
#include "tools/tavbt/base/text.h"
#include "tools/tavbt/verbs/message_options.h"
#include "tools/tavbt/verbs/verbs.h"

#include <memory>

namespace tavbt {

namespace {

struct S_Send_Options
{
    std::string Name;
    std::string Id;
    std::string Address;
    S_GivenValue Value;
    double Wait = 0;
    bool IsClassic = false;
};

void Wait_ForAnswer(C_TAV_Bluetooth& bluetooth, int socket, const S_Send_Options& options)
{
    S_Wanted any;
    any.Format = Get_Format(options.IsClassic);
    const C_Deadline deadline(options.Wait);
    while (!Is_Stopped() && !deadline.Is_Over()) {
        const std::vector<S_Message> answers = Read(bluetooth, socket, options.Name, any, deadline.Get_Left());
        for (const S_Message& answer : answers)
            Print_Message(answer, true, false);
        if (!answers.empty()) return;
    }
    Stop_If_Asked();
    throw S_Failure{TIMED_OUT, Quoted(options.Name) + " did not answer in time"};
}

void Run_Send(const S_Send_Options& options)
{
    const S_Value value = Get_Value(options.Value, options.IsClassic);
    const E_Format format = Get_Format(options.IsClassic);
    C_TAV_Bluetooth bluetooth;
    const C_Connection link(bluetooth, options.Name, options.Address, Get_Channel(format));
    Send(bluetooth, link.Get_Socket(), options.Name, format, options.Id, value);
    Note("sent to " + Printable(options.Name));
    if (options.Wait > 0) Wait_ForAnswer(bluetooth, link.Get_Socket(), options);
}

}  // namespace

void Add_Send(CLI::App& app)
{
    const auto options = std::make_shared<S_Send_Options>();
    CLI::App& verb =
        Add_Verb(app, "send",
                 "Connects to a brick and sends it one message. Then it hangs up, by which a built-in server "
                 "(Server_ReadMsg_...) hangs; with --wait it stays connected until the answer has come.",
                 "tavbt send Robot2 greeting --text 'Hello!'\n"
                 "tavbt send Robot2 lamp --bool true\n"
                 "tavbt send Robot2 greeting --text 'Hello!' --wait 5\n"
                 "tavbt send Robot2 raw --data 'DE AD BE EF'\n"
                 "tavbt send Robot2 raw --file - <sound.bin\n"
                 "tavbt send Robot2 mailbox --text go --classic");
    Require(Add_Text(verb, "NAME", options->Name, "the brick"));
    Require(Add_Text(verb, "ID", options->Id, "the message's id"));
    Add_Value(verb, options->Value);
    Add_Seconds(verb, "--wait", options->Wait, "wait so long for an answer, whatever it is, and print it");
    Add_Classic(verb, options->IsClassic);
    Add_Address(verb, options->Address);
    On_Run(verb, [options] { Run_Send(*options); });
}

}  // namespace tavbt
