// What a person sees: results on stdout, everything else on stderr.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace tavbt {

// Common to all verbs, set by their options.
struct S_Style
{
    bool Json = false;
    bool Quiet = false;
};
S_Style& Style();

enum class E_Paint
{
    BOLD,
    RED,
    GREEN,
    YELLOW,
    CYAN
};

// The text in colour if the descriptor is a terminal and NO_COLOR is not set, else the text itself.
std::string Paint(E_Paint paint, const std::string& text, int descriptor);

// What other devices say may hold anything: control characters and bytes that are not UTF-8 become \x1B and the like.
std::string Printable(std::string_view text);
std::string Quoted(std::string_view text);

std::string To_Hex(std::string_view bytes, const char* between = "");
std::string Count_Of(std::size_t count, const std::string& thing);  // "1 byte", "2 bytes"

// Breaks a text at blanks into lines of at most `width`, all but the first indented.
std::string Wrap(std::string_view text, std::size_t width, std::size_t indent = 0);

// Wraps a text that begins in column `indent`, if it goes to a terminal, to its width.
std::string Fit(const std::string& text, std::size_t indent, int descriptor);

// Results. They throw when nobody can read them: stdout is closed, full, or a pipe without a reader.
void Print_Bytes(std::string_view bytes);
void Print(const std::string& line);
void Print(const nlohmann::ordered_json& object);

// A line about what is going on, unless -q is given.
void Note(const std::string& line);

// All that a file holds, or stdin for "-". Throws S_Failure.
std::string Read_File(const std::string& path);

// Aligned columns under their titles.
void Print_Table(const std::vector<std::string>& titles, const std::vector<std::vector<std::string>>& rows);

// A bar on stderr that fills in `seconds`, if that is a terminal; gone when it is destroyed.
class C_Progress
{
public:
    C_Progress(std::string what, double seconds);
    ~C_Progress();
    C_Progress(const C_Progress&) = delete;
    C_Progress& operator=(const C_Progress&) = delete;

private:
    void Draw() const;

    const std::string m_What;
    const double m_Seconds;
    const std::chrono::steady_clock::time_point m_Start;
    bool m_End = false;
    std::mutex m_Mutex;
    std::condition_variable m_Ended;
    std::thread m_Thread;
};

// ---- What the program is started with -------------------------------------------------------------------------------

// Makes sure that stdin, stdout and stderr are open, so that no socket gets the number of one that the caller closed,
// and that no socket gets a number that is too large for the module.
void Prepare_Descriptors();

// The first SIGINT, SIGTERM or SIGHUP interrupts the operation of the module that waits; the second ends the program.
void Watch_Signals();
bool Is_Stopped();
void Stop_If_Asked();  // throws S_Failure when one came
int Get_StopPipe();    // becomes readable with the signal, for poll

}  // namespace tavbt
