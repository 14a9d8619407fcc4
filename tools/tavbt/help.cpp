#include "tools/tavbt/help.h"

#include "tools/tavbt/terminal.h"

#include <sstream>

namespace tavbt {

namespace {

constexpr std::size_t LINE_WIDTH = 80;

}  // namespace

// Lines to paste, an empty line, and what to wrap. Which options are required is said where they stand.
std::string C_HelpFormatter::make_description(const CLI::App* app) const
{
    const std::string text = app->get_description();
    const std::size_t examples = text.find("\n\n");
    if (examples == std::string::npos) return text + "\n\n";
    return text.substr(0, examples) + "\n\n" + Wrap(text.substr(examples + 2), LINE_WIDTH) + "\n\n";
}

// Groups, of which one option is required, come with the positionals, before the options that may be left out.
std::string C_HelpFormatter::make_positionals(const CLI::App* app) const
{
    std::string text = Formatter::make_positionals(app);
    for (const CLI::App* const group : app->get_subcommands({}))
        if (group->get_name().empty()) text += make_group("One of these", false, group->get_options());
    return text;
}

std::string C_HelpFormatter::make_expanded(const CLI::App* /*group*/) const
{
    return "";
}

// In the list of verbs, only the first sentence of what each does.
std::string C_HelpFormatter::make_subcommand(const CLI::App* verb) const
{
    const std::string text = verb->get_description();
    const std::size_t start = text.find("\n\n") + 2;
    const std::size_t end = text.find(". ", start);
    std::ostringstream out;
    CLI::detail::format_help(
        out, verb->get_name(),
        Wrap(text.substr(start, end == std::string::npos ? end : end + 1 - start), LINE_WIDTH - get_column_width()),
        get_column_width());
    return out.str();
}

std::string C_HelpFormatter::make_option_opts(const CLI::Option* option) const
{
    const bool isFlag = option->get_items_expected_max() == 0;
    return option->get_positional() || isFlag ? "" : " " + option->get_type_name();
}

std::string C_HelpFormatter::make_option_desc(const CLI::Option* option) const
{
    std::string text = option->get_description();
    const std::string standard = option->get_default_str();
    if (!standard.empty() && standard != "0") text += " (" + standard + ")";
    return Wrap(text, LINE_WIDTH - get_column_width());
}

}  // namespace tavbt
