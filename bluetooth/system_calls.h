// What several sources of the module need around a system or BlueZ call. Not for users of the class, and in a namespace
// of its own, since the names are common and firmware shares the outer one.
#pragma once

#include "api/tav_c_api.h"

#include <cerrno>
#include <cstring>
#include <string_view>
#include <sys/select.h>
#include <sys/time.h>

namespace tav_c_api_impl::bluetooth_calls {

// Logs that `call` failed, with errno. Always -1, the failure result of its callers.
[[gnu::cold]] inline int Fail_Call(const char* operation, const char* call)
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
std::string_view Get_Text(const char (&buffer)[SIZE])
{
    return {buffer, strnlen(buffer, SIZE)};
}

// Closes its descriptor with CLOSE, unless it is negative or was released: on every early return, and when memory runs
// out on the way.
template <int (*CLOSE)(int)>
class C_Guard
{
public:
    explicit C_Guard(int descriptor) : m_Descriptor(descriptor) {}
    ~C_Guard()
    {
        if (m_Descriptor >= 0) CLOSE(m_Descriptor);
    }
    C_Guard(const C_Guard&) = delete;
    C_Guard& operator=(const C_Guard&) = delete;

    int Get() const { return m_Descriptor; }
    int Release()
    {
        const int descriptor = m_Descriptor;
        m_Descriptor = -1;
        return descriptor;
    }

private:
    int m_Descriptor;
};

}  // namespace tav_c_api_impl::bluetooth_calls
