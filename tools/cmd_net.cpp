// send: typed messages over the stream transport, one at a time or in batches.
#include "commands.h"
#include "message_io.h"
#include "msghdr.h"
#include "nsocket.h"
#include "streamsocket.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

namespace colloquy {

namespace nSock = nCommunication::nSocket;

namespace {

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

}  // namespace

long long sendBatched(StreamSocket& socket, long long count, long long batchSize, short type, short subType,
                      std::string const& body, std::function<void(long long)> const& progress) {
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
    if (body.size() > kMaxLength - sizeof(c_MessageHeader)) throw Failure("body too large");

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

}  // namespace colloquy
