// bench
#include "bluetooth/constants.h"
#include "tools/tavbt/base/failure.h"
#include "tools/tavbt/base/options.h"
#include "tools/tavbt/base/signals.h"
#include "tools/tavbt/base/terminal.h"
#include "tools/tavbt/base/text.h"
#include "tools/tavbt/link/exchange.h"
#include "tools/tavbt/verbs/verbs.h"

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <nlohmann/json.hpp>

namespace tavbt {

using tav_c_api_impl::bluetooth_constants::NAMED_CHANNEL;

namespace {

constexpr const char* BENCH_NAME = "tavbt";  // both sides send under it, so that each knows the other
constexpr std::size_t TEXT_SIZES[] = {1, 16, 64, 256, 800};
constexpr int ANSWER_TIMEOUT_MS = 5000;

struct S_Bench_Options
{
    std::string Name;
    std::string Address;
    bool Serve = false;
    double Seconds = 1;
};

S_Wanted Get_Wanted()
{
    S_Wanted wanted;
    wanted.Sender = BENCH_NAME;
    wanted.Id = "bench";
    wanted.Kind = E_Kind::TEXT;
    return wanted;
}

// Sends a text and waits for it to come back.
void Make_RoundTrip(C_TAV_Bluetooth& bluetooth, int socket, const std::string& peer, const S_Value& text)
{
    const S_Wanted wanted = Get_Wanted();
    Send(bluetooth, socket, peer, wanted.Format, wanted.Id, text);
    const std::vector<S_Message> answers = Read(bluetooth, socket, peer, wanted, ANSWER_TIMEOUT_MS);
    Stop_If_Asked();
    if (answers.empty())
        throw S_Failure{TIMED_OUT, Printable(peer) + " does not answer",
                        "on " + Printable(peer) + ": tavbt bench --serve"};
    if (answers[0].Value.Bytes != text.Bytes) throw S_Failure{DAMAGED, "what came back is not what was sent"};
}

void Measure(C_TAV_Bluetooth& bluetooth, int socket, const S_Bench_Options& options)
{
    using Clock = std::chrono::steady_clock;
    C_Table table({"BYTES", "ROUND TRIPS/S", "MEDIAN ms", "90 % ms", "99 % ms", "MAX ms", "KB/S EACH WAY"});
    for (const std::size_t size : TEXT_SIZES) {
        const S_Value text{E_Kind::TEXT, false, std::string(size, 'x')};
        Make_RoundTrip(bluetooth, socket, options.Name, text);  // the first of a size is not counted
        std::vector<double> times;                              // ms
        const auto start = Clock::now();
        auto last = start;
        do {
            Make_RoundTrip(bluetooth, socket, options.Name, text);
            const auto now = Clock::now();
            times.push_back(std::chrono::duration<double, std::milli>(now - last).count());
            last = now;
        } while (last - start < std::chrono::duration<double>(options.Seconds));
        const double rate = static_cast<double>(times.size()) / std::chrono::duration<double>(last - start).count();
        const double throughput = rate * static_cast<double>(size) / 1000;
        std::sort(times.begin(), times.end());
        const auto get_percentile = [&](std::size_t percent) { return times[(times.size() - 1) * percent / 100]; };
        table.Add({std::to_string(size), Format_Number(rate, 0), Format_Number(get_percentile(50), 3),
                   Format_Number(get_percentile(90), 3), Format_Number(get_percentile(99), 3),
                   Format_Number(times.back(), 3), Format_Number(throughput, 1)},
                  {{"bytes", size},
                   {"round_trips", times.size()},
                   {"per_second", rate},
                   {"median_ms", get_percentile(50)},
                   {"p90_ms", get_percentile(90)},
                   {"p99_ms", get_percentile(99)},
                   {"max_ms", times.back()},
                   {"kilobytes_per_second", throughput}});
    }
    table.Print();
}

void Run_Bench(const S_Bench_Options& options)
{
    setenv("TAV_BRICK_NAME", BENCH_NAME, 1);
    C_TAV_Bluetooth bluetooth;
    if (!options.Serve) {
        if (options.Name.empty()) throw S_Failure{USAGE, "with whom? bench NAME, and there: bench --serve"};
        const C_Connection link(bluetooth, options.Name, options.Address, NAMED_CHANNEL);
        return Measure(bluetooth, link.Get_Socket(), options);
    }
    C_Server server(bluetooth, NAMED_CHANNEL);
    Note("answering on channel " + std::to_string(NAMED_CHANNEL) + "; Ctrl-C ends it");
    const auto send_back = [&](const S_BT_ScanDevice& client, const S_Message& message) {
        Send_Back(bluetooth, client, E_Format::NAMED, message);
    };
    const auto never = [] { return false; };
    Run_Server(bluetooth, server, Get_Wanted(), C_Deadline(0), never, send_back);
}

}  // namespace

void Add_Bench(CLI::App& app)
{
    const auto options = std::make_shared<S_Bench_Options>();
    CLI::App& verb = Add_Verb(app, "bench",
                              "Sends texts of several sizes there and back, one at a time, and prints round trips "
                              "per second, how long they took, and the bytes of text that went each way.",
                              "tavbt bench --serve     on Robot2\n"
                              "tavbt bench Robot2      on Robot1\n"
                              "tavbt bench Robot2 -t 5 --json");
    auto* const name = Add_Text(verb, "NAME", options->Name, "the brick that answers");
    Exclude(Add_Flag(verb, "--serve", options->Serve, "answer"), name);
    Add_Seconds(verb, "-t,--time", options->Seconds, "seconds for each size", 0.01);
    Add_Address(verb, options->Address);
    On_Run(verb, [options] { Run_Bench(*options); });
}

}  // namespace tavbt
