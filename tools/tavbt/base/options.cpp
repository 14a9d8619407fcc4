#include "tools/tavbt/base/options.h"

#include "tools/tavbt/base/terminal.h"
#include "tools/tavbt/base/text.h"

#include <CLI/CLI.hpp>
#include <bluetooth/bluetooth.h>
#include <cstdlib>
#include <regex>

namespace tavbt {

namespace {

CLI::Validator Is_Number(double least, double most, bool isWhole)
{
    const auto check = [=](const std::string& text) -> std::string {
        char* end = nullptr;
        const double number = std::strtod(text.c_str(), &end);
        const bool isDigits = text.find_first_not_of("0123456789") == std::string::npos;
        if (end != text.c_str() && *end == 0 && number >= least && number <= most && (!isWhole || isDigits)) return "";
        return Quoted(text) + " is not a " + (isWhole ? "whole number" : "number") + " from " + Format_Number(least) +
               " to " + Format_Number(most);
    };
    return {check, ""};
}

CLI::Validator Is_Address()
{
    const auto check = [](const std::string& text) -> std::string {
        return bachk(text.c_str()) == 0 ? "" : Quoted(text) + " is not an address like 12:34:56:78:9A:BC";
    };
    return {check, ""};
}

CLI::Validator Is_Hex()
{
    const auto check = [](const std::string& text) -> std::string {
        return Parse_Hex(text) ? "" : Quoted(text) + " is not pairs of hexadecimal digits, like DEAD or \"DE AD\"";
    };
    return {check, ""};
}

CLI::Validator Is_Bool()
{
    const auto check = [](const std::string& text) -> std::string {
        return text == "true" || text == "false" ? "" : Quoted(text) + " is neither true nor false";
    };
    return {check, ""};
}

// The parser's sentences, in words for a person.
std::string Reword(const std::string& sentence)
{
    constexpr const char* WORDINGS[][2] = {
        {R"(Exactly 1 option from \[(.*)\] is required .+)", "only one of $1 can be given"},
        {R"(Exactly 1 option from \[(.*)\] is required)", "one of $1 is missing"},
        {"A subcommand is required", "the verb is missing"},
        {"(.*) is required", "$1 is missing"},
        {"(.*): 1 required .*", "$1 needs a value"},
        {"(.*): At [Mm]ost 1 required .*", "$1 is given more than once"},
        {"(.*) excludes (.*)", "$1 and $2 do not go together"},
        {"(.*) requires (.*)", "$1 goes with $2 only"},
    };
    for (const auto& [parsers, ours] : WORDINGS)
        if (const std::regex form(parsers); std::regex_match(sentence, form))
            return std::regex_replace(std::regex_replace(sentence, form, ours), std::regex(",(?! )"), ", ");
    return sentence;
}

}  // namespace

CLI::App& Add_Verb(CLI::App& app, const std::string& name, const std::string& what, const std::string& examples)
{
    CLI::App* const verb = app.add_subcommand(name, examples + "\n\n" + what)->group("Verbs");
    verb->fallthrough();
    verb->set_help_flag("-h,--help", "this help");
    verb->footer("Also for every verb: --json, --log, -q (tavbt --help).");
    return *verb;
}

void On_Run(CLI::App& verb, std::function<void()> run)
{
    verb.callback(std::move(run));
}

CLI::App& Add_Choice(CLI::App& verb)
{
    CLI::App* const group = verb.add_option_group("Choice");
    group->require_option(1)->group("");
    group->set_help_flag();
    return *group;
}

CLI::Option* Add_Text(CLI::App& verb, const std::string& names, std::string& text, const std::string& what,
                      const std::string& type)
{
    return verb.add_option(names, text, what)->type_name(type);
}

CLI::Option* Add_Texts(CLI::App& verb, const std::string& names, std::vector<std::string>& texts,
                       const std::string& what)
{
    return verb.add_option(names, texts, what);
}

CLI::Option* Add_Hex(CLI::App& verb, const std::string& names, std::string& hex, const std::string& what)
{
    return Add_Text(verb, names, hex, what, "HEX")->check(Is_Hex());
}

CLI::Option* Add_Bool(CLI::App& verb, const std::string& names, bool& isTrue, const std::string& what)
{
    return verb.add_option(names, isTrue, what)->type_name("true|false")->check(Is_Bool());
}

CLI::Option* Add_Count(CLI::App& verb, const std::string& names, unsigned int& count, const std::string& what,
                       unsigned int least, unsigned int most)
{
    return verb.add_option(names, count, what)
        ->type_name("COUNT")
        ->capture_default_str()
        ->check(Is_Number(least, most, true));
}

CLI::Option* Add_Seconds(CLI::App& verb, const std::string& names, double& seconds, const std::string& what,
                         double least)
{
    return verb.add_option(names, seconds, what)
        ->type_name("SECONDS")
        ->capture_default_str()
        ->check(Is_Number(least, 1e6, false));
}

CLI::Option* Add_Flag(CLI::App& verb, const std::string& names, bool& isGiven, const std::string& what)
{
    return verb.add_flag(names, isGiven, what);
}

void Add_Address(CLI::App& verb, std::string& address)
{
    Add_Text(verb, "--address", address, "where the brick is, so that it need not be looked for", "ADDRESS")
        ->check(Is_Address());
}

void Add_Classic(CLI::App& verb, bool& isClassic)
{
    Add_Flag(verb, "--classic", isClassic,
             "classic mailbox format, on channel 1, instead of the named one, on channel 16");
}

void Add_Time(CLI::App& verb)
{
    Add_Flag(verb, "--time", Style().Time, "with the time at which each message came");
}

void Require(CLI::Option* option)
{
    option->required();
}

void Exclude(CLI::Option* option, CLI::Option* other)
{
    option->excludes(other);
}

void Need(CLI::Option* option, CLI::Option* other)
{
    option->needs(other);
}

bool Is_Given(const CLI::Option* option)
{
    return option->count() > 0;
}

std::string Explain_Usage(const CLI::App& app, const CLI::ParseError& error)
{
    // The first word that nothing takes says more than what is missing for it.
    const std::vector<std::string> unknown = app.remaining(true);
    if (unknown.empty()) return Reword(error.what());
    for (const std::string& word : unknown)
        if (word[0] == '-') return "there is no option " + Printable(word) + " here";
    if (app.get_subcommands().empty()) return "there is no verb " + Printable(unknown.front());
    return Quoted(unknown.front()) + " is too much; what has blanks needs quotes";
}

}  // namespace tavbt
