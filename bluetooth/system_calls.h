// What several sources of the module need around a system or BlueZ call. Not for users of the class.
#pragma once

#include "api/tav_c_api.h"

#include <cerrno>
#include <cstring>
#include <string>
#include <sys/select.h>
#include <sys/time.h>

namespace tav_c_api_impl {

// Logs that `call` failed, with errno. Always -1, the failure result of its callers.
inline int Fail_Call(const char* operation, const char* call)
{
    tav_c_api::WriteLog_Dbg("C_TAV_Bluetooth::%s - Error in fce %s(Error Code %d : %s)", operation, call, errno,
                            strerror(errno));
    return -1;
}

// The select set that holds only `socket`, which must be below FD_SETSIZE. That of a negative one is empty: for -1,
// select waits for nothing but its time-out.
inline fd_set Get_Set(int socket)
{
    fd_set set;
    FD_ZERO(&set);
    if (socket >= 0) FD_SET(socket, &set);
    return set;
}

inline timeval Get_Timeval(unsigned long milliseconds)
{
    timeval time{};
    time.tv_sec = static_cast<time_t>(milliseconds / 1000);
    time.tv_usec = static_cast<suseconds_t>((milliseconds % 1000) * 1000);
    return time;
}

// The text in a buffer that a BlueZ call filled, up to its NUL or, if it has none, to the buffer's end.
template <std::size_t SIZE>
std::string Get_Text(const char (&buffer)[SIZE])
{
    return std::string(buffer, strnlen(buffer, SIZE));
}

}  // namespace tav_c_api_impl
