// bench: loopback throughput (one send per message or in batches), system calls per message and
// round-trip latency of the stream transport.
#include "cli.h"
#include "commands.h"
#include "message_io.h"
#include "nsocket.h"
#include "streamsocket.h"
#include "syscall_count.h"

#include <unistd.h>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <thread>
#include <vector>

namespace colloquy {

namespace nSock = nCommunication::nSocket;

int cmdBench(Words const& words) {
    Args const args(words, {"--size", "--count", "--batch"}, {});
    if (!args.positional().empty()) throw UsageError("bench takes only --size, --count and --batch");
    long long const size = args.number("--size", 100, 0, 64LL << 20);
    long long const count = args.number("--count", 20000, 1, 10000000);
    long long const batchSize = args.number("--batch", 0, 1, kMaxBatch);  // 0: one send per message

    StreamSocket listener;
    listener.CreateListenerSocket(0);
    unsigned short const port = nSock::gLocalPort(listener.GetHandle());
    std::string const payload(static_cast<size_t>(size), 'x');
    std::atomic<bool> serverOk{true};
    std::atomic<long> serverCalls{0};  // the server's socket calls while it received one-way

    // The server receives `count` one-way messages, then echoes `count` messages back.
    std::thread server([&] {
        try {
            StreamSocket peer(listener.Accept(nSock::cSocketOptions()));
            for (int phase = 0; phase < 2; ++phase) {
                long const callsBefore = socketCallsOfThisThread();
                for (long long i = 0; i < count; ++i) {
                    short type, subType;
                    char* body = nullptr;
                    int length = 0;
                    if (!peer.WaitTypedMessageZ1(type, subType, body, length, nullptr)) throw Failure("receive");
                    bool const ok = phase == 0 || peer.SendTypedMessageZ2(type, subType, body, length);
                    if (length > 0) StreamSocket::FreeMessage(body);
                    if (!ok) throw Failure("echo");
                }
                if (phase == 0) serverCalls = socketCallsOfThisThread() - callsBefore;
            }
        } catch (...) {
            serverOk = false;
        }
    });

    using Clock = std::chrono::steady_clock;
    StreamSocket client;
    client.ConnectLocal(port, nSock::cSocketOptions());
    bool const showProgress = ::isatty(STDERR_FILENO) != 0;
    long long shown = -1;  // the last tenth shown
    auto progress = [&](char const* what, long long done) {
        if (!showProgress || count < 10 || done * 10 / count == shown) return;
        shown = done * 10 / count;
        std::fprintf(stderr, "\r%s %lld/%lld   ", what, done, count);
    };
    // One-way throughput: the clock stops when the reply to the first round trip arrives; the
    // peer sends it only after it has received every one-way message.
    long const clientCallsBefore = socketCallsOfThisThread();
    auto const start = Clock::now();
    if (batchSize > 0) {
        if (sendBatched(client, count, batchSize, 1, 0, payload, [&](long long sent) { progress("one-way", sent); }) <
            count)
            throw Failure("send failed");
    } else {
        for (long long i = 0; i < count; ++i) {
            if (!client.SendTypedMessageZ2(1, 0, payload.data(), static_cast<int>(size))) throw Failure("send failed");
            progress("one-way", i + 1);
        }
    }
    long const clientCalls = socketCallsOfThisThread() - clientCallsBefore;
    shown = -1;
    std::vector<double> latencies;
    latencies.reserve(static_cast<size_t>(count));
    double oneWaySeconds = 0;
    for (long long i = 0; i < count; ++i) {
        auto const t0 = Clock::now();
        short type, subType;
        char* body = nullptr;
        int length = 0;
        if (!client.SendTypedMessageZ2(2, 0, payload.data(), static_cast<int>(size)) ||
            !client.WaitTypedMessageZ1(type, subType, body, length, nullptr))
            throw Failure("round trip failed");
        if (length > 0) StreamSocket::FreeMessage(body);
        auto const t1 = Clock::now();
        if (i == 0) oneWaySeconds = std::chrono::duration<double>(t1 - start).count();
        latencies.push_back(std::chrono::duration<double, std::micro>(t1 - t0).count());
        progress("round trips", i + 1);
    }
    if (showProgress) std::fprintf(stderr, "\n");
    server.join();
    if (!serverOk) throw Failure("the loopback peer failed");

    std::sort(latencies.begin(), latencies.end());
    auto percentile = [&](double p) {
        return latencies[static_cast<size_t>(p * static_cast<double>(latencies.size() - 1))];
    };
    double const perSecond = static_cast<double>(count) / oneWaySeconds;
    std::printf("one-way: %lld messages of %lld bytes in %.3f s: %.0f messages/s, %.1f MB/s\n", count, size,
                oneWaySeconds, perSecond, perSecond * static_cast<double>(size + 8) / 1e6);
    std::printf("one-way %s: system calls per message: sender %.4f, receiver %.4f\n",
                batchSize > 0 ? ("in batches of " + std::to_string(batchSize)).c_str() : "one send per message",
                static_cast<double>(clientCalls) / static_cast<double>(count),
                static_cast<double>(serverCalls.load()) / static_cast<double>(count));
    std::printf("round trip: p50 %.1f us, p99 %.1f us (%lld round trips)\n", percentile(0.50), percentile(0.99), count);
    return 0;
}

}  // namespace colloquy
