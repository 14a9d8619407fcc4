// complete: what the shells' completion offers, one word a line. It knows verbs and options as they are parsed, so that
// the shells' scripts need not.
#include "tools/tavbt/base/terminal.h"
#include "tools/tavbt/base/text.h"
#include "tools/tavbt/link/device_list.h"
#include "tools/tavbt/verbs/verbs.h"

#include <CLI/CLI.hpp>
#include <memory>

namespace tavbt {

namespace {

using Words = std::vector<std::string>;

bool Is_Option(const std::string& word)
{
    return word.size() > 1 && word[0] == '-';
}

const CLI::App* Find_Verb(const CLI::App& app, const std::string& name)
{
    for (const CLI::App* const verb : app.get_subcommands({}))
        if (verb->get_name() == name) return verb;
    return nullptr;
}

// The options of a verb, those in its groups included.
std::vector<const CLI::Option*> Get_Options(const CLI::App& verb)
{
    std::vector<const CLI::Option*> options = verb.get_options();
    for (const CLI::App* const group : verb.get_subcommands({}))
        if (group->get_name().empty())
            for (const CLI::Option* const option : group->get_options())
                options.push_back(option);
    return options;
}

// The option of this name; null if there is none, or if it takes no value.
const CLI::Option* Find_Valued(const CLI::App& app, const CLI::App& verb, const std::string& name)
{
    for (const CLI::App* const owner : {&verb, &app})
        for (const CLI::Option* const option : Get_Options(*owner))
            if (option->get_items_expected_max() > 0 && option->check_name(name)) return option;
    return nullptr;
}

// How many of the words stand by themselves, neither options nor their values.
std::size_t Count_Positionals(const CLI::App& app, const CLI::App& verb, const Words& words)
{
    std::size_t count = 0;
    for (std::size_t i = 0; i < words.size(); ++i)
        if (!Is_Option(words[i]))
            ++count;
        else if (Find_Valued(app, verb, words[i]))
            ++i;
    return count;
}

void Offer(const std::string& word, const std::string& begun)
{
    if (word.compare(0, begun.size(), begun) == 0) Print(word);
}

void Offer_Options(const CLI::App& app, const std::string& begun)
{
    for (const CLI::Option* const option : Get_Options(app))
        for (const std::string& name : option->get_lnames())
            if (option != app.get_help_ptr()) Offer("--" + name, begun);
}

void Offer_Devices(const std::string& begun)
{
    C_TAV_Bluetooth bluetooth;
    Read_List(bluetooth);
    for (const S_BT_ScanDevice& device : bluetooth.m_ScanDevices)
        if (Printable(device.Name) == device.Name && !Is_Option(device.Name)) Offer(device.Name, begun);
}

// The last word is the one that is being typed.
void Run_Complete(const CLI::App& app, Words words)
{
    if (words.empty()) words.emplace_back();
    const std::string begun = words.back();
    words.pop_back();
    const CLI::App* verb = nullptr;
    while (!verb && !words.empty()) {
        verb = Find_Verb(app, words.front());
        words.erase(words.begin());
    }
    if (!verb) {
        for (const CLI::App* const known : app.get_subcommands({}))
            if (!known->get_group().empty()) Offer(known->get_name(), begun);
        if (Is_Option(begun) || begun == "-") Offer_Options(app, begun);
        return;
    }
    const CLI::Option* const valued = words.empty() ? nullptr : Find_Valued(app, *verb, words.back());
    const bool isFirst = verb->get_option_no_throw("NAME") && Count_Positionals(app, *verb, words) == 0;
    if (valued && valued->get_type_name() == "true|false") {
        Offer("true", begun);
        Offer("false", begun);
    } else if (!valued && !begun.empty() && begun[0] == '-') {
        Offer_Options(*verb, begun);
        Offer_Options(app, begun);
    } else if (valued ? valued->get_type_name() == "NAME" : isFirst) {
        Offer_Devices(begun);
    }
}

}  // namespace

void Add_Complete(CLI::App& app)
{
    const auto words = std::make_shared<Words>();
    CLI::App* const verb = app.add_subcommand("complete")->group("");
    verb->add_option("WORD", *words);
    verb->callback([&app, words] { Run_Complete(app, *words); });
}

}  // namespace tavbt
