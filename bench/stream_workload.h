// The stream transport workloads shared by the benchmark programs, with the framing and the
// copies described in streamsocket_bench.cpp: a raw POSIX baseline and the library's
// StreamSocket behind one small interface (send, receive, release, hangUp), the one-way and
// round-trip loops, and the counters of CPU time and system calls per message.
// stream_workload.cpp goes into each program that includes this: it defines the program's
// counting recv, send, sendmsg and poll.
#ifndef COLLOQUY_BENCH_STREAM_WORKLOAD_H
#define COLLOQUY_BENCH_STREAM_WORKLOAD_H

#include "streamsocket.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <thread>
#include <vector>

namespace benchstream {

// The system calls that moved bytes on the calling thread, counted by the program's recv,
// send, sendmsg and poll.
extern thread_local long tSystemCalls;

constexpr short kType = 3;
constexpr short kSubType = 4;

// ---- the baseline ----------------------------------------------------------------------

struct RawConnection {
    int fd = -1;
    ~RawConnection();
    void hangUp();
    bool send(char const* data, int length);
    bool receiveExact(char* into, size_t count);
    // One message: the header, then its body into a fresh buffer.
    bool receive(char*& body, int& length);
    void release(char* body) { delete[] body; }
};

// The baseline of batched sending: each call of send writes `batch` messages as writev would
// (an iovec for each header and each body, resumed after partial writes) through sendmsg, whose
// MSG_NOSIGNAL keeps a peer that hung up from raising SIGPIPE. Its receiver reads ahead 16 KiB
// at a time, as the library does, and copies each body into a fresh buffer.
struct RawGatherConnection : RawConnection {
    bool sendBatch(char const* data, int length, int batch);
    // Exactly `count` bytes: from the read-ahead, refilled with one recv at a time.
    bool take(char* into, size_t count);
    bool receive(char*& body, int& length);

  private:
    char mBuffer[16 * 1024];
    size_t mBegin = 0;
    size_t mEnd = 0;
};

// The baseline with `kBatch` messages per send.
template <int kBatch>
struct RawBatchConnection : RawGatherConnection {
    bool send(char const* data, int length) { return sendBatch(data, length, kBatch); }
};

// Two connected raw sockets over IPv4 loopback.
void rawPair(RawConnection& a, RawConnection& b);

// ---- the library -----------------------------------------------------------------------

struct LibraryConnection {
    std::unique_ptr<StreamSocket> socket;
    void hangUp() { socket->CloseSocket(); }
    bool send(char const* data, int length) { return socket->SendTypedMessageZ2(kType, kSubType, data, length); }
    bool receive(char*& body, int& length);
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

void libraryPair(LibraryConnection& a, LibraryConnection& b);

inline void makePair(RawConnection& a, RawConnection& b) { rawPair(a, b); }
inline void makePair(LibraryConnection& a, LibraryConnection& b) { libraryPair(a, b); }

// CPU time, in microseconds, of the threads that a connection's library runs for it; -1 for a
// connection without such threads (the raw baseline and the library).
template <class Connection>
double helperCpuMicroseconds(Connection const&) {
    return -1;
}

// ---- the measurements ------------------------------------------------------------------

// CPU time and system calls of the benchmark thread between construction and report(), and
// the CPU time of the whole program (both ends and any thread a library runs: cpu_us).
class ThreadCost {
  public:
    ThreadCost();
    void report(benchmark::State& state, int64_t messages);

  private:
    double mCpu;
    double mProgramCpu;
    long mCalls;
};

// Bytes waiting in the kernel's receive queue of a connection's socket, -1 for a connection
// that has no single socket.
int queuedBytesOn(int fd);
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
uint32_t digest(char const* body, int length, int rounds);

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
