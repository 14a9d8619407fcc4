// send, recv, serve, broadcast
#include "tools/tavbt/message.h"
#include "tools/tavbt/reasons.h"
#include "tools/tavbt/terminal.h"
#include "tools/tavbt/verbs.h"

#include <memory>
#include <optional>

namespace tavbt {

namespace {

// ---- Options --------------------------------------------------------------------------------------------------------

// The value to send, as the command line gives it.
struct S_Given
{
    bool IsTrue = false;
    std::string Text;
    std::string Hex;
    std::string File;
    CLI::Option* Bool = nullptr;
    CLI::Option* Data = nullptr;
    CLI::Option* Path = nullptr;
};

struct S_Options
{
    std::string Name;
    std::string Id;
    std::string Address;
    S_Given Given;
    bool IsBool = false;
    bool IsText = false;
    bool IsData = false;
    bool IsAny = false;
    bool IsDump = false;
    bool Classic = false;
    bool Echo = false;
    bool Raw = false;
    double Wait = 0;
    double Seconds = 0;
    unsigned int Count = 0;
    unsigned int Clients = 1;

    E_Format Get_Format() const { return Classic ? E_Format::CLASSIC : E_Format::NAMED; }
};

std::string Check_Hex(const std::string& text)
{
    return Parse_Hex(text) ? "" : Quoted(text) + " is not pairs of hexadecimal digits, like DEAD or \"DE AD\"";
}

void Add_Given(CLI::App& verb, S_Given& given)
{
    auto* const group = verb.add_option_group("Value");
    given.Bool = group->add_option("--bool", given.IsTrue, "a bool: true or false")
                     ->type_name("true|false")
                     ->check(CLI::IsMember({"true", "false"}).description(""));
    group->add_option("--text", given.Text, "a text; one that starts with a dash: --text=-1")->type_name("TEXT");
    given.Data = group->add_option("--data", given.Hex, "raw data in hexadecimal")
                     ->type_name("HEX")
                     ->check(CLI::Validator(Check_Hex, ""));
    given.Path =
        group->add_option("--file", given.File, "raw data: what the file holds; - is stdin")->type_name("FILE");
    group->require_option(1);
    group->set_help_flag();
}

void Add_Kinds(CLI::App& verb, S_Options& options)
{
    auto* const group = verb.add_option_group("Kind");
    group->add_flag("--bool", options.IsBool, "bools, printed as true or false");
    group->add_flag("--text", options.IsText, "texts");
    group->add_flag("--data", options.IsData, "raw data, printed in hexadecimal");
    group->add_flag("--any", options.IsAny, "whatever comes, whoever sent it, with sender, kind and id");
    group->add_flag("--dump", options.IsDump, "all bytes that come, in hexadecimal, as for tavbt decode");
    group->require_option(1);
    group->set_help_flag();
    verb.add_flag("--raw", options.Raw, "prints texts and data as they are, without line breaks");
}

void Add_Classic(CLI::App& verb, S_Options& options)
{
    verb.add_flag("--classic", options.Classic,
                  "classic mailbox format, on channel 1, instead of the named one, on channel 16");
}

S_Value Get_Value(const S_Given& given, bool classic)
{
    if (given.Bool->count() > 0) return {E_Kind::BOOL, given.IsTrue, ""};
    const bool isData = given.Data->count() > 0 || given.Path->count() > 0;
    if (classic && isData) throw S_Failure{USAGE, "the classic format has no raw data", "send a --bool or a --text"};
    if (given.Path->count() > 0) return {E_Kind::DATA, false, Read_File(given.File)};
    if (isData) return {E_Kind::DATA, false, *Parse_Hex(given.Hex)};
    return {E_Kind::TEXT, false, given.Text};
}

S_Wanted Get_Wanted(const S_Options& options)
{
    S_Wanted wanted;
    wanted.Sender = options.Name;
    wanted.Id = options.Id;
    wanted.Format = options.Get_Format();
    wanted.Kind = options.IsBool   ? E_Kind::BOOL
                  : options.IsText ? E_Kind::TEXT
                  : options.IsData ? E_Kind::DATA
                                   : E_Kind::UNKNOWN;
    if (options.Classic && options.IsData)
        throw S_Failure{USAGE, "the classic format has no raw data", "take --bool, --text or --any"};
    wanted.AsBytes = options.IsDump;
    if (options.Id.empty() && wanted.Kind != E_Kind::UNKNOWN)
        throw S_Failure{USAGE, "the id of the messages is missing", "give it, or take --any"};
    return wanted;
}

// Throws if it is no good end: Ctrl-C is one where no number of messages was asked for, the end of the time where as
// many came as were asked for, or any.
void Check_End(const S_Options& options, std::size_t count)
{
    if (options.Count == 0 ? count > 0 || Is_Stopped() : count >= options.Count) return;
    Stop_If_Asked();
    char time[32] = {};
    snprintf(time, sizeof(time), "%g s", options.Seconds);
    const bool any = options.IsAny || options.IsDump;
    const std::string what = count == 0 ? (any ? "nothing" : "nothing that matches")
                                        : std::to_string(count) + " of " + Count_Of(options.Count, "message");
    throw S_Failure{TIMED_OUT, what + " came in " + time,
                    any ? ""
                        : "sender, kind and id must be exactly those that are expected; --any shows whatever comes"};
}

// ---- Verbs ----------------------------------------------------------------------------------------------------------

void Run_Send(const S_Options& options)
{
    const S_Value value = Get_Value(options.Given, options.Classic);
    C_TAV_Bluetooth bluetooth;
    const E_Format format = options.Get_Format();
    const C_Connection link(bluetooth, options.Name, options.Address, Get_Channel(format));
    Send(bluetooth, link.Get_Socket(), options.Name, format, options.Id, value);
    Note("sent to " + Printable(options.Name));
    if (options.Wait <= 0) return;
    const C_Deadline deadline(options.Wait);
    while (!Is_Stopped() && !deadline.Is_Over()) {
        S_Wanted any;
        any.Format = format;
        const std::vector<S_Message> answers =
            Read(bluetooth, link.Get_Socket(), options.Name, any, deadline.Get_Left());
        for (const S_Message& answer : answers)
            Print_Message(answer, true, false);
        if (!answers.empty()) return;
    }
    Stop_If_Asked();
    throw S_Failure{TIMED_OUT, Quoted(options.Name) + " did not answer in time"};
}

void Run_Recv(const S_Options& options)
{
    const S_Wanted wanted = Get_Wanted(options);
    C_TAV_Bluetooth bluetooth;
    const C_Connection link(bluetooth, options.Name, options.Address, Get_Channel(wanted.Format));
    const C_Deadline deadline(options.Seconds);
    std::size_t count = 0;
    const auto is_done = [&] { return options.Count > 0 && count >= options.Count; };
    while (!is_done() && !Is_Stopped() && !deadline.Is_Over())
        for (const S_Message& message : Read(bluetooth, link.Get_Socket(), options.Name, wanted, deadline.Get_Left())) {
            if (is_done()) break;
            Print_Message(message, options.IsAny, options.Raw);
            ++count;
        }
    Check_End(options, count);
}

void Run_Serve(const S_Options& options)
{
    const S_Wanted wanted = Get_Wanted(options);
    if (options.IsDump && options.Echo) throw S_Failure{USAGE, "--dump has no messages to echo", "take --any"};
    if (options.Name.empty() && wanted.Kind != E_Kind::UNKNOWN && !options.Classic)
        throw S_Failure{USAGE, "the sender's name is missing: --from NAME", "or take --any"};
    C_TAV_Bluetooth bluetooth;
    C_Server server(bluetooth, Get_Channel(wanted.Format));
    Note("listening on channel " + std::to_string(Get_Channel(wanted.Format)) + "; Ctrl-C ends it");
    const C_Deadline deadline(options.Seconds);
    std::size_t count = 0;
    const auto is_done = [&] { return options.Count > 0 && count >= options.Count; };
    Run_Server(bluetooth, server, wanted, deadline, is_done,
               [&](const S_BT_ScanDevice& client, const S_Message& message) {
                   Print_Message(message, options.IsAny, options.Raw);
                   ++count;
                   if (options.Echo) Send_Back(bluetooth, client, wanted.Format, message);
               });
    Check_End(options, count);
}

void Run_Broadcast(const S_Options& options)
{
    const S_Value value = Get_Value(options.Given, options.Classic);
    const E_Format format = options.Get_Format();
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

void Add_Send(CLI::App& app)
{
    const auto options = std::make_shared<S_Options>();
    auto* const verb =
        Add_Verb(app, "send",
                 "Connects to a brick and sends it one message. Then it hangs up, by which a built-in server "
                 "(Server_ReadMsg_...) hangs; with --wait it stays connected until the answer has come.",
                 "tavbt send Robot2 greeting --text 'Hello!'\n"
                 "tavbt send Robot2 lamp --bool true\n"
                 "tavbt send Robot2 greeting --text 'Hello!' --wait 5\n"
                 "tavbt send Robot2 raw --data 'DE AD BE EF'\n"
                 "tavbt send Robot2 raw --file - <sound.bin\n"
                 "tavbt send Robot2 mailbox --text go --classic");
    verb->add_option("NAME", options->Name, "the brick")->required();
    verb->add_option("ID", options->Id, "the message's id")->required();
    Add_Given(*verb, options->Given);
    verb->add_option("--wait", options->Wait, "wait so long for an answer, whatever it is, and print it")
        ->type_name("SECONDS")
        ->check(CLI::Range(0.0, 1e6).description(""));
    Add_Classic(*verb, *options);
    Add_Address(*verb, options->Address);
    verb->callback([options] { Run_Send(*options); });
}

void Add_Recv(CLI::App& app)
{
    const auto options = std::make_shared<S_Options>();
    options->Seconds = 10;
    options->Count = 1;
    auto* const verb = Add_Verb(app, "recv",
                                "Connects to a brick and waits for messages that it sends on this connection: answers, "
                                "or what it broadcasts.",
                                "tavbt recv Robot2 news --text\n"
                                "tavbt recv Robot2 lamp --bool -n 3 -t 60\n"
                                "tavbt recv Robot2 --any -n 0 -t 0");
    verb->add_option("NAME", options->Name, "the brick")->required();
    verb->add_option("ID", options->Id, "the messages' id; with --any it may be missing");
    Add_Kinds(*verb, *options);
    verb->add_option("-n,--count", options->Count, "end after so many messages; 0: never")
        ->type_name("COUNT")
        ->capture_default_str();
    Add_Timeout(*verb, options->Seconds, "wait so long for them; 0: for ever");
    Add_Classic(*verb, *options);
    Add_Address(*verb, options->Address);
    verb->callback([options] { Run_Recv(*options); });
}

void Add_Serve(CLI::App& app)
{
    const auto options = std::make_shared<S_Options>();
    auto* const verb = Add_Verb(app, "serve",
                                "Waits for bricks to connect, and prints the messages that they send. Clients may "
                                "leave, crash and come back.",
                                "tavbt serve --any\n"
                                "tavbt serve --from Robot1 --id greeting --text\n"
                                "tavbt serve --from Robot1 --id lamp --bool -n 1 -t 30\n"
                                "tavbt serve --from Robot1 --id say --text --echo\n"
                                "tavbt serve --classic --id mailbox --text");
    verb->add_option("--from", options->Name, "the name that the sender goes by")->type_name("NAME");
    verb->add_option("--id", options->Id, "the messages' id")->type_name("ID");
    Add_Kinds(*verb, *options);
    verb->add_flag("--echo", options->Echo, "send each message back to who sent it");
    verb->add_option("-n,--count", options->Count, "end after so many messages; 0: never")
        ->type_name("COUNT")
        ->capture_default_str();
    Add_Timeout(*verb, options->Seconds, "end after so long; 0: never");
    Add_Classic(*verb, *options);
    verb->callback([options] { Run_Serve(*options); });
}

void Add_Broadcast(CLI::App& app)
{
    const auto options = std::make_shared<S_Options>();
    options->Seconds = 60;
    auto* const verb =
        Add_Verb(app, "broadcast", "Waits until so many bricks have connected, and sends all the message.",
                 "tavbt broadcast news --text 'Dinner is ready' --clients 3\n"
                 "tavbt broadcast stop --bool true -t 20");
    verb->add_option("ID", options->Id, "the message's id")->required();
    Add_Given(*verb, options->Given);
    verb->add_option("--clients", options->Clients, "how many, at most 7")
        ->type_name("COUNT")
        ->capture_default_str()
        ->check(CLI::Range(1, 7).description(""));
    Add_Timeout(*verb, options->Seconds, "wait so long for them; 0: for ever");
    Add_Classic(*verb, *options);
    verb->callback([options] { Run_Broadcast(*options); });
}

}  // namespace

void Add_MessageVerbs(CLI::App& app)
{
    Add_Send(app);
    Add_Recv(app);
    Add_Serve(app);
    Add_Broadcast(app);
}

}  // namespace tavbt
