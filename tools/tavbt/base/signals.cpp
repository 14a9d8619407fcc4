#include "tools/tavbt/base/signals.h"

#include "tools/tavbt/base/failure.h"

#include <csignal>
#include <fcntl.h>
#include <unistd.h>

namespace tavbt {

namespace {

volatile sig_atomic_t g_Stopped = 0;
int g_StopPipe[2] = {-1, -1};

void Stop(int signal)
{
    g_Stopped = signal;
    [[maybe_unused]] const ssize_t written = write(g_StopPipe[1], "", 1);
}

}  // namespace

void Watch_Signals()
{
    if (pipe2(g_StopPipe, O_CLOEXEC | O_NONBLOCK) != 0) return;
    struct sigaction action = {};
    action.sa_handler = Stop;
    action.sa_flags = static_cast<int>(SA_RESETHAND);  // without SA_RESTART: the call that waits ends
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction before = {};
        sigaction(signal, nullptr, &before);
        const bool isNohup = signal == SIGHUP && before.sa_handler == SIG_IGN;
        if (!isNohup) sigaction(signal, &action, nullptr);
    }
    std::signal(SIGPIPE, SIG_IGN);
}

bool Is_Stopped()
{
    return g_Stopped != 0;
}

void Stop_If_Asked()
{
    if (Is_Stopped()) throw S_Failure{INTERRUPTED, "interrupted"};
}

int Get_StopPipe()
{
    return g_StopPipe[0];
}

}  // namespace tavbt
