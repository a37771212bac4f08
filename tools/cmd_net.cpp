// send, bench and demo: typed messages over the stream transport.
#include "commands.h"
#include "message_io.h"
#include "msghdr.h"
#include "netmsg.h"
#include "nsocket.h"
#include "streamsocket.h"
#include "syscall_count.h"
#include "zeppackmsg.h"

#include <arpa/inet.h>
#include <unistd.h>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <memory>
#include <thread>

namespace colloquy {

namespace nSock = nCommunication::nSocket;

namespace {

constexpr long long kMaxBatch = 1 << 20;  // messages in one batch of send and bench

unsigned short portArgument(std::string const& text) {
    return static_cast<unsigned short>(parseNumber(text, 0, 65535, "PORT"));
}

// The body send carries: the pairs' text form or the --raw file, in an envelope when asked.
std::string bodyToSend(Args const& args, std::vector<std::string> const& pairWords) {
    std::string body;
    if (auto raw = args.option("--raw")) {
        if (!pairWords.empty()) throw UsageError("--raw FILE and key=value pairs exclude each other");
        body = readFile(*raw);
    } else {
        Pairs pairs;
        for (auto const& a : pairWords) pairs.push_back(parsePair(a));
        if (pairs.empty()) throw UsageError("send needs key=value pairs or --raw FILE");
        body = textFormOf(pairs);
    }
    return wantsEnvelope(args) ? packEnvelope(args, body) : body;
}

// Sends `count` copies of `body` in batches of `batchSize` messages (the last one shorter),
// telling `progress` the number sent after each batch; returns how many were written whole:
// `count`, or fewer when the connection failed.
long long sendBatched(StreamSocket& socket, long long count, long long batchSize, short type, short subType,
                      std::string const& body, std::function<void(long long)> const& progress = {}) {
    cTypedMessageBatch batch;
    long long sent = 0;
    while (sent < count) {
        long long const n = std::min(batchSize, count - sent);
        if (batch.Count() != n) {
            batch.Clear();
            for (long long i = 0; i < n; ++i) batch.Add(type, subType, body.data(), static_cast<int>(body.size()));
        }
        long written = 0;
        bool const ok = socket.SendTypedMessageBatch(batch, &written);
        sent += written;
        if (!ok) break;
        if (progress) progress(sent);
    }
    return sent;
}

}  // namespace

int cmdSend(Words const& words) {
    std::vector<std::string> valued = kEnvelopeOptions;
    valued.insert(valued.end(), {"--type", "--subtype", "--raw", "--count", "--batch"});
    Args const args(words, valued, {});
    if (args.positional().size() < 2) throw UsageError("send needs HOST and PORT");
    std::string const host = args.positional()[0];
    unsigned short const port = portArgument(args.positional()[1]);
    if (port == 0) throw UsageError("PORT must be 1 to 65535");
    if (!args.option("--type") || !args.option("--subtype")) throw UsageError("send needs --type T and --subtype S");
    auto const type = static_cast<short>(args.number("--type", 0, INT16_MIN, INT16_MAX));
    auto const subType = static_cast<short>(args.number("--subtype", 0, INT16_MIN, INT16_MAX));
    long long const count = args.number("--count", 1, 1, 1LL << 40);
    long long const batchSize = args.number("--batch", 0, 1, kMaxBatch);  // 0: one send per message
    std::string const body =
        bodyToSend(args, std::vector<std::string>(args.positional().begin() + 2, args.positional().end()));
    if (body.size() > 0x7fffffff - 8) throw Failure("body too large");

    StreamSocket socket;
    socket.Connect(host, port, nSock::cSocketOptions());
    if (batchSize > 0) {
        long long const sent = sendBatched(socket, count, batchSize, type, subType, body);
        if (sent < count) throw Failure("send failed after " + std::to_string(sent) + " messages");
    } else {
        for (long long i = 0; i < count; ++i)
            if (!socket.SendTypedMessageZ2(type, subType, body.data(), static_cast<int>(body.size())))
                throw Failure("send failed after " + std::to_string(i) + " messages");
    }
    std::fprintf(stderr, "sent %lld message(s) of %zu bytes to %s:%u\n", count, body.size(), host.c_str(), port);
    return 0;
}

int cmdDemo(Words const& words) {
    if (!words.empty()) throw UsageError("demo takes no arguments");
    auto say = [](std::string const& line) { writeAll(stdout, line + "\n"); };

    // 1. A listener on an ephemeral loopback port.
    StreamSocket listener;
    listener.CreateListenerSocket(0);
    unsigned short const port = nSock::gLocalPort(listener.GetHandle());
    say("1. listener on loopback port " + std::to_string(port));

    // 2. A record, written in its text form.
    Pairs const sent = {{"$FROM", "agent"}, {"city", "Z\xc3\xbcrich"},          {"count", "42"},
                        {"empty", ""},      {"binary", std::string("a\0b", 3)}, {"note", "it's 'quoted' text"}};
    std::string const text = textFormOf(sent);
    say("2. record of " + std::to_string(sent.size()) + " pairs, text form " + std::to_string(text.size()) +
        " bytes: " + escapeBytes(text));

    // 3. A message around it.
    cColloquyMessage const outgoing(7, "hostB", "svc", "hostA", "agent", static_cast<QType>(3), 1, 2, text.data(),
                                    static_cast<unsigned>(text.size()));
    say("3. message packed into " + std::to_string(outgoing.packedLen) +
        " bytes: from agent@hostA to svc@hostB, qtype 3, user value 7");

    // 4. Sent over a loopback connection: header and body in one send.
    StreamSocket client;
    client.ConnectLocal(port, nSock::cSocketOptions());
    if (!client.SendTypedMessageZ2(1, 2, outgoing.packedBuffer, static_cast<int>(outgoing.packedLen)))
        throw Failure("send failed");
    c_MessageHeader header;
    SSMMakeMessageHeader(static_cast<long>(outgoing.packedLen), 1, 2, &header);
    say("4. sent " + std::to_string(8 + outgoing.packedLen) + " bytes, header " + hexBytes(&header, 8));

    // 5. Received: the header, then exactly the body.
    StreamSocket server(listener.Accept(nSock::cSocketOptions()));
    nSock::cFixedLatencyConfiguration latency(nTime::cDiff::fromSeconds(10));
    short type = 0, subType = 0;
    char* body = nullptr;
    int length = 0;
    if (!server.WaitTypedMessageZ1(type, subType, body, length, &latency)) throw Failure("receive failed");
    say("5. received type " + std::to_string(type) + ", subtype " + std::to_string(subType) + ", body " +
        std::to_string(length) + " bytes");

    // 6. Unpacked: the message takes over the received buffer.
    cColloquyMessage* incoming =
        ZEPTmo2Cqm(new cTypedMessageObject(type, subType, body, static_cast<unsigned>(length)));
    std::unique_ptr<cColloquyMessage, void (*)(cColloquyMessage*)> owner(incoming, ZEPDeleteMsg);
    std::string printed = incoming->printOnString();
    if (!printed.empty() && printed.back() == '\n') printed.pop_back();
    say("6. unpacked: " + printed);

    // 7. Read back into a record.
    Pairs const arrived = readTextForm(std::string_view(incoming->body, incoming->bodyLen));
    say("7. read back " + std::to_string(arrived.size()) + " pairs:");
    writeAll(stdout, pairLines(arrived, "     "));

    Pairs expected = sent;
    std::sort(expected.begin(), expected.end());
    bool const same = arrived == expected && std::string(incoming->fromName) == "agent" &&
                      std::string(incoming->toHost) == "hostB" && incoming->qType == 3 && incoming->userValue == 7;
    say(same ? "8. what arrived equals what was sent" : "8. MISMATCH: what arrived differs from what was sent");
    return same ? 0 : 1;
}

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
