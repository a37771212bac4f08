// The stream transport workloads shared by the benchmark programs, with the framing and the
// copies described in streamsocket_bench.cpp: a raw POSIX baseline and the library's
// StreamSocket behind one small interface (send, receive, release, hangUp), the one-way and
// round-trip loops, and the counters of CPU time and system calls per message.
// Include it in exactly one source file per program: it defines the counting recv, send
// and poll of that program.
#ifndef COLLOQUY_BENCH_STREAM_WORKLOAD_H
#define COLLOQUY_BENCH_STREAM_WORKLOAD_H

#include "streamsocket.h"

#include <benchmark/benchmark.h>

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

#include <cstdint>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

namespace benchstream {
inline thread_local long tSystemCalls = 0;
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

constexpr short kType = 3;
constexpr short kSubType = 4;

// ---- the baseline ----------------------------------------------------------------------

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

struct RawConnection {
    int fd = -1;
    ~RawConnection() {
        if (fd >= 0) ::close(fd);
    }
    void hangUp() {
        ::shutdown(fd, SHUT_RDWR);
        ::close(fd);
        fd = -1;
    }

    bool send(char const* data, int length) {
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
    bool receiveExact(char* into, size_t count) {
        while (count > 0) {
            ssize_t n = ::recv(fd, into, count, MSG_WAITALL);
            if (n <= 0) return false;
            into += n;
            count -= static_cast<size_t>(n);
        }
        return true;
    }
    bool receive(char*& body, int& length) {
        return receiveFramed([this](char* into, size_t count) { return receiveExact(into, count); }, body, length);
    }
    void release(char* body) { delete[] body; }
};

// The baseline of batched sending: `kBatch` messages per call of send, written as writev
// would (an iovec for each header and each body, resumed after partial writes) through sendmsg,
// whose MSG_NOSIGNAL keeps a peer that hung up from raising SIGPIPE. Its receiver reads ahead
// 16 KiB at a time, as the library does, and copies each body into a fresh buffer.
template <int kBatch>
struct RawBatchConnection : RawConnection {
    bool send(char const* data, int length) {
        c_MessageHeader headers[kBatch];
        iovec pieces[2 * kBatch];
        size_t left = 0;
        for (int i = 0; i < kBatch; ++i) {
            SSMMakeMessageHeader(length, kType, kSubType, &headers[i]);
            pieces[2 * i] = {&headers[i], sizeof headers[i]};
            pieces[2 * i + 1] = {const_cast<char*>(data), static_cast<size_t>(length)};
            left += sizeof headers[i] + static_cast<size_t>(length);
        }
        for (iovec* next = pieces; left > 0;) {
            msghdr message{};
            message.msg_iov = next;
            message.msg_iovlen = static_cast<size_t>(pieces + 2 * kBatch - next);
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
    // Exactly `count` bytes: from the read-ahead, refilled with one recv at a time.
    bool take(char* into, size_t count) {
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
    bool receive(char*& body, int& length) {
        return receiveFramed([this](char* into, size_t count) { return take(into, count); }, body, length);
    }

  private:
    char mBuffer[16 * 1024];
    size_t mBegin = 0;
    size_t mEnd = 0;
};

inline void noDelay(int fd) {
    int on = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

// Two connected raw sockets over IPv4 loopback.
inline void rawPair(RawConnection& a, RawConnection& b) {
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

struct LibraryConnection {
    std::unique_ptr<StreamSocket> socket;
    void hangUp() { socket->CloseSocket(); }
    bool send(char const* data, int length) { return socket->SendTypedMessageZ2(kType, kSubType, data, length); }
    bool receive(char*& body, int& length) {
        short type, subType;
        return socket->WaitTypedMessageZ1(type, subType, body, length, nullptr);
    }
    void release(char* body) { StreamSocket::FreeMessage(body); }
};

// The library's batched sending: `kBatch` messages per call of send, gathered in a
// cTypedMessageBatch (filled anew each time, as a host would) and sent with
// SendTypedMessageBatch. The receiver is the library's, unchanged.
template <int kBatch>
struct LibraryBatchConnection : LibraryConnection {
    cTypedMessageBatch batch;
    bool send(char const* data, int length) {
        batch.Clear();
        for (int i = 0; i < kBatch; ++i) batch.Add(kType, kSubType, data, length);
        return socket->SendTypedMessageBatch(batch);
    }
};

// The same, received with WaitTypedMessageInto into one buffer that serves every message.
template <int kBatch>
struct LibraryBatchReuseConnection : LibraryBatchConnection<kBatch> {
    std::vector<char> buffer;
    bool receive(char*& body, int& length) {
        short type, subType;
        if (!this->socket->WaitTypedMessageInto(type, subType, buffer, nullptr)) return false;
        body = buffer.data();
        length = static_cast<int>(buffer.size());
        return true;
    }
    void release(char*) {}
};

inline void libraryPair(LibraryConnection& a, LibraryConnection& b) {
    StreamSocket listener;
    listener.CreateListenerSocket(0);
    a.socket = std::make_unique<StreamSocket>();
    a.socket->Connect("127.0.0.1", nSock::gLocalPort(listener.GetHandle()), nSock::cSocketOptions());
    b.socket = std::make_unique<StreamSocket>(listener.Accept(nSock::cSocketOptions()));
}

inline void makePair(RawConnection& a, RawConnection& b) { rawPair(a, b); }
inline void makePair(LibraryConnection& a, LibraryConnection& b) { libraryPair(a, b); }

// CPU time, in microseconds, of the threads that a connection's library runs for it; -1 for a
// connection without such threads (the raw baseline and the library).
template <class Connection>
double helperCpuMicroseconds(Connection const&) {
    return -1;
}

// ---- the measurements ------------------------------------------------------------------

// CPU time (user + system) of the calling thread, or of the whole program, in microseconds.
inline double cpuMicroseconds(int who) {
    rusage usage{};
    ::getrusage(who, &usage);
    auto us = [](timeval t) { return t.tv_sec * 1e6 + t.tv_usec; };
    return us(usage.ru_utime) + us(usage.ru_stime);
}

// CPU time and system calls of the benchmark thread between construction and report(), and
// the CPU time of the whole program (both ends and any thread a library runs: cpu_us).
class ThreadCost {
  public:
    ThreadCost()
        : mCpu(cpuMicroseconds(RUSAGE_THREAD)), mProgramCpu(cpuMicroseconds(RUSAGE_SELF)), mCalls(tSystemCalls) {}
    void report(benchmark::State& state, int64_t messages) {
        double const n = static_cast<double>(messages > 0 ? messages : 1);
        state.counters["rx_cpu_us"] = (cpuMicroseconds(RUSAGE_THREAD) - mCpu) / n;
        state.counters["rx_syscalls"] = static_cast<double>(tSystemCalls - mCalls) / n;
        state.counters["cpu_us"] = (cpuMicroseconds(RUSAGE_SELF) - mProgramCpu) / n;
    }

  private:
    double mCpu;
    double mProgramCpu;
    long mCalls;
};

// Bytes waiting in the kernel's receive queue of a connection's socket, -1 for a connection
// that has no single socket.
inline int queuedBytesOn(int fd) {
    int bytes = 0;
    return ::ioctl(fd, FIONREAD, &bytes) == 0 ? bytes : -1;
}
template <class Connection>
int queuedBytes(Connection const&) {
    return -1;
}
inline int queuedBytes(RawConnection const& c) { return queuedBytesOn(c.fd); }
inline int queuedBytes(LibraryConnection const& c) { return queuedBytesOn(c.socket->GetHandle().descriptor()); }
template <int kBatch>
int queuedBytes(RawBatchConnection<kBatch> const& c) {
    return queuedBytesOn(c.fd);
}
template <int kBatch>
int queuedBytes(LibraryBatchConnection<kBatch> const& c) {
    return queuedBytesOn(c.socket->GetHandle().descriptor());
}
template <int kBatch>
int queuedBytes(LibraryBatchReuseConnection<kBatch> const& c) {
    return queuedBytesOn(c.socket->GetHandle().descriptor());
}

// Stands in for what a receiver does with a message: `rounds` dependent steps over its bytes
// (each round costs a few nanoseconds), so that the receiver, not the sender, sets the pace.
inline uint32_t digest(char const* body, int length, int rounds) {
    uint32_t h = 2166136261u;
    for (int r = 0; r < rounds; ++r)
        for (int i = 0; i < length; i += 16) h = (h ^ static_cast<unsigned char>(body[i])) * 16777619u;
    return h;
}

// Receives one message, digests it and releases its body; false when that failed or the
// size differs.
template <class Connection>
bool receiveOne(Connection& connection, int size, int rounds = 0) {
    char* body = nullptr;
    int length = 0;
    if (!connection.receive(body, length)) return false;
    if (rounds > 0) benchmark::DoNotOptimize(digest(body, length, rounds));
    connection.release(body);
    return length == size;
}

// Ends a measurement: reports the benchmark thread's cost, hangs up so that the other
// thread's next transfer fails, and waits for that thread.
template <class Connection>
void finish(benchmark::State& state, ThreadCost& cost, Connection& mine, std::thread& other) {
    cost.report(state, state.iterations());
    mine.hangUp();
    other.join();
    state.SetItemsProcessed(state.iterations());
}

// One-way: range(0) is the message size, range(1) the rounds of work per message.
// rx_queue_kib is the mean of the receiver's kernel queue, sampled every 256 messages: a
// receiver that lags keeps a deep queue (the sender then appends to large segments), one that
// keeps up keeps it shallow (every message is a segment of its own). rx_io_cpu_us is the CPU
// time per message of the threads the receiving end's library runs for it (ZeroMQ's I/O thread).
template <class Connection>
void OneWay(benchmark::State& state) {
    int const size = static_cast<int>(state.range(0));
    int const rounds = static_cast<int>(state.range(1));
    Connection sender, receiver;
    makePair(sender, receiver);
    std::thread feeder([&] {
        std::unique_ptr<char[]> body(new char[size]());
        while (sender.send(body.get(), size)) {
        }
    });
    double queued = 0;
    int64_t samples = 0, received = 0;
    double const helpers = helperCpuMicroseconds(receiver);
    ThreadCost cost;
    for (auto _ : state) {
        if (!receiveOne(receiver, size, rounds)) {
            state.SkipWithError("receive failed");
            break;
        }
        if ((++received & 255) == 0) {
            if (int bytes = queuedBytes(receiver); bytes >= 0) {
                queued += bytes;
                ++samples;
            }
        }
    }
    if (samples > 0) state.counters["rx_queue_kib"] = queued / samples / 1024;
    if (helpers >= 0)
        state.counters["rx_io_cpu_us"] =
            (helperCpuMicroseconds(receiver) - helpers) / static_cast<double>(std::max<int64_t>(received, 1));
    finish(state, cost, receiver, feeder);
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(size));
}

template <class Connection>
void PingPong(benchmark::State& state) {
    int const size = static_cast<int>(state.range(0));
    Connection near, far;
    makePair(near, far);
    std::thread echo([&] {
        char* body = nullptr;
        int length = 0;
        while (far.receive(body, length)) {
            bool const sent = far.send(body, length);
            far.release(body);
            if (!sent) break;
        }
    });
    std::unique_ptr<char[]> message(new char[size]());
    ThreadCost cost;
    for (auto _ : state)
        if (!near.send(message.get(), size) || !receiveOne(near, size)) {
            state.SkipWithError("round trip failed");
            break;
        }
    finish(state, cost, near, echo);
}

}  // namespace benchstream

#endif
