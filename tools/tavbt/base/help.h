// How help looks: lines to paste first, then what the verb does, as wide as the terminal, 80 columns at most.
#pragma once

#include <CLI/CLI.hpp>

namespace tavbt {

class C_HelpFormatter : public CLI::FormatterBase
{
public:
    std::string make_help(const CLI::App* app, std::string name, CLI::AppFormatMode mode) const override;
};

}  // namespace tavbt
