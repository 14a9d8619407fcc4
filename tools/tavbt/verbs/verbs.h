// The verbs of tavbt. Each function adds one with its options, and runs it when the command line is parsed. They throw
// S_Failure.
#pragma once

namespace CLI {
class App;
}

namespace tavbt {

void Add_Scan(CLI::App& app);
void Add_Devices(CLI::App& app);
void Add_Services(CLI::App& app);
void Add_Send(CLI::App& app);
void Add_Recv(CLI::App& app);
void Add_Serve(CLI::App& app);
void Add_Broadcast(CLI::App& app);
void Add_Chat(CLI::App& app);
void Add_Pipe(CLI::App& app);
void Add_Decode(CLI::App& app);
void Add_Bench(CLI::App& app);
void Add_Doctor(CLI::App& app);
void Add_Complete(CLI::App& app);  // for the shells' completion, not shown

}  // namespace tavbt
