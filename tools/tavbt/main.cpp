// tavbt: TAV Bluetooth at the command line.
#include "tools/tavbt/failures.h"
#include "tools/tavbt/help.h"
#include "tools/tavbt/reasons.h"
#include "tools/tavbt/terminal.h"
#include "tools/tavbt/verbs.h"

#include <bluetooth/bluetooth.h>
#include <cstring>
#include <iostream>
#include <unistd.h>

namespace tavbt {

namespace {

constexpr const char* ABOUT = "tavbt doctor\n"
                              "tavbt scan\n"
                              "tavbt serve --any\n"
                              "tavbt send Robot2 greeting --text 'Hello!'\n"
                              "\n"
                              "Finds bricks, sends them messages and shows what they send, over Bluetooth. "
                              "tavbt VERB --help explains a verb, the manual page tavbt(1) all.";

constexpr const char* FOOTER = "Results go to stdout, all else to stderr. Exit codes: 0 done, 1 failed, 2 usage,\n"
                               "3 not found, 4 not connected, 5 timed out, 6 no adapter, 7 damaged input,\n"
                               "130 interrupted.";

void Report(const S_Failure& failure)
{
    if (failure.What.empty()) return;
    std::cerr << Paint(E_Paint::RED, "tavbt:", STDERR_FILENO) << " " << Fit(failure.What, 7, STDERR_FILENO)
              << std::endl;
    if (!failure.Try.empty()) std::cerr << "  -> " << Fit(failure.Try, 5, STDERR_FILENO) << std::endl;
}

// The command line as the parser wants it, the last word first. Of "--text=" it would take the next word for the value.
std::vector<std::string> Get_Words(int count, const char* const* arguments)
{
    std::vector<std::string> words;
    const bool isHelp = count > 1 && std::strcmp(arguments[1], "help") == 0;  // help VERB is VERB --help
    if (isHelp) words.emplace_back("--help");
    for (int i = count - 1; i > (isHelp ? 1 : 0); --i) {
        const bool isEmptyText = std::strcmp(arguments[i], "--text=") == 0;
        if (isEmptyText) words.emplace_back();
        words.emplace_back(isEmptyText ? "--text" : arguments[i]);
    }
    return words;
}

// What is wrong with the command line: the first word that nothing takes says more than what is missing for it.
std::string Explain_Usage(const CLI::App& app, const CLI::ParseError& error)
{
    const std::vector<std::string> unknown = app.remaining(true);
    if (unknown.empty()) return error.what();
    for (const std::string& word : unknown)
        if (word[0] == '-') return "there is no option " + Printable(word) + " here";
    if (app.get_subcommands().empty()) return "there is no verb " + Printable(unknown.front());
    return Quoted(unknown.front()) + " is too much; what has blanks needs quotes";
}

int Run(int count, const char* const* arguments)
{
    CLI::App app(ABOUT, "tavbt");
    app.require_subcommand(1);
    app.formatter(std::make_shared<C_HelpFormatter>());
    app.set_help_flag("-h,--help", "this help");
    app.add_flag("--json", Style().Json, "results as JSON, one object a line");
    app.add_flag("-q,--quiet", Style().Quiet, "nothing on stderr but errors");
    app.add_flag_callback("--log", Show_Log,
                          "shows the module's debug log on stderr, or in the file that TAV_LOG names");
    app.set_version_flag("--version", "tavbt " TAV_VERSION, "the version");
    app.footer(FOOTER);
    Add_DeviceVerbs(app);
    Add_MessageVerbs(app);
    Add_Chat(app);
    Add_Decode(app);
    Add_Bench(app);
    Add_Doctor(app);
    Add_Complete(app);
    if (count == 1) {
        std::cerr << app.help();
        return USAGE;
    }
    try {
        app.parse(Get_Words(count, arguments));
        return DONE;
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == 0) return app.exit(error);
        const auto verbs = app.get_subcommands();
        Report({USAGE, Explain_Usage(app, error),
                "tavbt " + (verbs.empty() ? "" : verbs[0]->get_name() + " ") + "--help"});
        return USAGE;
    }
}

std::string Check_Address(const std::string& text)
{
    return bachk(text.c_str()) == 0 ? "" : Quoted(text) + " is not an address like 12:34:56:78:9A:BC";
}

}  // namespace

CLI::App* Add_Verb(CLI::App& app, const std::string& name, const std::string& what, const std::string& examples)
{
    CLI::App* const verb = app.add_subcommand(name, examples + "\n\n" + what)->group("Verbs");
    verb->fallthrough();
    verb->set_help_flag("-h,--help", "this help");
    verb->footer("Also for every verb: --json, --log, -q (tavbt --help).");
    return verb;
}

void Add_Address(CLI::App& verb, std::string& address)
{
    verb.add_option("--address", address, "where the brick is, so that it need not be looked for")
        ->type_name("ADDRESS")
        ->check(CLI::Validator(Check_Address, ""));
}

void Add_Timeout(CLI::App& verb, double& seconds, const std::string& what)
{
    verb.add_option("-t,--timeout", seconds, what)
        ->type_name("SECONDS")
        ->capture_default_str()
        ->check(CLI::Range(0.0, 1e6).description(""));
}

}  // namespace tavbt

int main(int count, char** arguments)
{
    tavbt::Prepare_Descriptors();
    tavbt::Watch_Signals();
    try {
        const int status = tavbt::Run(count, arguments);
        if (tavbt::Is_Stopped() && isatty(STDERR_FILENO)) std::cerr << '\n';  // behind the terminal's ^C
        tavbt::Print_Bytes("");                                               // throws if help was not written
        return status;
    } catch (const tavbt::S_Failure& failure) {
        tavbt::Report(failure);
        return failure.Exit;
    } catch (const std::exception& error) {  // stdout is gone, no memory, or a system without threads
        fprintf(stderr, "tavbt: %s\n", error.what());
        return tavbt::FAILED;
    }
}
