// decode
#include "tools/tavbt/base/failure.h"
#include "tools/tavbt/base/options.h"
#include "tools/tavbt/base/process.h"
#include "tools/tavbt/base/terminal.h"
#include "tools/tavbt/base/text.h"
#include "tools/tavbt/link/json.h"
#include "tools/tavbt/verbs/verbs.h"

#include <algorithm>
#include <memory>
#include <sstream>
#include <unistd.h>

namespace tavbt {

namespace {

constexpr std::size_t SHOWN_BYTES = 16;

struct S_Decode_Options
{
    std::vector<std::string> Hex;
    bool Binary = false;
    bool Lines = false;
    bool Named = false;
    bool Classic = false;
};

// What is to be taken apart, as it was given.
std::string Get_Given(const S_Decode_Options& options)
{
    std::string text;
    for (const std::string& part : options.Hex)
        text += part + " ";
    if (options.Hex.empty() && isatty(STDIN_FILENO)) Note("reading from the terminal; Ctrl-D ends it");
    if (options.Hex.empty()) text = Read_File("-");
    if (options.Hex.size() == 1 && !Parse_Hex(text) && access(options.Hex[0].c_str(), R_OK) == 0)
        throw S_Failure{USAGE, Printable(options.Hex[0]) + " is a file", "tavbt decode <" + Printable(options.Hex[0])};
    return text;
}

std::string Get_Bytes(const S_Decode_Options& options, const std::string& given)
{
    const auto bytes = options.Binary ? given : Parse_Hex(given);
    if (!bytes)
        throw S_Failure{DAMAGED, "that is not pairs of hexadecimal digits",
                        "like 03 41 42 00 61 62 63 00 01; or --binary"};
    if (bytes->empty()) throw S_Failure{DAMAGED, "there are no bytes to decode"};
    return *bytes;
}

std::string Shorten(std::string_view bytes)
{
    const std::string shown = To_Hex(bytes.substr(0, SHOWN_BYTES), " ");
    return bytes.size() > SHOWN_BYTES ? shown + " ..." : shown;
}

void Print_Text(const S_Decoded& decoded, std::string_view bytes, std::size_t start)
{
    Print(Paint(E_Paint::BOLD,
                std::string(Get_Word(decoded.Format)) + " " + Get_Word(decoded.Message.Value.Kind) + " message, " +
                    Count_Of(decoded.Size, "byte"),
                STDOUT_FILENO));
    C_Table table({"OFFSET", "BYTES", "FIELD", "VALUE"});
    for (const S_Field& field : decoded.Fields)
        table.Add({std::to_string(start + field.Offset), Shorten(bytes.substr(field.Offset, field.Size)), field.Name,
                   field.Value},
                  {});
    table.Print();
    for (const std::string& what : decoded.Damage)
        Print(Paint(E_Paint::RED, "damaged:", STDOUT_FILENO) + " " + what);
    for (const std::string& what : decoded.Odd)
        Print(Paint(E_Paint::YELLOW, "odd:", STDOUT_FILENO) + " " + what);
}

void Print_Json(const S_Decoded& decoded, std::string_view bytes, std::size_t start)
{
    nlohmann::ordered_json object = {{"format", Get_Word(decoded.Format)}};
    object.update(To_Json(decoded.Message));
    object["fields"] = nlohmann::ordered_json::array();
    for (const S_Field& field : decoded.Fields)
        object["fields"].push_back({{"offset", start + field.Offset},
                                    {"bytes", To_Hex(bytes.substr(field.Offset, field.Size))},
                                    {"field", field.Name},
                                    {"value", field.Value}});
    object["damaged"] = decoded.Damage;
    object["odd"] = decoded.Odd;
    Print(object);
}

// Prints the messages in what one receive brings. False when one is damaged.
bool Decode_Receive(const S_Decode_Options& options, const std::string& bytes)
{
    bool whole = true;
    std::size_t start = 0;
    while (start < bytes.size()) {
        const std::string_view rest = std::string_view(bytes).substr(start);
        const E_Format format = options.Named     ? E_Format::NAMED
                                : options.Classic ? E_Format::CLASSIC
                                                  : Guess_Format(rest).value_or(E_Format::NAMED);
        const S_Decoded decoded = Decode(format, rest);
        if (start > 0 && !Style().Json)
            Print("\n" + Paint(E_Paint::YELLOW, "joined:", STDOUT_FILENO) + " " + Count_Of(rest.size(), "byte") +
                  " behind it in one receive: a text reader of the named format takes them into the text, others drop "
                  "them");
        if (Style().Json)
            Print_Json(decoded, rest, start);
        else
            Print_Text(decoded, rest, start);
        whole = whole && decoded.Damage.empty();
        start += decoded.Size;
    }
    return whole;
}

void Run_Decode(const S_Decode_Options& options)
{
    const std::string given = Get_Given(options);
    bool whole = true;
    if (options.Lines) {
        std::istringstream lines(given);
        for (std::string line; std::getline(lines, line);)
            whole = Decode_Receive(options, Get_Bytes(options, line)) && whole;
    } else {
        whole = Decode_Receive(options, Get_Bytes(options, given));
    }
    if (!whole) throw S_Failure{DAMAGED, ""};
}

}  // namespace

void Add_Decode(CLI::App& app)
{
    const auto options = std::make_shared<S_Decode_Options>();
    CLI::App& verb =
        Add_Verb(app, "decode", "Takes messages apart, field by field, and says what is wrong with damaged ones.",
                 "tavbt decode 03 41 42 00 61 62 63 00 01\n"
                 "tavbt decode 0c000100819e04616263000100 01\n"
                 "tavbt serve --dump | tavbt decode --lines\n"
                 "tavbt decode --binary <message.bin");
    auto* const hex = Add_Texts(verb, "HEX", options->Hex,
                                "bytes in hexadecimal, with blanks or without; if there are none, from stdin");
    Exclude(Add_Flag(verb, "--binary", options->Binary, "stdin holds the bytes themselves"), hex);
    Exclude(Add_Flag(verb, "--lines", options->Lines, "each line of stdin is what one receive brought"), hex);
    auto* const named = Add_Flag(verb, "--named", options->Named, "takes them for the named format");
    Exclude(Add_Flag(verb, "--classic", options->Classic, "takes them for the classic format"), named);
    On_Run(verb, [options] { Run_Decode(*options); });
}

}  // namespace tavbt
