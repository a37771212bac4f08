// The non-template parts of stream_workload.h, and the program's counting recv, send, sendmsg
// and poll.
#include "stream_workload.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace benchstream {
thread_local long tSystemCalls = 0;
}

// The counting versions of the calls that move bytes (the libraries resolve them here first).
extern "C" __attribute__((visibility("default"))) ssize_t recv(int fd, void* buffer, size_t size, int flags) {
    ++benchstream::tSystemCalls;
    return syscall(SYS_recvfrom, fd, buffer, size, flags, nullptr, nullptr);
}
extern "C" __attribute__((visibility("default"))) ssize_t send(int fd, void const* buffer, size_t size, int flags) {
    ++benchstream::tSystemCalls;
    return syscall(SYS_sendto, fd, buffer, size, flags, nullptr, 0);
}
extern "C" __attribute__((visibility("default"))) int poll(pollfd* fds, nfds_t count, int timeout) {
    ++benchstream::tSystemCalls;
    return static_cast<int>(syscall(SYS_poll, fds, count, timeout));
}
extern "C" __attribute__((visibility("default"))) ssize_t sendmsg(int fd, msghdr const* message, int flags) {
    ++benchstream::tSystemCalls;
    return syscall(SYS_sendmsg, fd, message, flags);
}

namespace benchstream {

namespace nSock = nCommunication::nSocket;

// ---- the baseline ----------------------------------------------------------------------

RawConnection::~RawConnection() {
    if (fd >= 0) ::close(fd);
}

void RawConnection::hangUp() {
    ::shutdown(fd, SHUT_RDWR);
    ::close(fd);
    fd = -1;
}

bool RawConnection::send(char const* data, int length) {
    c_MessageHeader header;
    SSMMakeMessageHeader(length, kType, kSubType, &header);
    std::unique_ptr<char[]> buffer(new char[length + sizeof header]);
    std::memcpy(buffer.get(), &header, sizeof header);
    std::memcpy(buffer.get() + sizeof header, data, static_cast<size_t>(length));
    size_t left = length + sizeof header;
    for (char const* p = buffer.get(); left > 0;) {
        ssize_t n = ::send(fd, p, left, MSG_NOSIGNAL);
        if (n <= 0) return false;
        p += n;
        left -= static_cast<size_t>(n);
    }
    return true;
}

bool RawConnection::receiveExact(char* into, size_t count) {
    while (count > 0) {
        ssize_t n = ::recv(fd, into, count, MSG_WAITALL);
        if (n <= 0) return false;
        into += n;
        count -= static_cast<size_t>(n);
    }
    return true;
}

namespace {

// One framed message through `exact` (which reads exactly n bytes): the header, then its body
// into a fresh buffer.
template <class Exact>
bool receiveFramed(Exact exact, char*& body, int& length) {
    c_MessageHeader header;
    if (!exact(reinterpret_cast<char*>(&header), sizeof header)) return false;
    length = static_cast<int32_t>(ntohl(static_cast<uint32_t>(header.bodyLength)));
    body = new char[length];
    if (exact(body, static_cast<size_t>(length))) return true;
    delete[] body;
    return false;
}

}  // namespace

bool RawConnection::receive(char*& body, int& length) {
    return receiveFramed([this](char* into, size_t count) { return receiveExact(into, count); }, body, length);
}

bool RawGatherConnection::sendBatch(char const* data, int length, int batch) {
    constexpr int kMost = 64;  // the largest batch of the benchmarks; no allocation per call
    if (batch < 1 || batch > kMost) throw std::invalid_argument("raw batch size");
    c_MessageHeader headers[kMost];
    iovec pieces[2 * kMost];
    size_t left = 0;
    for (size_t i = 0; i < static_cast<size_t>(batch); ++i) {
        SSMMakeMessageHeader(length, kType, kSubType, &headers[i]);
        pieces[2 * i].iov_base = &headers[i];
        pieces[2 * i].iov_len = sizeof headers[i];
        pieces[2 * i + 1].iov_base = const_cast<char*>(data);
        pieces[2 * i + 1].iov_len = static_cast<size_t>(length);
        left += sizeof headers[i] + static_cast<size_t>(length);
    }
    for (iovec* next = pieces; left > 0;) {
        msghdr message{};
        message.msg_iov = next;
        message.msg_iovlen = static_cast<size_t>(pieces + 2 * batch - next);
        ssize_t n = ::sendmsg(fd, &message, MSG_NOSIGNAL);
        if (n <= 0) return false;
        left -= static_cast<size_t>(n);
        for (size_t done = static_cast<size_t>(n); done > 0;) {
            size_t const step = std::min(done, next->iov_len);
            next->iov_base = static_cast<char*>(next->iov_base) + step;
            next->iov_len -= step;
            done -= step;
            if (next->iov_len == 0) ++next;
        }
    }
    return true;
}

bool RawGatherConnection::take(char* into, size_t count) {
    while (count > 0) {
        if (mBegin == mEnd) {
            ssize_t n = ::recv(fd, mBuffer, sizeof mBuffer, 0);
            if (n <= 0) return false;
            mBegin = 0;
            mEnd = static_cast<size_t>(n);
        }
        size_t const step = std::min(count, mEnd - mBegin);
        std::memcpy(into, mBuffer + mBegin, step);
        mBegin += step;
        into += step;
        count -= step;
    }
    return true;
}

bool RawGatherConnection::receive(char*& body, int& length) {
    return receiveFramed([this](char* into, size_t count) { return take(into, count); }, body, length);
}

namespace {

void noDelay(int fd) {
    int on = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

}  // namespace

void rawPair(RawConnection& a, RawConnection& b) {
    int listener = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (::bind(listener, reinterpret_cast<sockaddr*>(&address), length) != 0 || ::listen(listener, 1) != 0 ||
        ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) != 0)
        throw std::runtime_error("raw listener");
    a.fd = ::socket(AF_INET, SOCK_STREAM, 0);
    if (::connect(a.fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
        throw std::runtime_error("raw connect");
    b.fd = ::accept(listener, nullptr, nullptr);
    ::close(listener);
    noDelay(a.fd);
    noDelay(b.fd);
}

// ---- the library -----------------------------------------------------------------------

bool LibraryConnection::receive(char*& body, int& length) {
    short type, subType;
    return socket->WaitTypedMessageZ1(type, subType, body, length, nullptr);
}

void libraryPair(LibraryConnection& a, LibraryConnection& b) {
    StreamSocket listener;
    listener.CreateListenerSocket(0);
    a.socket = std::make_unique<StreamSocket>();
    a.socket->Connect("127.0.0.1", nSock::gLocalPort(listener.GetHandle()), nSock::cSocketOptions());
    b.socket = std::make_unique<StreamSocket>(listener.Accept(nSock::cSocketOptions()));
}

// ---- the measurements ------------------------------------------------------------------

namespace {

// CPU time (user + system) of the calling thread, or of the whole program, in microseconds.
double cpuMicroseconds(int who) {
    rusage usage{};
    ::getrusage(who, &usage);
    auto us = [](timeval t) { return t.tv_sec * 1e6 + t.tv_usec; };
    return us(usage.ru_utime) + us(usage.ru_stime);
}

}  // namespace

ThreadCost::ThreadCost()
    : mCpu(cpuMicroseconds(RUSAGE_THREAD)), mProgramCpu(cpuMicroseconds(RUSAGE_SELF)), mCalls(tSystemCalls) {}

void ThreadCost::report(benchmark::State& state, int64_t messages) {
    double const n = static_cast<double>(messages > 0 ? messages : 1);
    state.counters["rx_cpu_us"] = (cpuMicroseconds(RUSAGE_THREAD) - mCpu) / n;
    state.counters["rx_syscalls"] = static_cast<double>(tSystemCalls - mCalls) / n;
    state.counters["cpu_us"] = (cpuMicroseconds(RUSAGE_SELF) - mProgramCpu) / n;
}

int queuedBytesOn(int fd) {
    int bytes = 0;
    return ::ioctl(fd, FIONREAD, &bytes) == 0 ? bytes : -1;
}

uint32_t digest(char const* body, int length, int rounds) {
    uint32_t h = 2166136261u;
    for (int r = 0; r < rounds; ++r)
        for (int i = 0; i < length; i += 16) h = (h ^ static_cast<unsigned char>(body[i])) * 16777619u;
    return h;
}

}  // namespace benchstream
