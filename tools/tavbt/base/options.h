// The options of verbs, and what values are right. Behind it stands CLI11, which costs the compiler ten seconds
// wherever it is included: here it is only named.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace CLI {
class App;
class Option;
class ParseError;
}  // namespace CLI

namespace tavbt {

// A verb whose help starts with lines to paste.
CLI::App& Add_Verb(CLI::App& app, const std::string& name, const std::string& what, const std::string& examples);

// What the verb does, once the whole command line is parsed.
void On_Run(CLI::App& verb, std::function<void()> run);

// Options of which one is required.
CLI::App& Add_Choice(CLI::App& verb);

// Names that start with a dash make an option, one without a dash an argument.
CLI::Option* Add_Text(CLI::App& verb, const std::string& names, std::string& text, const std::string& what,
                      const std::string& type = "TEXT");
CLI::Option* Add_Texts(CLI::App& verb, const std::string& names, std::vector<std::string>& texts,
                       const std::string& what);
CLI::Option* Add_Hex(CLI::App& verb, const std::string& names, std::string& hex, const std::string& what);
CLI::Option* Add_Bool(CLI::App& verb, const std::string& names, bool& isTrue, const std::string& what);
CLI::Option* Add_Count(CLI::App& verb, const std::string& names, unsigned int& count, const std::string& what,
                       unsigned int least = 0, unsigned int most = 1000000);
CLI::Option* Add_Seconds(CLI::App& verb, const std::string& names, double& seconds, const std::string& what,
                         double least = 0);
CLI::Option* Add_Flag(CLI::App& verb, const std::string& names, bool& isGiven, const std::string& what);
void Add_Address(CLI::App& verb, std::string& address);
void Add_Classic(CLI::App& verb, bool& isClassic);
void Add_Time(CLI::App& verb);

void Require(CLI::Option* option);
void Exclude(CLI::Option* option, CLI::Option* other);  // they do not go together
void Need(CLI::Option* option, CLI::Option* other);     // the first goes with the other only
bool Is_Given(const CLI::Option* option);

// What is wrong with a command line, in words for a person.
std::string Explain_Usage(const CLI::App& app, const CLI::ParseError& error);

}  // namespace tavbt
