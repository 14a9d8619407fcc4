// The file behind the debug log of stand-alone programs.
#include "host/log_file.h"

#include "host/printable.h"

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <string>
#include <sys/syscall.h>
#include <unistd.h>

namespace tav_host {

namespace {

// Descriptor of the log, opened with the first line and never closed.
int Open_Log()
{
    const char* const path = getenv("TAV_LOG");
    if (!path || !*path || strcmp(path, "-") == 0) return STDERR_FILENO;
    // O_LARGEFILE: without it, the log of a 32-bit program ends at 2 GB.
    const int file = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_LARGEFILE, 0666);
    if (file >= 0) return file;
    fprintf(stderr, "TAV_LOG: cannot open %s: %s; logging to stderr\n", path, strerror(errno));
    return STDERR_FILENO;
}

// "2026-11-21 12:34:56.789012 4711 ", local time and thread id.
std::string Get_Stamp()
{
    const auto now = std::chrono::system_clock::now();
    const time_t seconds = std::chrono::system_clock::to_time_t(now);
    const auto since = std::chrono::duration_cast<std::chrono::microseconds>(now.time_since_epoch()).count();
    tm local{};
    localtime_r(&seconds, &local);
    char text[64];
    const std::size_t length = strftime(text, sizeof(text), "%F %T", &local);
    snprintf(text + length, sizeof(text) - length, ".%06ld %ld ", static_cast<long>(since % 1000000),
             static_cast<long>(syscall(SYS_gettid)));
    return text;
}

}  // namespace

void Write_LogLine(const char* format, va_list arguments)
{
    static const int log = Open_Log();
    char* text = nullptr;
    const int length = vasprintf(&text, format, arguments);
    std::string line = Get_Stamp();
    if (length >= 0) {
        std::string_view step(text, static_cast<std::size_t>(length));
        if (!step.empty() && step.back() == '\n') step.remove_suffix(1);
        line += Printable(step);  // names and ids come from other devices: they must not begin lines of their own
        free(text);
    }
    line += '\n';
    [[maybe_unused]] const ssize_t written = write(log, line.data(), line.size());
}

}  // namespace tav_host
