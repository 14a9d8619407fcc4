// Default definitions of api/ for stand-alone programs.
//
//   TAV_LOG         switches the debug log on: "" or "-" to stderr, else to the end of the file of this name
//   TAV_BRICK_NAME  this brick's name
#include "api/tav_c_api.h"

#include <bluetooth/bluetooth.h>
#include <bluetooth/hci.h>
#include <bluetooth/hci_lib.h>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <mutex>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

constexpr int HCI_TIMEOUT_MS = 1000;

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

// The name of the first adapter, empty if there is none. Asked until it is known, then kept.
std::string Get_AdapterName()
{
    static std::mutex mutex;
    static std::string known;
    const std::lock_guard lock(mutex);
    if (!known.empty()) return known;
    const int adapter = hci_open_dev(hci_get_route(nullptr));
    if (adapter < 0) return "";
    char name[249] = {};
    if (hci_read_local_name(adapter, sizeof(name) - 1, name, HCI_TIMEOUT_MS) == 0) known = name;
    hci_close_dev(adapter);
    return known;
}

}  // namespace

namespace tav_c_api {

bool g_isLog_Quorvant_TAV = getenv("TAV_LOG") != nullptr;

// One write a line, so that lines of two threads or processes do not mix.
void WriteLog_Dbg(const char* format, ...)
{
    if (!g_isLog_Quorvant_TAV) return;
    static const int log = Open_Log();
    char* text = nullptr;
    va_list arguments;
    va_start(arguments, format);
    const int length = vasprintf(&text, format, arguments);
    va_end(arguments);
    std::string line = Get_Stamp();
    if (length >= 0) {
        line.append(text, static_cast<std::size_t>(length));
        free(text);
    }
    if (line.back() != '\n') line += '\n';
    [[maybe_unused]] const ssize_t written = write(log, line.data(), line.size());
}

}  // namespace tav_c_api

namespace tav_c_api_impl {

bool Get_TAVBrickName(std::string& name)
{
    const char* const given = getenv("TAV_BRICK_NAME");
    name = given && *given ? given : Get_AdapterName();
    if (!name.empty()) return true;
    char host[256] = {};
    if (gethostname(host, sizeof(host) - 1) == 0) name = host;
    return !name.empty();
}

bool DeleteFile(const std::string& path)
{
    return unlink(path.c_str()) == 0 || errno == ENOENT;
}

}  // namespace tav_c_api_impl
