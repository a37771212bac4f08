// The tool's own send, sendmsg, recv and poll: each counts the call for the calling thread and
// hands it to the kernel. The executable's definitions come first in symbol lookup, so the
// libraries' calls are counted as well; bench reports the counts per message.
#include "syscall_count.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace colloquy {
namespace {
thread_local long tSocketCalls = 0;
}

long socketCallsOfThisThread() { return tSocketCalls; }

}  // namespace colloquy

extern "C" {

__attribute__((visibility("default"))) ssize_t send(int fd, void const* buffer, size_t size, int flags) {
    ++colloquy::tSocketCalls;
    return syscall(SYS_sendto, fd, buffer, size, flags, nullptr, 0);
}

__attribute__((visibility("default"))) ssize_t sendmsg(int fd, msghdr const* message, int flags) {
    ++colloquy::tSocketCalls;
    return syscall(SYS_sendmsg, fd, message, flags);
}

__attribute__((visibility("default"))) ssize_t recv(int fd, void* buffer, size_t size, int flags) {
    ++colloquy::tSocketCalls;
    return syscall(SYS_recvfrom, fd, buffer, size, flags, nullptr, nullptr);
}

__attribute__((visibility("default"))) int poll(pollfd* fds, nfds_t count, int timeout) {
    ++colloquy::tSocketCalls;
    return static_cast<int>(syscall(SYS_poll, fds, count, timeout));
}
}
