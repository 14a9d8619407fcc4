// tavbt: TAV Bluetooth at the command line.
#include "bluetooth/tav_version.h"
#include "tools/tavbt/base/help.h"
#include "tools/tavbt/base/options.h"
#include "tools/tavbt/base/process.h"
#include "tools/tavbt/base/signals.h"
#include "tools/tavbt/base/terminal.h"
#include "tools/tavbt/link/reasons.h"
#include "tools/tavbt/verbs/verbs.h"

#include <CLI/CLI.hpp>
#include <cstring>
#include <sstream>
#include <unistd.h>

namespace tavbt {

namespace {

constexpr void (*VERBS[])(CLI::App&) = {Add_Scan,  Add_Devices,   Add_Services, Add_Send, Add_Recv,
                                        Add_Serve, Add_Broadcast, Add_Chat,     Add_Pipe, Add_Decode,
                                        Add_Bench, Add_Doctor,    Add_Complete};

constexpr const char* ABOUT = "tavbt doctor\n"
                              "tavbt scan\n"
                              "tavbt serve --any\n"
                              "tavbt send Robot2 greeting --text 'Hello!'\n"
                              "\n"
                              "Finds bricks, sends them messages and shows what they send, over Bluetooth. "
                              "tavbt VERB --help explains a verb, the manual page tavbt(1) all.";

constexpr const char* FOOTER = "Results go to stdout, all else to stderr. Exit codes: 0 done, 1 failed, 2 usage, "
                               "3 not found, 4 not connected, 5 timed out, 6 no adapter, 7 damaged input, "
                               "130 interrupted.";

std::string Get_Version()
{
    return std::to_string(TAV_BLUETOOTH_MAJOR) + "." + std::to_string(TAV_BLUETOOTH_MINOR) + "." +
           std::to_string(TAV_BLUETOOTH_PATCH);
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

E_End Run(int count, const char* const* arguments)
{
    CLI::App app(ABOUT, "tavbt");
    app.require_subcommand(1);
    app.formatter(std::make_shared<C_HelpFormatter>());
    app.set_help_flag("-h,--help", "this help");
    app.add_flag("--json", Style().Json, "results as JSON, one object a line");
    app.add_flag("-q,--quiet", Style().Quiet, "nothing on stderr but errors");
    app.add_flag_callback("--log", Show_Log,
                          "shows the module's debug log on stderr, or in the file that TAV_LOG names");
    app.set_version_flag("--version", "tavbt " + Get_Version(), "the version");
    app.footer(FOOTER);
    for (const auto add_verb : VERBS)
        add_verb(app);
    if (count == 1) {
        Print_Error(app.help());
        return USAGE;
    }
    try {
        app.parse(Get_Words(count, arguments));
        if (Is_Stopped() && isatty(STDERR_FILENO)) Print_Error("\n");  // behind the terminal's ^C
    } catch (const CLI::ParseError& error) {
        std::ostringstream shown;  // help, or the version
        if (app.exit(error, shown, shown) == 0) {
            Print_Bytes(shown.str());
            return DONE;
        }
        const auto verbs = app.get_subcommands();
        Report({USAGE, Explain_Usage(app, error),
                "tavbt " + (verbs.empty() ? "" : verbs[0]->get_name() + " ") + "--help"});
        return USAGE;
    }
    return DONE;
}

}  // namespace

}  // namespace tavbt

int main(int count, char** arguments)
{
    tavbt::Prepare_Descriptors();
    tavbt::Watch_Signals();
    return tavbt::Get_ExitCode(tavbt::Run_Reported([&] { return tavbt::Run(count, arguments); }));
}
