// The stream transport beside ZeroMQ over IPv4 loopback TCP, in the same program as the raw
// POSIX baseline and StreamSocket (bench/stream_workload.h): one-way throughput of 100-byte
// and 1 MiB messages (PUSH -> PULL) and the round trip of 100-byte messages (REQ -> REP and
// back). Each ZeroMQ end has its own context, as two programs would, with the defaults
// (one I/O thread, TCP_NODELAY, high-water mark 1000); LINGER is 0 so that a closed end
// drops what it still holds.
//
// The receiving thread gets each message as a zmq_msg_t and releases it after use, without
// copying it. Its bytes come off the socket in ZeroMQ's I/O thread, which batches many
// messages per system call: rx_cpu_us and rx_syscalls cover only the benchmark thread there;
// rx_io_cpu_us adds the CPU time of the receiving context's own threads (its I/O thread), and
// cpu_us is the whole program (both ends and the I/O threads).
//
// Batched sending (one-way, 100-byte messages): ours-batchN sends N messages per call with
// SendTypedMessageBatch; raw-writevN is the POSIX baseline with the same framing, N messages
// per writev, and a receiver that reads ahead 16 KiB as the library's does. ours-batch64-reuse
// receives with WaitTypedMessageInto into one buffer instead of a fresh one per message.
#include "stream_workload.h"

#include <benchmark/benchmark.h>
#include <zmq.h>

#include <dirent.h>
#include <time.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

// The ids of this program's threads.
std::set<long> threadIds() {
    std::set<long> ids;
    if (DIR* tasks = ::opendir("/proc/self/task")) {
        while (dirent* entry = ::readdir(tasks))
            if (entry->d_name[0] != '.') ids.insert(std::strtol(entry->d_name, nullptr, 10));
        ::closedir(tasks);
    }
    return ids;
}

// CPU time of another thread of this program, in microseconds: its per-thread CPU clock, the
// one pthread_getcpuclockid gives (CPUCLOCK_SCHED of that thread).
double threadCpuMicroseconds(long id) {
    auto const clock = static_cast<clockid_t>((~static_cast<unsigned>(id) << 3) | 6u);
    timespec t{};
    if (::clock_gettime(clock, &t) != 0) return 0;  // the thread has ended
    return static_cast<double>(t.tv_sec) * 1e6 + static_cast<double>(t.tv_nsec) / 1e3;
}

// What both ends of a pair share: the flag that tells the other end to give up.
struct cZmqLink {
    std::atomic<bool> stopped{false};
};

// One end: its own context and socket, opened by makePair. Sends and receives wait at most
// kWaitMs at a time, so that a thread blocked on a peer that hung up notices the flag.
class cZmqEnd {
  public:
    static constexpr int kWaitMs = 50;
    cZmqEnd() { zmq_msg_init(&mMessage); }
    cZmqEnd(cZmqEnd const&) = delete;
    cZmqEnd& operator=(cZmqEnd const&) = delete;
    ~cZmqEnd() {
        zmq_msg_close(&mMessage);
        if (mSocket) zmq_close(mSocket);
        if (mContext) zmq_ctx_term(mContext);
    }

    bool send(char const* data, int length) {
        for (;;) {
            if (zmq_send(mSocket, data, static_cast<size_t>(length), 0) == length) return true;
            if (zmq_errno() != EAGAIN || mLink->stopped) return false;
        }
    }
    // The body stays in ZeroMQ's message until release().
    bool receive(char*& body, int& length) {
        for (;;) {
            int const received = zmq_msg_recv(&mMessage, mSocket, 0);
            if (received >= 0) {
                body = static_cast<char*>(zmq_msg_data(&mMessage));
                length = received;
                return true;
            }
            if (zmq_errno() != EAGAIN || mLink->stopped) return false;
        }
    }
    void release(char*) {
        zmq_msg_close(&mMessage);
        zmq_msg_init(&mMessage);
    }
    void hangUp() { mLink->stopped = true; }
    // CPU time of the threads this end's context started (its I/O thread and its reaper).
    double helperCpu() const {
        double sum = 0;
        for (long id : mHelpers) sum += threadCpuMicroseconds(id);
        return sum;
    }

  protected:
    // The second end (PULL, REP) binds an ephemeral loopback port, the first connects to it.
    static void connect(cZmqEnd& first, int firstType, cZmqEnd& second, int secondType) {
        first.open(firstType);
        second.open(secondType);
        char endpoint[256];
        size_t size = sizeof endpoint;
        if (zmq_bind(second.mSocket, "tcp://127.0.0.1:*") != 0 ||
            zmq_getsockopt(second.mSocket, ZMQ_LAST_ENDPOINT, endpoint, &size) != 0 ||
            zmq_connect(first.mSocket, endpoint) != 0)
            throw std::runtime_error("zmq pair");
        first.mLink = second.mLink = std::make_shared<cZmqLink>();
    }

  private:
    void open(int type) {
        std::set<long> const before = threadIds();
        mContext = zmq_ctx_new();
        mSocket = mContext ? zmq_socket(mContext, type) : nullptr;
        if (!mSocket) throw std::runtime_error("zmq_socket");
        for (long id : threadIds())
            if (!before.count(id)) mHelpers.push_back(id);
        int const linger = 0, wait = kWaitMs;
        zmq_setsockopt(mSocket, ZMQ_LINGER, &linger, sizeof linger);
        zmq_setsockopt(mSocket, ZMQ_SNDTIMEO, &wait, sizeof wait);
        zmq_setsockopt(mSocket, ZMQ_RCVTIMEO, &wait, sizeof wait);
    }

    void* mContext = nullptr;
    void* mSocket = nullptr;
    zmq_msg_t mMessage;
    std::shared_ptr<cZmqLink> mLink;
    std::vector<long> mHelpers;
};

// The loops of stream_workload.h pair two objects of one type: the type fixes the pattern.
template <int kFirst, int kSecond>
struct ZmqPattern : cZmqEnd {
    friend void makePair(ZmqPattern& first, ZmqPattern& second) { connect(first, kFirst, second, kSecond); }
};
template <int kFirst, int kSecond>
double helperCpuMicroseconds(ZmqPattern<kFirst, kSecond> const& end) {
    return end.helperCpu();
}
using ZmqPushPull = ZmqPattern<ZMQ_PUSH, ZMQ_PULL>;
using ZmqReqRep = ZmqPattern<ZMQ_REQ, ZMQ_REP>;

using benchstream::LibraryBatchConnection;
using benchstream::LibraryBatchReuseConnection;
using benchstream::LibraryConnection;
using benchstream::OneWay;
using benchstream::PingPong;
using benchstream::RawBatchConnection;
using benchstream::RawConnection;

BENCHMARK_TEMPLATE(OneWay, RawConnection)->Name("OneWay100B/raw")->Args({100, 0})->UseRealTime();
BENCHMARK_TEMPLATE(OneWay, LibraryConnection)->Name("OneWay100B/ours")->Args({100, 0})->UseRealTime();
BENCHMARK_TEMPLATE(OneWay, ZmqPushPull)->Name("OneWay100B/zeromq")->Args({100, 0})->UseRealTime();
BENCHMARK_TEMPLATE(OneWay, RawBatchConnection<1>)->Name("OneWay100B/raw-writev1")->Args({100, 0})->UseRealTime();
BENCHMARK_TEMPLATE(OneWay, LibraryBatchConnection<1>)->Name("OneWay100B/ours-batch1")->Args({100, 0})->UseRealTime();
BENCHMARK_TEMPLATE(OneWay, RawBatchConnection<8>)->Name("OneWay100B/raw-writev8")->Args({100, 0})->UseRealTime();
BENCHMARK_TEMPLATE(OneWay, LibraryBatchConnection<8>)->Name("OneWay100B/ours-batch8")->Args({100, 0})->UseRealTime();
BENCHMARK_TEMPLATE(OneWay, RawBatchConnection<64>)->Name("OneWay100B/raw-writev64")->Args({100, 0})->UseRealTime();
BENCHMARK_TEMPLATE(OneWay, LibraryBatchConnection<64>)->Name("OneWay100B/ours-batch64")->Args({100, 0})->UseRealTime();
BENCHMARK_TEMPLATE(OneWay, LibraryBatchReuseConnection<64>)
    ->Name("OneWay100B/ours-batch64-reuse")
    ->Args({100, 0})
    ->UseRealTime();
BENCHMARK_TEMPLATE(OneWay, RawConnection)->Name("OneWay1MiB/raw")->Args({1 << 20, 0})->UseRealTime();
BENCHMARK_TEMPLATE(OneWay, LibraryConnection)->Name("OneWay1MiB/ours")->Args({1 << 20, 0})->UseRealTime();
BENCHMARK_TEMPLATE(OneWay, ZmqPushPull)->Name("OneWay1MiB/zeromq")->Args({1 << 20, 0})->UseRealTime();
BENCHMARK_TEMPLATE(PingPong, RawConnection)->Name("PingPong100B/raw")->Arg(100)->UseRealTime();
BENCHMARK_TEMPLATE(PingPong, LibraryConnection)->Name("PingPong100B/ours")->Arg(100)->UseRealTime();
BENCHMARK_TEMPLATE(PingPong, ZmqReqRep)->Name("PingPong100B/zeromq")->Arg(100)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
    int major = 0, minor = 0, patch = 0;
    zmq_version(&major, &minor, &patch);
    benchmark::AddCustomContext("version zeromq",
                                std::to_string(major) + "." + std::to_string(minor) + "." + std::to_string(patch));
    benchmark::AddCustomContext("version ours", "this build");
    benchmark::AddCustomContext("version raw", "POSIX sockets");
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
