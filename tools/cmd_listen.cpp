// listen: typed messages from any number of peers at once. One poll loop serves the listener and
// every connection, so a peer that stays silent or stalls holds up nobody else; a connection that
// goes bad is reported in one line and dropped while the others go on.
#include "commands.h"
#include "message_io.h"
#include "msghdr.h"
#include "nsocket.h"
#include "streamsocket.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <iterator>
#include <list>
#include <optional>
#include <vector>

namespace colloquy {

namespace nSock = nCommunication::nSocket;

namespace {

using Clock = std::chrono::steady_clock;

constexpr long long kDefaultMaxSize = 64LL << 20;  // what one message may hold by default
constexpr long long kDefaultTimeout = 60;          // seconds a message may stall by default
constexpr long long kDefaultConnections = 256;     // connections open at once by default
constexpr size_t kTurn = 64 * 1024;                // the most one connection gets read per turn

struct Settings {
    long long count;  // messages to print before ending; 0: no end
    long long maxSize;
    std::chrono::seconds timeout;
    size_t maxConnections;
    bool json;
};

// One accepted connection and the message it is in the middle of. The body grows with the bytes
// that arrive, never ahead of them by what a header announces.
struct Connection {
    explicit Connection(nSock::cHandleValid const& handle)
        : socket(handle), fd(handle.descriptor()), peer(peerName(fd)) {}

    bool inMessage() const { return headerBytes > 0; }
    std::string where() const {
        if (headerBytes < sizeof header)
            return "inside a header after " + std::to_string(headerBytes) + " of " + std::to_string(sizeof header) +
                   " bytes";
        return "inside a " + std::to_string(length) + "-byte body after " + std::to_string(body.size()) + " bytes";
    }

    StreamSocket socket;  // owns the descriptor
    int fd;
    std::string peer;
    c_MessageHeader header{};
    size_t headerBytes = 0;
    uint32_t length = 0;  // the body length of a complete header
    std::string body;
    Clock::time_point lastByte;  // when the message in progress last made progress
};

class Server {
  public:
    explicit Server(Settings const& settings) : mSettings(settings) {}

    // Takes `n` bytes received on `c`, printing each message they complete. Returns the reason
    // to drop the connection, or nothing.
    std::optional<std::string> take(Connection& c, char const* data, size_t n) {
        while (n > 0 && !done()) {
            if (c.headerBytes < sizeof c.header) {
                size_t const part = std::min(sizeof c.header - c.headerBytes, n);
                std::memcpy(reinterpret_cast<char*>(&c.header) + c.headerBytes, data, part);
                c.headerBytes += part;
                data += part;
                n -= part;
                if (c.headerBytes < sizeof c.header) break;
                c.length = static_cast<uint32_t>(gBodyLengthOf(c.header));
                if (c.length > static_cast<unsigned long long>(mSettings.maxSize))
                    return "peer announced a " + std::to_string(c.length) + "-byte message, over --max-size " +
                           std::to_string(mSettings.maxSize);
            }
            size_t const part = std::min<size_t>(c.length - c.body.size(), n);
            c.body.append(data, part);
            data += part;
            n -= part;
            if (c.body.size() == c.length) {
                print(c);
                c.headerBytes = 0;
                if (c.body.capacity() > kTurn) std::string().swap(c.body);  // a large body's memory goes
                c.body.clear();
            }
        }
        return std::nullopt;
    }

    bool done() const { return mSettings.count != 0 && mSeen >= mSettings.count; }

  private:
    void print(Connection const& c) {
        ++mSeen;
        std::string_view const header(reinterpret_cast<char const*>(&c.header), sizeof c.header);
        // Each message is written whole in one go, so that its lines stay together.
        writeAll(stdout, mSettings.json ? messageJson("\"n\":" + std::to_string(mSeen), header, c.body)
                                        : messageText("message " + std::to_string(mSeen), header, c.body));
    }

    Settings const mSettings;
    long long mSeen = 0;
};

void report(std::string const& what) { writeAll(stderr, errorLine("listen", what)); }

// The milliseconds poll may wait for the earliest of `deadlines` (-1: none).
int pollMilliseconds(std::vector<Clock::time_point> const& deadlines) {
    if (deadlines.empty()) return -1;
    auto const left = *std::min_element(deadlines.begin(), deadlines.end()) - Clock::now();
    if (left <= left.zero()) return 0;
    return static_cast<int>(std::min<long long>(std::chrono::ceil<std::chrono::milliseconds>(left).count(), 1 << 30));
}

}  // namespace

int cmdListen(Words const& words) {
    Args const args(words, {"--count", "--max-size", "--timeout", "--max-connections"}, {"--json"});
    if (args.positional().size() != 1) throw UsageError("listen needs PORT");
    auto const port = static_cast<unsigned short>(parseNumber(args.positional()[0], 0, 65535, "PORT"));
    Settings const settings{
        args.number("--count", 0, 0, 1LL << 40), args.number("--max-size", kDefaultMaxSize, 0, kMaxLength),
        std::chrono::seconds(args.number("--timeout", kDefaultTimeout, 1, 86400)),
        static_cast<size_t>(args.number("--max-connections", kDefaultConnections, 1, 1000)), args.flag("--json")};

    StreamSocket listener;
    listener.CreateListenerSocket(port);
    int const listenFd = listener.GetHandle().descriptor();
    // Accepting never waits: poll tells when a connection is there, and one that went away
    // before it was taken must not hold up the loop.
    ::fcntl(listenFd, F_SETFL, ::fcntl(listenFd, F_GETFL) | O_NONBLOCK);
    nSock::cSocketOptions acceptNow;
    acceptNow.receiveTimeout = nTime::cDiff::fromMilliseconds(0);
    std::fprintf(stderr, "listening on port %u\n", nSock::gLocalPort(listener.GetHandle()));

    Server server(settings);
    std::list<Connection> connections;
    std::vector<char> buffer(kTurn);
    std::vector<pollfd> fds;
    std::vector<Clock::time_point> deadlines;
    Clock::time_point acceptAgain;  // after a failed accept, the listener rests until then
    while (!server.done()) {
        fds.assign(1, pollfd{listenFd, POLLIN, 0});
        deadlines.clear();
        if (Clock::now() < acceptAgain) {
            fds[0].fd = -1;  // poll skips it
            deadlines.push_back(acceptAgain);
        }
        for (Connection const& c : connections) {
            fds.push_back(pollfd{c.fd, POLLIN, 0});
            if (c.inMessage()) deadlines.push_back(c.lastByte + settings.timeout);
        }
        if (::poll(fds.data(), fds.size(), pollMilliseconds(deadlines)) < 0 && errno != EINTR)
            throw Failure(std::string("poll failed: ") + std::strerror(errno));

        auto const now = Clock::now();
        size_t i = 1;
        for (auto c = connections.begin(); c != connections.end() && !server.done(); ++i) {
            std::optional<std::string> drop;
            bool closed = false;
            if (fds[i].revents != 0) {
                ssize_t const n = ::recv(c->fd, buffer.data(), buffer.size(), MSG_DONTWAIT);
                if (n > 0) {
                    c->lastByte = now;
                    drop = server.take(*c, buffer.data(), static_cast<size_t>(n));
                } else if (n == 0) {
                    closed = true;  // at the end of a message: a peer that is done
                    if (c->inMessage()) drop = "closed " + c->where();
                } else if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) {
                    drop = std::strerror(errno) + (c->inMessage() ? " " + c->where() : std::string());
                }
            } else if (c->inMessage() && now - c->lastByte >= settings.timeout) {
                drop = "no byte for " + std::to_string(settings.timeout.count()) + " s " + c->where();
            }
            if (drop) report(c->peer + ": " + *drop + "; connection dropped");
            c = drop || closed ? connections.erase(c) : std::next(c);
        }

        if (!server.done() && (fds[0].revents & POLLIN)) {
            try {
                Connection& c = connections.emplace_back(listener.Accept(acceptNow));
                if (connections.size() > settings.maxConnections) {
                    report(c.peer + ": refused, --max-connections " + std::to_string(settings.maxConnections) +
                           " are open");
                    connections.pop_back();
                }
            } catch (nSock::cSocketException const& e) {
                // ETIMEDOUT: the connection went away before it was taken. Anything else (out of
                // descriptors, say) would come back at once: report it and rest a moment.
                if (e.systemError() != ETIMEDOUT) {
                    report(e.what());
                    acceptAgain = Clock::now() + std::chrono::seconds(1);
                }
            }
        }
    }
    return 0;
}

}  // namespace colloquy
