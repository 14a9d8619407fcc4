// Descriptors: the calls underneath, the marks, those of the air's own, and what is behind a number.
#include "sim/internals.h"

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <unistd.h>

namespace tav_air {

namespace {

constexpr int OWN_FDS = 700;  // the air's own descriptors from here on, where programs put none by number
constexpr int FD_TIMEOUT_MS = 200;

C_FdMarks g_Own;
std::atomic<int> g_LastOwn{0};  // no own descriptor was ever above it

// A byte, and room for a descriptor beside it.
struct S_FdMessage
{
    char Byte = 0;
    iovec Part{&Byte, 1};
    alignas(cmsghdr) char Control[CMSG_SPACE(sizeof(int))] = {};
    msghdr Header{nullptr, 0, &Part, 1, Control, sizeof(Control), 0};
};

}  // namespace

C_FdMarks g_Ours;

const S_Real& Real()
{
    static const S_Real real;
    return real;
}

std::vector<std::pair<int, epoll_event>> List_Watched(const std::string& instance)
{
    std::vector<std::pair<int, epoll_event>> watched;
    std::ifstream file("/proc/self/fdinfo/" + instance);
    for (std::string line; std::getline(file, line);) {
        int fd = -1;
        std::uint32_t events = 0;
        unsigned long long data = 0;
        if (sscanf(line.c_str(), "tfd: %d events: %x data: %llx", &fd, &events, &data) != 3) continue;
        epoll_event event{};
        event.events = events;
        event.data.u64 = data;
        watched.emplace_back(fd, event);
    }
    return watched;
}

bool Is_Own(int fd)
{
    return g_Own.Has(fd);
}

C_Own::C_Own(int fd) : m_Fd(fd)
{
    const int moved = fd < 0 ? -1 : Real().Fcntl(fd, F_DUPFD_CLOEXEC, OWN_FDS);
    if (moved < 0) return;
    Real().Close(fd);
    m_Fd = moved;
    g_Own.Set(moved, true);
    g_LastOwn = std::max(g_LastOwn.load(), moved);
}

C_Own::~C_Own()
{
    if (m_Fd < 0) return;
    g_Own.Set(m_Fd, false);
    Real().Close(m_Fd);
}

C_Own Open_UnixSocket(int type)
{
    return C_Own(Real().Socket(AF_UNIX, type | SOCK_CLOEXEC, 0));
}

C_Own Open_Pair(int type, int& near)
{
    int ends[2] = {-1, -1};
    socketpair(AF_UNIX, type, 0, ends);
    near = ends[0];
    return C_Own(ends[1]);
}

int Close_Range(unsigned int first, unsigned int last, int flags)
{
    int result = 0;
    for (auto fd = std::max<unsigned int>(first, OWN_FDS); fd <= last && static_cast<int>(fd) <= g_LastOwn; ++fd) {
        if (!Is_Own(static_cast<int>(fd))) continue;
        if (first < fd) result = Real().Close_range(first, fd - 1, flags);
        first = fd + 1;
    }
    return first <= last ? Real().Close_range(first, last, flags) : result;
}

void Swap_In(const S_Socket& socket, int other)
{
    for (const int fd : List_Fds(socket)) {
        Real().Fcntl(other, F_SETFL, Real().Fcntl(fd, F_GETFL));
        std::vector<std::pair<int, epoll_event>> watches;  // epoll watches open files, not numbers
        for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fdinfo"))
            for (const auto& [watched, event] : List_Watched(entry.path().filename()))
                if (watched == fd) watches.emplace_back(std::stoi(entry.path().filename()), event);
        for (const auto& watch : watches)
            epoll_ctl(watch.first, EPOLL_CTL_DEL, fd, nullptr);
        Real().Dup3(other, fd, (Real().Fcntl(fd, F_GETFD) & FD_CLOEXEC) ? O_CLOEXEC : 0);
        for (auto& [instance, event] : watches)
            epoll_ctl(instance, EPOLL_CTL_ADD, fd, &event);
    }
}

bool Send_Fd(int through, int fd)
{
    S_FdMessage message;
    cmsghdr* const header = CMSG_FIRSTHDR(&message.Header);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof(int));
    memcpy(CMSG_DATA(header), &fd, sizeof(int));
    return Real().Sendmsg(through, &message.Header, MSG_NOSIGNAL | MSG_DONTWAIT) == 1;
}

int Receive_Fd(int through)
{
    S_FdMessage message;
    pollfd come{through, POLLIN, 0};
    if (Real().Poll(&come, 1, FD_TIMEOUT_MS) <= 0 || Real().Recvmsg(through, &message.Header, MSG_DONTWAIT) != 1)
        return -1;
    const cmsghdr* const header = CMSG_FIRSTHDR(&message.Header);
    if (!header || header->cmsg_type != SCM_RIGHTS) return -1;
    int fd = -1;
    memcpy(&fd, CMSG_DATA(header), sizeof(int));
    return fd;
}

bool Is_Blocking(int fd, int flags)
{
    return (flags & MSG_DONTWAIT) == 0 && (Real().Fcntl(fd, F_GETFL) & O_NONBLOCK) == 0;
}

}  // namespace tav_air
