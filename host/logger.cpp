// The debug log of stand-alone programs.
//
//   TAV_LOG  switches it on: "" or "-" to stderr, else to the end of the file of this name
#include "api/tav_c_api.h"
#include "host/log_file.h"

#include <cstdlib>

namespace tav_c_api {

bool g_isLog_Quorvant_TAV = getenv("TAV_LOG") != nullptr;

void WriteLog_Dbg(const char* format, ...)
{
    if (!g_isLog_Quorvant_TAV) return;
    va_list arguments;
    va_start(arguments, format);
    tav_host::Write_LogLine(format, arguments);
    va_end(arguments);
}

}  // namespace tav_c_api
