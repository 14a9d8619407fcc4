// Lines from stdin, as they come.
#pragma once

#include <string>

namespace tavbt {

class C_Lines
{
public:
    // A line of more than `maxSize` bytes is handed out in pieces.
    explicit C_Lines(std::size_t maxSize) : m_MaxSize(maxSize) {}

    // Reads once, and waits if there is nothing to read; false at the end of the input.
    bool Read_More();

    // The next line, without its end. The last one needs none.
    bool Take(std::string& line);

    bool Is_AtEnd() const { return m_AtEnd && m_Text.empty(); }  // all has been taken

private:
    const std::size_t m_MaxSize;
    std::string m_Text;
    bool m_AtEnd = false;
};

}  // namespace tavbt
