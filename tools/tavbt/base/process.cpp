#include "tools/tavbt/base/process.h"

#include "host/descriptors.h"
#include "tools/tavbt/base/failure.h"
#include "tools/tavbt/base/signals.h"
#include "tools/tavbt/base/terminal.h"
#include "tools/tavbt/base/text.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <new>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace tavbt {

namespace {

constexpr int WAIT_SECONDS = 90;  // the module waits 41 s for an answer that does not come
constexpr rlim_t COMPUTE_SECONDS = 3;
constexpr rlim_t MORE_MEMORY = 64UL * 1024 * 1024;
constexpr int OUT_OF_MEMORY = INTERRUPTED + 1;  // between the two processes, besides E_End

void Limit(__rlimit_resource what, rlim_t most)
{
    const rlimit limit{most, most + 1};  // one more: at the harder one, the kernel does not say why it kills
    setrlimit(what, &limit);
}

// Bytes of addresses that this process has taken.
rlim_t Get_Memory()
{
    rlim_t pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    return pages * static_cast<rlim_t>(sysconf(_SC_PAGESIZE));
}

[[noreturn]] void Run_Limited(const std::function<void()>& task)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    for (const int stop : {SIGINT, SIGTERM, SIGHUP})  // the parent reports them
        std::signal(stop, SIG_DFL);
    Limit(RLIMIT_CORE, 0);
    Limit(RLIMIT_CPU, COMPUTE_SECONDS);
    Limit(RLIMIT_AS, Get_Memory() + MORE_MEMORY);
    _exit(Run_Reported([&] {
        try {
            task();
        } catch (const std::bad_alloc&) {
            _exit(OUT_OF_MEMORY);
        }
        return DONE;
    }));
}

// How a child ended that has not said so itself.
std::string Explain_End(int status, bool isLate)
{
    if (isLate) return "it took longer than " + std::to_string(WAIT_SECONDS) + " s";
    if (WIFEXITED(status)) return "it ran out of memory";
    if (WTERMSIG(status) == SIGXCPU) return "it took more than " + std::to_string(COMPUTE_SECONDS) + " s of computing";
    return std::string("it crashed: ") + strsignal(WTERMSIG(status));
}

}  // namespace

void Prepare_Descriptors()
{
    for (const int stream :
         {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})  // the wrong way round: using them still fails
        if (fcntl(stream, F_GETFD) < 0) open("/dev/null", stream == STDIN_FILENO ? O_WRONLY : O_RDONLY);
    tav_host::Limit_Descriptors();
}

std::string Read_File(const std::string& path)
{
    const int file = path == "-" ? STDIN_FILENO : open(path.c_str(), O_RDONLY | O_CLOEXEC);
    std::string bytes;
    char buffer[4096];
    ssize_t count = -1;
    while (file >= 0 && (count = read(file, buffer, sizeof(buffer))) > 0)
        bytes.append(buffer, static_cast<std::size_t>(count));
    Stop_If_Asked();
    if (count < 0)
        throw S_Failure{FAILED,
                        "cannot read " + (path == "-" ? "stdin" : Printable(path)) + ": " + std::strerror(errno)};
    if (file != STDIN_FILENO) close(file);
    return bytes;
}

void Run_InChild(const std::function<void()>& task, const std::string& what)
{
    int ends[2] = {-1, -1};  // the child's end closes with it
    pid_t child = -1;
    if (pipe2(ends, O_CLOEXEC) == 0) child = fork();
    if (child < 0) throw S_Failure{FAILED, std::string("no child process can be made: ") + std::strerror(errno)};
    if (child == 0) Run_Limited(task);
    close(ends[1]);
    pollfd sources[] = {{Get_StopPipe(), POLLIN, 0}, {ends[0], POLLIN, 0}};
    const bool isLate = poll(sources, std::size(sources), WAIT_SECONDS * 1000) == 0;
    if (sources[1].revents == 0) kill(child, SIGKILL);
    close(ends[0]);
    int status = 0;
    waitpid(child, &status, 0);
    Stop_If_Asked();
    if (WIFEXITED(status) && WEXITSTATUS(status) == DONE) return;
    if (!WIFEXITED(status) || WEXITSTATUS(status) == OUT_OF_MEMORY)
        throw S_Failure{FAILED, what + ": " + Explain_End(status, isLate)};
    throw S_Failure{static_cast<E_End>(WEXITSTATUS(status)), ""};
}

}  // namespace tavbt
