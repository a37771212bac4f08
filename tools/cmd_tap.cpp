// tap: a relay between clients and a server that prints every message crossing it.
//
// Each accepted connection gets its own connection to the server and two threads, one per
// direction. A thread forwards whatever arrives at once, then shows it to that direction's
// framer, which cuts the bytes into messages for printing; the forwarding never waits for a
// whole message, and what is printed never changes what is forwarded.
#include "commands.h"
#include "message_io.h"
#include "nsocket.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <list>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <thread>

namespace colloquy {

namespace nSock = nCommunication::nSocket;

namespace {

constexpr long long kDefaultMaxSize = 64LL << 20;  // the body size shown at most, as listen's default
constexpr size_t kChunk = 64 * 1024;               // bytes forwarded per receive at most
constexpr size_t kHeaderSize = 8;
constexpr int kAcceptPollMs = 200;  // how often the accept loop looks at finished connections

// Everything the tap prints, one whole report at a time. A failed write (standard output
// closed) ends the printing, never the relaying.
class Printer {
  public:
    explicit Printer(bool json) : mJson(json) {}

    void message(int connection, char const* direction, long long n, std::string_view header,
                 std::optional<std::string_view> body) {
        std::string const where = "connection " + std::to_string(connection) + " " + direction;
        print(mJson ? messageJson(jsonWhere(connection, direction) + ",\"n\":" + std::to_string(n), header, body)
                    : messageText(where + " message " + std::to_string(n), header, body));
    }

    void problem(int connection, char const* direction, std::string const& text) {
        print(mJson ? "{" + jsonWhere(connection, direction) + ",\"error\":" + jsonString(text) + "}\n"
                    : "connection " + std::to_string(connection) + " " + direction + ": " + text + "\n");
    }

  private:
    static std::string jsonWhere(int connection, char const* direction) {
        return "\"connection\":" + std::to_string(connection) + ",\"direction\":" + jsonString(direction);
    }

    void print(std::string const& text) {
        std::lock_guard<std::mutex> const lock(mLock);
        if (mFailed) return;
        try {
            writeAll(stdout, text);
        } catch (Failure const&) {
            mFailed = true;
        }
    }

    std::mutex mLock;
    bool const mJson;
    bool mFailed = false;
};

// Cuts one direction of a stream into messages, whatever pieces the bytes come in, and prints
// each one complete. A body over `maxSize` is not kept: its header is printed when it ends. A
// negative length leaves nothing to frame by: it is reported and the rest is not looked at.
class Framer {
  public:
    Framer(Printer& printer, int connection, char const* direction, long long maxSize)
        : mPrinter(printer), mConnection(connection), mDirection(direction), mMaxSize(maxSize) {}

    // Never throws: when the bytes cannot be shown (no memory), this direction is no longer
    // looked at, and the relay goes on.
    void feed(char const* data, size_t n) noexcept {
        try {
            cut(data, n);
        } catch (std::exception const&) {
            mBroken = true;
            std::string().swap(mBody);
        }
    }

    // The direction has ended: a message cut short is reported.
    void end() noexcept {
        try {
            if (mBroken) return;
            if (mInBody)
                report("the stream ended inside message " + std::to_string(mCount + 1) + " (" +
                       std::to_string(bodyLength() - mLeft) + " of " + std::to_string(bodyLength()) + " body bytes)");
            else if (!mHeader.empty())
                report("the stream ended inside a header (" + std::to_string(mHeader.size()) + " of 8 bytes)");
        } catch (std::exception const&) {
        }
    }

  private:
    void cut(char const* data, size_t n) {
        while (n > 0 && !mBroken) {
            if (!mInBody) {
                size_t const take = std::min(n, kHeaderSize - mHeader.size());
                mHeader.append(data, take);
                data += take;
                n -= take;
                if (mHeader.size() < kHeaderSize) return;
                int32_t const length = bodyLength();
                if (length < 0) {
                    mBroken = true;
                    report("header " + hexBytes(mHeader.data(), mHeader.size()) + " announces a body of " +
                           std::to_string(length) + " bytes: the rest of this direction is forwarded unframed");
                    return;
                }
                mLeft = length;
                mKept = length <= mMaxSize;
                mInBody = true;
            }
            size_t const take = static_cast<size_t>(std::min<long long>(static_cast<long long>(n), mLeft));
            if (mKept) mBody.append(data, take);
            data += take;
            n -= take;
            mLeft -= static_cast<long long>(take);
            if (mLeft == 0) finishMessage();
        }
    }

    int32_t bodyLength() const { return headerFields(mHeader).length; }

    void finishMessage() {
        ++mCount;
        std::optional<std::string_view> body;
        if (mKept) body = mBody;
        mPrinter.message(mConnection, mDirection, mCount, mHeader, body);
        mHeader.clear();
        mInBody = false;
        if (mBody.capacity() > kChunk)
            std::string().swap(mBody);  // a large body's memory is not kept for the small ones after it
        else
            mBody.clear();
    }

    void report(std::string const& text) { mPrinter.problem(mConnection, mDirection, text); }

    Printer& mPrinter;
    int const mConnection;
    char const* const mDirection;
    long long const mMaxSize;
    std::string mHeader, mBody;
    long long mLeft = 0;  // body bytes still to come
    long long mCount = 0;
    bool mInBody = false, mKept = false, mBroken = false;
};

// Forwards what arrives on `from` to `to` until `from` ends, showing it to `framer`. The end
// of `from` is passed on (the write side of `to` is shut); a failure on either side ends both
// directions (both sockets are shut, which wakes the other direction's thread). Returns the
// bytes forwarded.
long long pump(nSock::cHandleValid const& from, nSock::cHandleValid const& to, Framer& framer) noexcept {
    int const in = from.descriptor(), out = to.descriptor();
    std::unique_ptr<char[]> const buffer(new (std::nothrow) char[kChunk]);
    if (!buffer) {
        ::shutdown(in, SHUT_RDWR);
        ::shutdown(out, SHUT_RDWR);
        return 0;
    }
    long long forwarded = 0;
    for (;;) {
        ssize_t const n = ::recv(in, buffer.get(), kChunk, 0);
        if (n < 0 && errno == EINTR) continue;
        if (n == 0) {
            ::shutdown(out, SHUT_WR);
            break;
        }
        bool const sent = n > 0 && nSock::gSend(to, static_cast<int>(n), buffer.get());
        if (n > 0) framer.feed(buffer.get(), static_cast<size_t>(n));
        if (!sent) {
            ::shutdown(in, SHUT_RDWR);
            ::shutdown(out, SHUT_RDWR);
            break;
        }
        forwarded += n;
    }
    framer.end();
    return forwarded;
}

struct Target {
    std::string host;
    unsigned short port;
    long long maxSize;
};

// One client connection and the thread that relays it.
struct Connection {
    Connection(int number_, nSock::cHandleValid client_) : number(number_), client(std::move(client_)) {}
    int number;
    nSock::cHandleValid client;
    std::thread thread;
    std::atomic<bool> done{false};
};

void relay(Connection& c, Target const& target, Printer& printer) {
    std::string const from = peerName(c.client.descriptor());
    try {
        nSock::cHandleValid const server = nSock::gCreateConnected(target.host, target.port, nSock::cSocketOptions());
        std::fprintf(stderr, "connection %d from %s\n", c.number, from.c_str());
        Framer toServer(printer, c.number, "client->server", target.maxSize);
        Framer toClient(printer, c.number, "server->client", target.maxSize);
        long long back = 0;
        std::thread backward([&] { back = pump(server, c.client, toClient); });
        long long const forth = pump(c.client, server, toServer);
        backward.join();
        nSock::gClose(server);
        std::fprintf(stderr, "connection %d closed: %lld bytes to the server, %lld to the client\n", c.number, forth,
                     back);
    } catch (std::exception const& e) {
        // The server could not be reached: this client is turned away, the tap goes on.
        std::fputs(
            errorLine("tap", "connection " + std::to_string(c.number) + " from " + from + ": " + e.what()).c_str(),
            stderr);
    }
    nSock::gClose(c.client);
    c.done = true;
}

}  // namespace

int cmdTap(Words const& words) {
    Args const args(words, {"--connections", "--max-size"}, {"--json"});
    if (args.positional().size() != 3) throw UsageError("tap needs LISTEN_PORT HOST PORT");
    auto const listenPort = static_cast<unsigned short>(parseNumber(args.positional()[0], 0, 65535, "LISTEN_PORT"));
    Target const target{args.positional()[1],
                        static_cast<unsigned short>(parseNumber(args.positional()[2], 1, 65535, "PORT")),
                        args.number("--max-size", kDefaultMaxSize, 0, kMaxLength)};
    long long const limit = args.number("--connections", 0, 0, 1LL << 40);  // 0: until interrupted
    Printer printer(args.flag("--json"));

    nSock::cHandleValid const listener = nSock::gCreateListener(listenPort);
    // Accepting never waits: poll tells when a connection is there, and one that went away
    // before it was taken must not hold up the loop.
    ::fcntl(listener.descriptor(), F_SETFL, ::fcntl(listener.descriptor(), F_GETFL) | O_NONBLOCK);
    nSock::cSocketOptions acceptNow;
    acceptNow.receiveTimeout = nTime::cDiff::fromMilliseconds(0);  // the accept's wait; tap reads raw
    std::fprintf(stderr, "listening on port %u\n", nSock::gLocalPort(listener));
    std::list<Connection> live;
    long long accepted = 0;
    while (limit == 0 || accepted < limit) {
        for (auto c = live.begin(); c != live.end();) {
            if (c->done) {
                c->thread.join();
                c = live.erase(c);
            } else {
                ++c;
            }
        }
        pollfd ready{listener.descriptor(), POLLIN, 0};
        if (::poll(&ready, 1, kAcceptPollMs) <= 0) continue;
        try {
            Connection& c = live.emplace_back(static_cast<int>(accepted + 1), nSock::gAccept(listener, acceptNow));
            ++accepted;
            try {
                c.thread = std::thread(relay, std::ref(c), std::cref(target), std::ref(printer));
            } catch (std::exception const&) {
                nSock::gClose(c.client);
                live.pop_back();
                throw;
            }
        } catch (std::exception const& e) {
            auto const* socketError = dynamic_cast<nSock::cSocketException const*>(&e);
            if (socketError && socketError->systemError() == ETIMEDOUT) continue;  // gone before it was taken
            // Out of descriptors or threads: this client is turned away; the next try comes later.
            std::fputs(errorLine("tap", std::string("accept failed: ") + e.what()).c_str(), stderr);
            std::this_thread::sleep_for(std::chrono::milliseconds(kAcceptPollMs));
        }
    }
    nSock::gClose(listener);
    for (Connection& c : live) c.thread.join();
    return 0;
}

}  // namespace colloquy
