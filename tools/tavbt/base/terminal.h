// What a person sees: results on stdout, everything else on stderr.
#pragma once

#include "tools/tavbt/base/failure.h"

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <nlohmann/json_fwd.hpp>
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
    bool Time = false;
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

// Columns of a terminal; 0: it is none, or does not tell.
std::size_t Get_TerminalWidth(int descriptor);

// Wraps a text that begins in column `indent`, if it goes to a terminal, to its width.
std::string Fit(const std::string& text, std::size_t indent, int descriptor);

// Results. They throw when nobody can read them: stdout is closed, full, or a pipe without a reader.
void Print_Bytes(std::string_view bytes);
void Print(const std::string& line);
void Print(const nlohmann::ordered_json& object);

// With --time what comes has the time, as RFC 3339 writes it, in UTC with microseconds: before a line, and in an
// object.
std::string Get_TimePrefix();
nlohmann::ordered_json Stamp(nlohmann::ordered_json object);

// A line about what is going on, unless -q is given.
void Note(const std::string& line);

// What goes to stderr is written at once, so that lines of two programs do not mix.
void Print_Error(const std::string& text);

// Says what happened and what to try; nothing if there are no words.
void Report(const S_Failure& failure);

// Runs a task, reports its failure, and returns how it ended.
E_End Run_Reported(const std::function<E_End()>& task);

// Results of one kind: aligned columns under their titles, or with --json an object each, at once.
class C_Table
{
public:
    explicit C_Table(std::vector<std::string> titles) : m_Rows{std::move(titles)} {}
    void Add(const std::vector<std::string>& cells, const nlohmann::ordered_json& object);
    void Print() const;  // nothing if there are no rows

private:
    std::vector<std::vector<std::string>> m_Rows;  // the titles first
};

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

}  // namespace tavbt
