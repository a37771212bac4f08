// The stream transport beside ZeroMQ over IPv4 loopback TCP, in the same program as the raw
// POSIX baseline and StreamSocket (bench/stream_workload.h): one-way throughput of 100-byte
// and 1 MiB messages (PUSH -> PULL) and the round trip of 100-byte messages (REQ -> REP and
// back). Each ZeroMQ end has its own context, as two programs would, with the defaults
// (one I/O thread, TCP_NODELAY, high-water mark 1000); LINGER is 0 so that a closed end
// drops what it still holds.
//
// The receiving thread gets each message as a zmq_msg_t and releases it after use, without
// copying it. Its bytes come off the socket in ZeroMQ's I/O thread, which batches many
// messages per system call: rx_cpu_us and rx_syscalls cover only the benchmark thread there,
// so compare cpu_us (the whole program, both ends and the I/O threads) across libraries.
#include "stream_workload.h"

#include <benchmark/benchmark.h>
#include <zmq.h>

#include <atomic>
#include <cerrno>
#include <memory>
#include <stdexcept>
#include <string>

namespace {

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
        mContext = zmq_ctx_new();
        mSocket = mContext ? zmq_socket(mContext, type) : nullptr;
        if (!mSocket) throw std::runtime_error("zmq_socket");
        int const linger = 0, wait = kWaitMs;
        zmq_setsockopt(mSocket, ZMQ_LINGER, &linger, sizeof linger);
        zmq_setsockopt(mSocket, ZMQ_SNDTIMEO, &wait, sizeof wait);
        zmq_setsockopt(mSocket, ZMQ_RCVTIMEO, &wait, sizeof wait);
    }

    void* mContext = nullptr;
    void* mSocket = nullptr;
    zmq_msg_t mMessage;
    std::shared_ptr<cZmqLink> mLink;
};

// The loops of stream_workload.h pair two objects of one type: the type fixes the pattern.
template <int kFirst, int kSecond>
struct ZmqPattern : cZmqEnd {
    friend void makePair(ZmqPattern& first, ZmqPattern& second) { connect(first, kFirst, second, kSecond); }
};
using ZmqPushPull = ZmqPattern<ZMQ_PUSH, ZMQ_PULL>;
using ZmqReqRep = ZmqPattern<ZMQ_REQ, ZMQ_REP>;

using benchstream::LibraryConnection;
using benchstream::OneWay;
using benchstream::PingPong;
using benchstream::RawConnection;

BENCHMARK_TEMPLATE(OneWay, RawConnection)->Name("OneWay100B/raw")->Args({100, 0})->UseRealTime();
BENCHMARK_TEMPLATE(OneWay, LibraryConnection)->Name("OneWay100B/ours")->Args({100, 0})->UseRealTime();
BENCHMARK_TEMPLATE(OneWay, ZmqPushPull)->Name("OneWay100B/zeromq")->Args({100, 0})->UseRealTime();
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
