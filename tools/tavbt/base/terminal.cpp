#include "tools/tavbt/base/terminal.h"

#include "tools/tavbt/base/signals.h"
#include "tools/tavbt/base/text.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <nlohmann/json.hpp>
#include <sys/ioctl.h>
#include <system_error>
#include <unistd.h>

namespace tavbt {

namespace {

// Writes all of it; false when that fails.
bool Write(int descriptor, std::string_view bytes)
{
    while (!bytes.empty()) {
        const ssize_t written = write(descriptor, bytes.data(), bytes.size());
        if (written < 0) return false;
        bytes.remove_prefix(static_cast<std::size_t>(written));
    }
    return true;
}

std::string Get_Time()
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm utc{};
    gmtime_r(&now.tv_sec, &utc);
    char text[64];
    const std::size_t size = strftime(text, sizeof(text), "%FT%T", &utc);
    snprintf(text + size, sizeof(text) - size, ".%06ldZ", now.tv_nsec / 1000);
    return text;
}

}  // namespace

S_Style& Style()
{
    static S_Style style;
    return style;
}

std::string Paint(E_Paint paint, const std::string& text, int descriptor)
{
    constexpr const char* CODES[] = {"1", "31", "32", "33", "36"};
    const char* const refused = getenv("NO_COLOR");
    if ((refused && *refused) || isatty(descriptor) == 0) return text;
    return std::string("\033[") + CODES[static_cast<int>(paint)] + "m" + text + "\033[0m";
}

std::size_t Get_TerminalWidth(int descriptor)
{
    winsize size{};
    return ioctl(descriptor, TIOCGWINSZ, &size) == 0 ? size.ws_col : 0;
}

std::string Fit(const std::string& text, std::size_t indent, int descriptor)
{
    const std::size_t width = Get_TerminalWidth(descriptor);
    return width > 2 * indent ? Wrap(text, width - indent, indent) : text;
}

void Print_Bytes(std::string_view bytes)
{
    if (Write(STDOUT_FILENO, bytes)) return;
    Stop_If_Asked();
    if (errno == EPIPE) throw S_Failure{FAILED, ""};  // as in "| head": the reader has what it wants
    throw std::system_error(errno, std::generic_category(), "cannot write to stdout");
}

void Print(const std::string& line)
{
    Print_Bytes(line + '\n');
}

void Print(const nlohmann::ordered_json& object)
{
    const bool onlyAscii = isatty(STDOUT_FILENO) != 0;  // a terminal would obey control characters beyond ASCII
    Print(object.dump(-1, ' ', onlyAscii, nlohmann::json::error_handler_t::replace));
}

std::string Get_TimePrefix()
{
    return Style().Time ? Get_Time() + " " : "";
}

nlohmann::ordered_json Stamp(nlohmann::ordered_json object)
{
    if (Style().Time) object["time"] = Get_Time();
    return object;
}

void Note(const std::string& line)
{
    if (!Style().Quiet) Print_Error(Fit(line, 0, STDERR_FILENO) + '\n');
}

void Print_Error(const std::string& text)
{
    Write(STDERR_FILENO, text);  // where it fails, nobody is left to tell
}

void Report(const S_Failure& failure)
{
    if (failure.What.empty()) return;
    std::string lines = Paint(E_Paint::RED, "tavbt:", STDERR_FILENO) + " " + Fit(failure.What, 7, STDERR_FILENO) + "\n";
    if (!failure.Try.empty()) lines += "  -> " + Fit(failure.Try, 5, STDERR_FILENO) + "\n";
    Print_Error(lines);
}

E_End Run_Reported(const std::function<E_End()>& task)
{
    try {
        return task();
    } catch (const S_Failure& failure) {
        Report(failure);
        return failure.End;
    } catch (const std::exception& error) {  // stdout is gone, no memory, or a system without threads
        Report({FAILED, error.what()});
        return FAILED;
    }
}

void C_Table::Add(const std::vector<std::string>& cells, const nlohmann::ordered_json& object)
{
    if (Style().Json) return tavbt::Print(object);
    m_Rows.push_back(cells);
}

void C_Table::Print() const
{
    if (m_Rows.size() == 1) return;
    std::vector<std::size_t> widths(m_Rows[0].size());
    for (const auto& row : m_Rows)
        for (std::size_t column = 0; column < row.size(); ++column)
            widths[column] = std::max(widths[column], Get_Width(row[column]));
    for (const auto& row : m_Rows) {
        std::string line;
        for (std::size_t column = 0; column + 1 < row.size(); ++column)
            line += row[column] + std::string(widths[column] - Get_Width(row[column]) + 2, ' ');
        line += row.back();
        tavbt::Print(&row == &m_Rows[0] ? Paint(E_Paint::BOLD, line, STDOUT_FILENO) : line);
    }
}

// ---- Progress -------------------------------------------------------------------------------------------------------

C_Progress::C_Progress(std::string what, double seconds)
    : m_What(std::move(what)), m_Seconds(seconds), m_Start(std::chrono::steady_clock::now())
{
    if (Style().Quiet || isatty(STDERR_FILENO) == 0) return;
    // Signals are for the thread that calls the module.
    sigset_t all{};
    sigset_t before{};
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    m_Thread = std::thread([this] {
        std::unique_lock lock(m_Mutex);
        do
            Draw();
        while (!m_Ended.wait_for(lock, std::chrono::milliseconds(100), [this] { return m_End; }));
    });
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

C_Progress::~C_Progress()
{
    if (!m_Thread.joinable()) return;
    {
        const std::lock_guard lock(m_Mutex);
        m_End = true;
    }
    m_Ended.notify_one();
    m_Thread.join();
    Print_Error("\r\033[K");
}

void C_Progress::Draw() const
{
    constexpr int WIDTH = 30;
    const std::chrono::duration<double> passed = std::chrono::steady_clock::now() - m_Start;
    const int filled = static_cast<int>(WIDTH * std::min(passed.count() / m_Seconds, 1.0));
    const double left = m_Seconds - passed.count();
    std::string rest = "asking for names";
    if (left > 0) rest = Format_Number(left, 0) + " s";
    const std::string line = m_What + " [" + std::string(static_cast<std::size_t>(filled), '#') +
                             std::string(static_cast<std::size_t>(WIDTH - filled), '.') + "] " + rest;
    // Of a line that wraps, the next drawing would leave a part.
    const std::size_t width = Get_TerminalWidth(STDERR_FILENO);
    Print_Error("\r" + line.substr(0, width > 0 ? width - 1 : line.size()) + "\033[K");
}

}  // namespace tavbt
