// The verbs of tavbt. Each function adds one, or a few that belong together, with its options, and runs it when the
// command line is parsed. They throw S_Failure.
#pragma once

#include <CLI/CLI.hpp>

namespace tavbt {

void Add_DeviceVerbs(CLI::App& app);   // scan, devices, services
void Add_MessageVerbs(CLI::App& app);  // send, recv, serve, broadcast
void Add_Chat(CLI::App& app);
void Add_Decode(CLI::App& app);
void Add_Bench(CLI::App& app);
void Add_Doctor(CLI::App& app);
void Add_Complete(CLI::App& app);  // for the shells' completion, not shown

// Whether an adapter of this brick is switched on.
bool Has_Adapter();

// A verb whose help starts with lines to paste.
CLI::App* Add_Verb(CLI::App& app, const std::string& name, const std::string& what, const std::string& examples);

// Options that several verbs have.
void Add_Address(CLI::App& verb, std::string& address);
void Add_Timeout(CLI::App& verb, double& seconds, const std::string& what);

}  // namespace tavbt
