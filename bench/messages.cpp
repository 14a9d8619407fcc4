// What the module's messages cost beside bare system calls, and what a line of its log does.
#include "api/tav_c_api.h"
#include "bench/exchange.h"
#include "bluetooth/C_TAV_Bluetooth.h"

namespace {

using namespace bench;

// Two devices in one object: what is sent to the one is read from the other.
struct S_Bricks
{
    const S_Link Link;
    tav_c_api_impl::C_TAV_Bluetooth Bluetooth;
    const std::string Near = "Robot2";
    const std::string Far = "Robot1";  // what this brick is called
    const std::string Id = "abc";
    const std::string Text;
    std::string Received;

    explicit S_Bricks(const benchmark::State& state) : Text(static_cast<std::size_t>(state.range(0)), 'x')
    {
        Bluetooth.Add_BT_Device(Near, "02:00:00:00:00:02", Link.Near, 16);
        Bluetooth.Add_BT_Device(Far, "02:00:00:00:00:01", Link.Far, 16);
    }
    unsigned int Max_Size() const { return static_cast<unsigned int>(Text.size()); }
};

template <typename SEND, typename READ>
void Compare_Messages(benchmark::State& state, SEND send, READ read)
{
    S_Bricks bricks(state);
    Compare(state, [&] {
        Must(send(bricks), "send");
        Must(read(bricks) == static_cast<int>(bricks.Text.size()), "read");
    });
}

void BM_Calls(benchmark::State& state)
{
    Compare(state, C_Calls(state, true));
}

void BM_CallsAlone(benchmark::State& state)
{
    Compare(state, C_Calls(state, false));
}

void BM_Named(benchmark::State& state)
{
    Compare_Messages(
        state, [](S_Bricks& b) { return b.Bluetooth._SendMsg_TAV_String(b.Link.Near, b.Id, b.Text); },
        [](S_Bricks& b) {
            return b.Bluetooth._ReadMsg_TAV_String(b.Link.Far, b.Far, b.Id, b.Received, b.Max_Size(), TIMEOUT_MS);
        });
}

void BM_NamedByName(benchmark::State& state)
{
    Compare_Messages(
        state, [](S_Bricks& b) { return b.Bluetooth.SendMsg_TAV_String(b.Near, b.Id, b.Text); },
        [](S_Bricks& b) { return b.Bluetooth.ReadMsg_TAV_String(b.Far, b.Id, b.Received, b.Max_Size(), TIMEOUT_MS); });
}

void BM_Classic(benchmark::State& state)
{
    Compare_Messages(
        state, [](S_Bricks& b) { return b.Bluetooth._SendMsg_TAVOrg_String(b.Link.Near, b.Id, b.Text); },
        [](S_Bricks& b) {
            return b.Bluetooth._ReadMsg_TAVOrg_String(b.Link.Far, b.Far, b.Id, b.Received, b.Max_Size(), TIMEOUT_MS);
        });
}

void BM_ClassicByName(benchmark::State& state)
{
    Compare_Messages(
        state, [](S_Bricks& b) { return b.Bluetooth.SendMsg_TAVOrg_String(b.Near, b.Id, b.Text); },
        [](S_Bricks& b) {
            return b.Bluetooth.ReadMsg_TAVOrg_String(b.Far, b.Id, b.Received, b.Max_Size(), TIMEOUT_MS);
        });
}

void BM_LogLine(benchmark::State& state)
{
    tav_c_api::g_isLog_Quorvant_TAV = state.range(0) != 0;
    for ([[maybe_unused]] auto _ : state)
        tav_c_api::WriteLog_Dbg("C_TAV_Bluetooth::%s - %s(%d)", "ReadData", "2", 21);
    tav_c_api::g_isLog_Quorvant_TAV = false;
}

void Take_Sizes(benchmark::internal::Benchmark* benchmark)
{
    for (const int size : {1, 8, 100, 400, 800, 900, 2000, 5000, 10000, 15000, 20000})
        benchmark->Arg(size);
}

BENCHMARK(BM_Calls)->Name("bare calls")->Apply(Take_Sizes);
BENCHMARK(BM_CallsAlone)->Name("bare calls, no wait")->Apply(Take_Sizes);
BENCHMARK(BM_Named)->Name("named, by socket")->Apply(Take_Sizes);
BENCHMARK(BM_NamedByName)->Name("named, by name")->Apply(Take_Sizes);
BENCHMARK(BM_Classic)->Name("classic, by socket")->Apply(Take_Sizes);
BENCHMARK(BM_ClassicByName)->Name("classic, by name")->Apply(Take_Sizes);
BENCHMARK(BM_LogLine)->Name("log line")->Arg(0)->Arg(1);

}  // namespace

int main(int argc, char** argv)
{
    setenv("TAV_BRICK_NAME", "Robot1", 1);
    const std::string log = "/tmp/tav-bench-" + std::to_string(getpid()) + ".log";
    setenv("TAV_LOG", log.c_str(), 1);
    tav_c_api::g_isLog_Quorvant_TAV = false;
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    remove(log.c_str());
}
