#include "tools/tavbt/base/help.h"

#include "tools/tavbt/base/terminal.h"
#include "tools/tavbt/base/text.h"

#include <algorithm>
#include <unistd.h>

namespace tavbt {

namespace {

constexpr std::size_t NAME_WIDTH = 24;

std::size_t Get_Width()
{
    constexpr std::size_t WIDEST = 80;
    constexpr std::size_t NARROWEST = 2 * NAME_WIDTH;
    const std::size_t terminal = Get_TerminalWidth(STDOUT_FILENO);
    return terminal == 0 ? WIDEST : std::clamp(terminal, NARROWEST, WIDEST);
}

std::string Get_Row(const std::string& name, const std::string& text)
{
    const std::string begin = "  " + name;
    const bool fits = begin.size() < NAME_WIDTH;
    return begin + (fits ? "" : "\n") + std::string(NAME_WIDTH - (fits ? begin.size() : 0), ' ') +
           Wrap(text, Get_Width() - NAME_WIDTH, NAME_WIDTH) + "\n";
}

std::string Get_OptionRow(const CLI::Option* option)
{
    const bool isFlag = option->get_items_expected_max() == 0;
    const bool isValued = !option->get_positional() && !isFlag;
    const std::string standard = option->get_default_str();
    return Get_Row(option->get_name(option->get_positional(), true) + (isValued ? " " + option->get_type_name() : ""),
                   option->get_description() + (standard.empty() || standard == "0" ? "" : " (" + standard + ")"));
}

// Rows under their title; nothing if there are none.
std::string Get_List(const std::string& title, const std::string& rows)
{
    return rows.empty() ? "" : "\n" + title + ":\n" + rows;
}

}  // namespace

// Descriptions are lines to paste, an empty line, and what to wrap. Of each verb's, the list of verbs has the first
// sentence. An unnamed group holds options of which one is required.
std::string C_HelpFormatter::make_help(const CLI::App* app, std::string /*name*/, CLI::AppFormatMode /*mode*/) const
{
    std::string arguments;
    std::string choices;
    std::string options;
    std::string verbs;
    std::string usage = app->get_parent() ? "tavbt " + app->get_name() + " [OPTIONS]" : "tavbt [OPTIONS] VERB";
    for (const CLI::Option* const option : app->get_options()) {
        (option->get_positional() ? arguments : options) += Get_OptionRow(option);
        if (!option->get_positional()) continue;
        const std::string word = option->get_name(true) + (option->get_items_expected_max() > 1 ? " ..." : "");
        usage += " " + (option->get_required() ? word : "[" + word + "]");
    }
    for (const CLI::App* const verb : app->get_subcommands({})) {
        const std::string text = verb->get_description();
        const std::size_t start = text.find("\n\n") + 2;
        const std::size_t end = text.find(". ", start);
        if (verb->get_name().empty())
            for (const CLI::Option* const option : verb->get_options())
                choices += Get_OptionRow(option);
        else if (!verb->get_group().empty())
            verbs += Get_Row(verb->get_name(), text.substr(start, end == std::string::npos ? end : end + 1 - start));
    }
    const std::string text = app->get_description();
    const std::size_t examples = text.find("\n\n") + 2;
    return text.substr(0, examples) + Wrap(text.substr(examples), Get_Width()) + "\n\nUsage: " + usage + "\n" +
           Get_List("Arguments", arguments) + Get_List("One of these", choices) + Get_List("Options", options) +
           Get_List("Verbs", verbs) + "\n" + Wrap(app->get_footer(), Get_Width()) + "\n";
}

}  // namespace tavbt
