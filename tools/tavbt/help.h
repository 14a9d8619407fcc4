// How help looks: lines to paste first, then what the verb does, in 80 columns.
#pragma once

#include <CLI/CLI.hpp>

namespace tavbt {

class C_HelpFormatter : public CLI::Formatter
{
public:
    C_HelpFormatter()
    {
        column_width(24);
        label("SUBCOMMAND", "VERB");
        label("Positionals", "Arguments");
    }

    std::string make_description(const CLI::App* app) const override;
    std::string make_positionals(const CLI::App* app) const override;
    std::string make_expanded(const CLI::App* group) const override;
    std::string make_subcommand(const CLI::App* verb) const override;
    std::string make_option_opts(const CLI::Option* option) const override;
    std::string make_option_desc(const CLI::Option* option) const override;
};

}  // namespace tavbt
