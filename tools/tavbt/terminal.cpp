#include "tools/tavbt/terminal.h"

#include "tools/tavbt/failures.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <iostream>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <system_error>
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

// How many bytes the UTF-8 character has that `text` starts with; 0 if it is none, or a control character.
std::size_t Get_CharacterSize(std::string_view text)
{
    const auto byte = [&](std::size_t i) { return i < text.size() ? static_cast<unsigned char>(text[i]) : 0U; };
    const unsigned int first = byte(0);
    if (first < 0x80) return first >= 0x20 && first != 0x7F ? 1 : 0;
    const std::size_t size = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
    if (first < 0xC2 || first > 0xF4 || (first == 0xC2 && byte(1) < 0xA0)) return 0;
    if ((first == 0xE0 && byte(1) < 0xA0) || (first == 0xED && byte(1) > 0x9F)) return 0;
    if ((first == 0xF0 && byte(1) < 0x90) || (first == 0xF4 && byte(1) > 0x8F)) return 0;
    for (std::size_t i = 1; i < size; ++i)
        if ((byte(i) & 0xC0U) != 0x80) return 0;
    return size;
}

// Columns that a printable text takes: its characters, as most are one column wide.
std::size_t Get_Width(const std::string& text)
{
    return static_cast<std::size_t>(std::count_if(
        text.begin(), text.end(), [](char c) { return (static_cast<unsigned char>(c) & 0xC0U) != 0x80; }));
}

// 0: no terminal, or none that tells.
std::size_t Get_TerminalWidth(int descriptor)
{
    winsize size{};
    return ioctl(descriptor, TIOCGWINSZ, &size) == 0 ? size.ws_col : 0;
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

std::string Printable(std::string_view text)
{
    std::string shown;
    while (!text.empty()) {
        const std::size_t size = Get_CharacterSize(text);
        if (size > 0)
            shown += text.substr(0, size);
        else
            shown += "\\x" + To_Hex(text.substr(0, 1));
        text.remove_prefix(std::max<std::size_t>(size, 1));
    }
    return shown;
}

std::string Quoted(std::string_view text)
{
    return '"' + Printable(text) + '"';
}

std::string To_Hex(std::string_view bytes, const char* between)
{
    std::string text;
    for (const char byte : bytes) {
        char digits[3] = {};
        snprintf(digits, sizeof(digits), "%02X", static_cast<unsigned>(static_cast<unsigned char>(byte)));
        text += (text.empty() ? "" : between) + std::string(digits);
    }
    return text;
}

std::string Count_Of(std::size_t count, const std::string& thing)
{
    return std::to_string(count) + " " + thing + (count == 1 ? "" : "s");
}

std::string Wrap(std::string_view text, std::size_t width, std::size_t indent)
{
    std::string wrapped;
    while (text.size() > width) {
        const std::size_t end = std::min(text.rfind(' ', width), text.find(' ', width));  // a long word stays whole
        if (end == std::string_view::npos) break;
        wrapped += std::string(text.substr(0, end)) + "\n" + std::string(indent, ' ');
        text.remove_prefix(end + 1);
    }
    return wrapped + std::string(text);
}

std::string Fit(const std::string& text, std::size_t indent, int descriptor)
{
    const std::size_t width = Get_TerminalWidth(descriptor);
    return width > 2 * indent ? Wrap(text, width - indent, indent) : text;
}

void Print_Bytes(std::string_view bytes)
{
    std::cout << bytes << std::flush;
    if (std::cout) return;
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

void Note(const std::string& line)
{
    if (!Style().Quiet) std::cerr << Fit(line, 0, STDERR_FILENO) << std::endl;
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

void Print_Table(const std::vector<std::string>& titles, const std::vector<std::vector<std::string>>& rows)
{
    std::vector<std::size_t> widths;
    for (std::size_t column = 0; column < titles.size(); ++column) {
        widths.push_back(Get_Width(titles[column]));
        for (const auto& row : rows)
            widths[column] = std::max(widths[column], Get_Width(row[column]));
    }
    const auto line = [&](const std::vector<std::string>& row) {
        std::string text;
        for (std::size_t column = 0; column + 1 < row.size(); ++column)
            text += row[column] + std::string(widths[column] - Get_Width(row[column]) + 2, ' ');
        return text + row.back();
    };
    Print(Paint(E_Paint::BOLD, line(titles), STDOUT_FILENO));
    for (const auto& row : rows)
        Print(line(row));
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
    std::cerr << "\r\033[K" << std::flush;
}

void C_Progress::Draw() const
{
    constexpr int WIDTH = 30;
    const std::chrono::duration<double> passed = std::chrono::steady_clock::now() - m_Start;
    const int filled = static_cast<int>(WIDTH * std::min(passed.count() / m_Seconds, 1.0));
    const double left = m_Seconds - passed.count();
    char rest[32] = "asking for names";
    if (left > 0) snprintf(rest, sizeof(rest), "%.0f s", left);
    const std::string line = m_What + " [" + std::string(static_cast<std::size_t>(filled), '#') +
                             std::string(static_cast<std::size_t>(WIDTH - filled), '.') + "] " + rest;
    // Of a line that wraps, the next drawing would leave a part.
    const std::size_t width = Get_TerminalWidth(STDERR_FILENO);
    std::cerr << "\r" << line.substr(0, width > 0 ? width - 1 : line.size()) << "\033[K" << std::flush;
}

// ---- What the program is started with -------------------------------------------------------------------------------

void Prepare_Descriptors()
{
    for (const int stream :
         {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})  // the wrong way round: using them still fails
        if (fcntl(stream, F_GETFD) < 0) open("/dev/null", stream == STDIN_FILENO ? O_WRONLY : O_RDONLY);
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = std::min<rlim_t>(limit.rlim_cur, FD_SETSIZE);
    setrlimit(RLIMIT_NOFILE, &limit);
}

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
