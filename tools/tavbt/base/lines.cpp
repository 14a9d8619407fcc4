#include "tools/tavbt/base/lines.h"

#include <unistd.h>

namespace tavbt {

bool C_Lines::Read_More()
{
    char buffer[4096];
    const ssize_t count = read(STDIN_FILENO, buffer, sizeof(buffer));
    if (count > 0) m_Text.append(buffer, static_cast<std::size_t>(count));
    m_AtEnd = count <= 0;
    return !m_AtEnd;
}

bool C_Lines::Take(std::string& line)
{
    const std::size_t end = m_Text.find('\n');
    if (end == std::string::npos && m_Text.size() < m_MaxSize && (!m_AtEnd || m_Text.empty())) return false;
    const bool isWhole = end <= m_MaxSize;
    line = m_Text.substr(0, isWhole ? end : m_MaxSize);
    m_Text.erase(0, line.size() + (isWhole ? 1 : 0));
    return true;
}

}  // namespace tavbt
