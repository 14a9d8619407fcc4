// Moving bytes, and waiting for them: a UNIX socket does it, with the ends that Linux has on Bluetooth.
#include "sim/internals.h"

#include <algorithm>
#include <bluetooth/l2cap.h>
#include <cerrno>
#include <cstdlib>
#include <sys/ioctl.h>
#include <unistd.h>

using namespace tav_air;

namespace {

// Bytes that a send buffer takes at once.
constexpr std::size_t SEND_ROOM = 23368;

// Of the first frame of a longer message, and how long a reader who waits is given to take it.
constexpr std::size_t FRAME = 1016;
constexpr std::chrono::milliseconds FRAME_TIME{20};

using Parts = std::vector<iovec>;

std::size_t Get_Size(const Parts& parts)
{
    std::size_t size = 0;
    for (const iovec& part : parts)
        size += part.iov_len;
    return size;
}

void Limit(Parts& parts, std::size_t size)
{
    for (iovec& part : parts) {
        part.iov_len = std::min(part.iov_len, size);
        size -= part.iov_len;
    }
}

std::string Join(const Parts& parts)
{
    std::string bytes;
    for (const iovec& part : parts)
        bytes.append(static_cast<const char*>(part.iov_base), part.iov_len);
    return bytes;
}

// The first transfer at the end of a connection reports why it ended; so does the first on one that did not come about.
// What comes after that fails as `later`, or blocks until a signal when that is 0. Always -1.
ssize_t Report_End(int fd, int flags, int later)
{
    const int error = Take_Error(fd);
    if (error != 0) return Fail(error);
    if (later != 0) return Fail(later);
    if (!Is_Blocking(fd, flags)) return Fail(EAGAIN);
    Real().Poll(nullptr, 0, -1);  // only a signal ends it
    return Fail(EINTR);
}

// What a call moved goes into the recording, or why it failed.
ssize_t Note_Transfer(const char* call, int fd, Parts parts, std::int64_t time, ssize_t count)
{
    const int error = errno;
    const bool received = *call == 'r';
    if (time == 0 || count == 0 || (count < 0 && (error == EINTR || (error == EAGAIN && received)))) return count;
    const std::size_t size = Get_Size(parts), moved = static_cast<std::size_t>(std::max<ssize_t>(count, 0));
    std::string comment;
    if (count < 0)
        comment = Explain(call, error);
    else if ((moved < size) != received)
        comment = std::string(call) + ": " + std::to_string(moved) + " of " + std::to_string(size) + " bytes";
    Limit(parts, moved);
    Record_Transfer(fd, received, time, Join(parts), comment);
    errno = error;
    return count;
}

ssize_t Take(int fd, Parts parts, int flags)
{
    const std::size_t size = Get_Size(parts);
    const S_Fault fault = Begin("recv", std::to_string(size), fd);
    if (fault.Error) return Fail(fault.Error);
    const S_Socket socket = Get_Socket(fd);
    Limit(parts, fault.Limit);
    msghdr message{};
    message.msg_iov = parts.data();
    message.msg_iovlen = parts.size();
    if (socket.Protocol == BTPROTO_HCI) return Real().Recvmsg(fd, &message, flags);
    if (socket.State == E_State::FAILED) return Report_End(fd, flags, 0);
    if (socket.State <= E_State::CONNECTING) return Fail(ENOTCONN);
    const ssize_t count = Real().Recvmsg(fd, &message, flags);
    if (count > 0 || size == 0 || socket.Shut || (count < 0 && errno != ECONNRESET)) return count;
    return Report_End(fd, flags, 0);
}

ssize_t Receive(int fd, const Parts& parts, int flags)
{
    const ssize_t count = Take(fd, parts, flags);
    return (flags & MSG_PEEK) ? count : Note_Transfer("recv", fd, parts, Get_RecordTime(), count);
}

// Who waits on the other side takes the first frame of a longer message before the rest comes.
void Send_Frame(int fd, std::string& bytes, int flags)
{
    int before = 0;
    Real().Ioctl(fd, TIOCOUTQ, &before);
    if (bytes.size() <= FRAME || before > 0) return;
    if (Real().Send(fd, bytes.data(), FRAME, flags) != static_cast<ssize_t>(FRAME)) return;
    bytes.erase(0, FRAME);
    const auto until = Clock::now() + FRAME_TIME;
    for (int left = 1; left > 0 && Clock::now() < until;) {
        usleep(200);
        Real().Ioctl(fd, TIOCOUTQ, &left);
    }
}

ssize_t Give(int fd, Parts parts, int flags)
{
    const std::size_t size = Get_Size(parts);
    const S_Fault fault = Begin("send", std::to_string(size), fd);
    if (fault.Error) return Fail(fault.Error);
    const S_Socket socket = Get_Socket(fd);
    if (socket.Type == SOCK_RAW) {
        const SocketPointer pointer = Share_Socket(fd);
        if (!pointer) return Fail(EBADF);
        return (socket.Protocol == BTPROTO_HCI ? Send_Command : Send_Signal)(pointer, Join(parts));
    }
    if (socket.State == E_State::FAILED) return Report_End(fd, flags, ENOTCONN);
    if (socket.State <= E_State::CONNECTING) return Fail(ENOTCONN);
    if (socket.Protocol == BTPROTO_L2CAP && size > L2CAP_DEFAULT_MTU) return Fail(EMSGSIZE);
    if (size > SEND_ROOM && Is_Blocking(fd, flags)) {
        pollfd end = {fd, 0, 0};  // Linux waits for room for the whole; a signal makes it send what has found room
        if (Real().Poll(&end, 1, -1) > 0) return Fail(ENOTCONN);
    }
    Limit(parts, std::min(SEND_ROOM, fault.Limit));
    std::string bytes = Join(parts);
    const std::size_t whole = bytes.size();
    flags |= MSG_NOSIGNAL;
    if (socket.Protocol == BTPROTO_RFCOMM) Send_Frame(fd, bytes, flags);
    const ssize_t count = Real().Send(fd, bytes.data(), bytes.size(), flags);
    const std::size_t before = whole - bytes.size();
    if (count >= 0) return static_cast<ssize_t>(before) + count;
    if (before > 0) return static_cast<ssize_t>(errno == EAGAIN ? before : whole);  // the peer has left meanwhile
    if (socket.Shut || (errno != EPIPE && errno != ECONNRESET)) return count;
    return Report_End(fd, flags, ENOTCONN);
}

ssize_t Transmit(int fd, const Parts& parts, int flags)
{
    const std::int64_t time = Get_RecordTime();  // before: no answer stands before its question
    return Note_Transfer("send", fd, parts, time, Give(fd, parts, flags));
}

// Of a program that was built with _FORTIFY_SOURCE: a size that its buffer has room for.
std::size_t Check(std::size_t size, std::size_t room)
{
    if (size > room) abort();
    return size;
}

// ---- Waiting --------------------------------------------------------------------------------------------------------

// What Linux tells at an end: that it is one, and only of bytes that they can be read.
void Correct(pollfd& waited)
{
    if (!g_Ours.Has(waited.fd) || (waited.revents & POLLHUP) == 0) return;
    const S_Socket socket = Get_Socket(waited.fd);
    if (socket.Shut) return;
    int size = 0;
    Real().Ioctl(waited.fd, FIONREAD, &size);
    const bool isNoticed = socket.State == E_State::FAILED || socket.Ended;
    waited.revents = static_cast<short>(waited.revents & ~(size == 0 ? POLLIN | POLLRDNORM | POLLRDHUP : POLLRDHUP));
    if (socket.Error != 0 || !isNoticed) waited.revents |= POLLERR;
}

int Correct_All(int result, pollfd* fds, nfds_t count)
{
    for (nfds_t i = 0; result > 0 && i < count; ++i)
        Correct(fds[i]);
    return result;
}

// Of what epoll tells, ends as poll has them. Which descriptor an event is of, only the kernel's list of watches says.
int Correct_Events(int instance, epoll_event* events, int count)
{
    for (int i = 0; i < count; ++i) {
        if ((events[i].events & EPOLLHUP) == 0) continue;
        for (const auto& [fd, watched] : List_Watched(std::to_string(instance))) {
            if (watched.data.u64 != events[i].data.u64 || !Is_AtEnd(fd)) continue;
            pollfd waited{fd, 0, static_cast<short>(events[i].events)};
            Correct(waited);
            events[i].events = static_cast<unsigned short>(waited.revents);
        }
    }
    return count;
}

bool Has_Ours(const fd_set* set, int count)
{
    constexpr int BITS = 8 * sizeof(fd_mask);
    const auto* const masks = reinterpret_cast<const fd_mask*>(set);  // of programs that have a larger set, too
    for (int fd = 0; set && fd < count; ++fd)
        if ((masks[fd / BITS] >> (fd % BITS) & 1) != 0 && g_Ours.Has(fd)) return true;
    return false;
}

// Counts a select that waits for one of ours; true when it is to fail.
bool Fails_Select(int count, const fd_set* readable, const fd_set* writable, const timespec* time)
{
    const bool reads = Has_Ours(readable, count);
    if (!reads && !Has_Ours(writable, count)) return false;
    char arguments[64] = "write";
    if (time)
        snprintf(arguments, sizeof(arguments), "%s, %ld.%06ld", reads ? "read" : "write",
                 static_cast<long>(time->tv_sec), static_cast<long>(time->tv_nsec / 1000));
    return Fails("select", arguments);
}

}  // namespace

extern "C" {

ssize_t read(int fd, void* buffer, std::size_t size)
{
    return g_Ours.Has(fd) ? Receive(fd, {{buffer, size}}, 0) : Real().Read(fd, buffer, size);
}

ssize_t readv(int fd, const iovec* parts, int count)
{
    if (!g_Ours.Has(fd) || count < 0) return Real().Readv(fd, parts, count);
    return Receive(fd, {parts, parts + count}, 0);
}

ssize_t recvfrom(int fd, void* buffer, std::size_t size, int flags, sockaddr* address, socklen_t* length)
{
    if (!g_Ours.Has(fd)) return Real().Recvfrom(fd, buffer, size, flags, address, length);
    if (length) *length = 0;
    return Receive(fd, {{buffer, size}}, flags);
}

ssize_t recv(int fd, void* buffer, std::size_t size, int flags)
{
    return recvfrom(fd, buffer, size, flags, nullptr, nullptr);
}

ssize_t recvmsg(int fd, msghdr* message, int flags)
{
    if (!g_Ours.Has(fd)) return Real().Recvmsg(fd, message, flags);
    message->msg_namelen = 0;
    message->msg_controllen = 0;
    message->msg_flags = 0;
    return Receive(fd, {message->msg_iov, message->msg_iov + message->msg_iovlen}, flags);
}

ssize_t write(int fd, const void* buffer, std::size_t size)
{
    return g_Ours.Has(fd) ? Transmit(fd, {{const_cast<void*>(buffer), size}}, 0) : Real().Write(fd, buffer, size);
}

ssize_t writev(int fd, const iovec* parts, int count)
{
    if (!g_Ours.Has(fd) || count < 0) return Real().Writev(fd, parts, count);
    return Transmit(fd, {parts, parts + count}, 0);
}

ssize_t sendto(int fd, const void* buffer, std::size_t size, int flags, const sockaddr* address, socklen_t length)
{
    if (!g_Ours.Has(fd)) return Real().Sendto(fd, buffer, size, flags, address, length);
    return Transmit(fd, {{const_cast<void*>(buffer), size}}, flags);
}

ssize_t send(int fd, const void* buffer, std::size_t size, int flags)
{
    return sendto(fd, buffer, size, flags, nullptr, 0);
}

ssize_t sendmsg(int fd, const msghdr* message, int flags)
{
    if (!g_Ours.Has(fd)) return Real().Sendmsg(fd, message, flags);
    return Transmit(fd, {message->msg_iov, message->msg_iov + message->msg_iovlen}, flags);
}

int poll(pollfd* fds, nfds_t count, int timeout)
{
    return Correct_All(Real().Poll(fds, count, timeout), fds, count);
}

int ppoll(pollfd* fds, nfds_t count, const timespec* timeout, const sigset_t* signals)
{
    return Correct_All(Real().Ppoll(fds, count, timeout, signals), fds, count);
}

int epoll_wait(int instance, epoll_event* events, int room, int timeout)
{
    return epoll_pwait(instance, events, room, timeout, nullptr);
}

int epoll_pwait(int instance, epoll_event* events, int room, int timeout, const sigset_t* signals)
{
    return Correct_Events(instance, events, Real().Epoll_pwait(instance, events, room, timeout, signals));
}

int epoll_pwait2(int instance, epoll_event* events, int room, const timespec* timeout, const sigset_t* signals)
{
    return Correct_Events(instance, events, Real().Epoll_pwait2(instance, events, room, timeout, signals));
}

int select(int count, fd_set* readable, fd_set* writable, fd_set* exceptional, timeval* time)
{
    timespec wait{};
    if (time) wait = {time->tv_sec, static_cast<long>(time->tv_usec * 1000)};
    if (Fails_Select(count, readable, writable, time ? &wait : nullptr)) return -1;
    return Real().Select(count, readable, writable, exceptional, time);
}

int pselect(int count, fd_set* readable, fd_set* writable, fd_set* exceptional, const timespec* time,
            const sigset_t* signals)
{
    if (Fails_Select(count, readable, writable, time)) return -1;
    return Real().Pselect(count, readable, writable, exceptional, time, signals);
}

// ---- The same in programs built with _FORTIFY_SOURCE ----------------------------------------------------------------

ssize_t __read_chk(int fd, void* buffer, std::size_t size, std::size_t room)
{
    return read(fd, buffer, Check(size, room));
}

ssize_t __recv_chk(int fd, void* buffer, std::size_t size, std::size_t room, int flags)
{
    return recv(fd, buffer, Check(size, room), flags);
}

ssize_t __recvfrom_chk(int fd, void* buffer, std::size_t size, std::size_t room, int flags, sockaddr* address,
                       socklen_t* length)
{
    return recvfrom(fd, buffer, Check(size, room), flags, address, length);
}

int __poll_chk(pollfd* fds, nfds_t count, int timeout, std::size_t room)
{
    return poll(fds, Check(count, room / sizeof(*fds)), timeout);
}

int __ppoll_chk(pollfd* fds, nfds_t count, const timespec* timeout, const sigset_t* signals, std::size_t room)
{
    return ppoll(fds, Check(count, room / sizeof(*fds)), timeout, signals);
}

}  // extern "C"
