// Where the debug log of stand-alone programs goes. For programs that bring a WriteLog_Dbg of their own.
#pragma once

#include <cstdarg>

namespace tav_host {

// Writes one line, with local time and thread id and made printable, to stderr or to the end of the file that TAV_LOG
// names. From any thread; one write a line, so that lines of two threads or processes do not mix.
void Write_LogLine(const char* format, va_list arguments) __attribute__((format(printf, 1, 0)));

}  // namespace tav_host
