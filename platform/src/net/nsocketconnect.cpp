// The socket layer's connection set-up: listeners, connecting, accepting, local names.
#include "net/nsocketstate.h"

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <climits>

#include <memory>
#include <string>
#include <utility>

namespace nCommunication {
namespace nSocket {

namespace {

// Owns a descriptor until it is handed to a handle.
class cDescriptor {
  public:
    explicit cDescriptor(int fd) : mFd(fd) {}
    ~cDescriptor() {
        if (mFd >= 0) ::close(mFd);
    }
    cDescriptor(cDescriptor const&) = delete;
    cDescriptor& operator=(cDescriptor const&) = delete;
    int get() const { return mFd; }
    int release() { return std::exchange(mFd, -1); }

  private:
    int mFd;
};

int pollMilliseconds(nTime::cDiff limit) {
    auto ms = limit.milliseconds();
    return ms < 0 ? 0 : static_cast<int>(std::min<int64_t>(ms, INT_MAX));
}

// Waits for `events` on `fd` up to `limit` (none: without limit): 0 when they came, else errno.
int waitFor(int fd, short events, std::optional<nTime::cDiff> limit) {
    pollfd p{fd, events, 0};
    for (;;) {
        int rc = ::poll(&p, 1, limit ? pollMilliseconds(*limit) : -1);
        if (rc > 0) return 0;
        if (rc == 0) return ETIMEDOUT;
        if (errno != EINTR) return errno;
    }
}

// Makes a new connection's handle with the options applied.
cHandleValid connectionHandle(cDescriptor& fd, cSocketOptions const& options) {
    int on = options.noDelay != 0 ? 1 : 0;
    ::setsockopt(fd.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    cHandleValid handle = cHandleAccess::make(fd.release());
    cHandleAccess::state(handle)->receiveTimeout = options.receiveTimeout;
    cHandleAccess::state(handle)->maxMessageSize = options.maxMessageSize;
    return handle;
}

// Connects to one address within the connect time-out: the descriptor, or -1 with `error` set.
int connectOne(addrinfo const& ai, cSocketOptions const& options, int& error) {
    cDescriptor fd(::socket(ai.ai_family, ai.ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK, ai.ai_protocol));
    if (fd.get() < 0) {
        error = errno;
        return -1;
    }
    if (::connect(fd.get(), ai.ai_addr, ai.ai_addrlen) != 0) {
        if (errno != EINPROGRESS) {
            error = errno;
            return -1;
        }
        error = waitFor(fd.get(), POLLOUT, options.connectTimeout);
        socklen_t length = sizeof error;
        if (error == 0 && ::getsockopt(fd.get(), SOL_SOCKET, SO_ERROR, &error, &length) != 0) error = errno;
        if (error != 0) return -1;
    }
    ::fcntl(fd.get(), F_SETFL, ::fcntl(fd.get(), F_GETFL) & ~O_NONBLOCK);
    return fd.release();
}

// Connects to `node` (null: the loopback addresses), trying each address it resolves to.
cHandleValid connectTo(char const* node, std::string const& host, unsigned short port, cSocketOptions const& options) {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV;
    addrinfo* found = nullptr;
    int rc = ::getaddrinfo(node, std::to_string(port).c_str(), &hints, &found);
    if (rc == EAI_SYSTEM) throw cSocketException("resolve", host, port, errno);
    if (rc != 0) throw cSocketException::unresolved(host, port, rc);
    std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)> list(found, &::freeaddrinfo);
    int error = EHOSTUNREACH;
    for (addrinfo const* ai = found; ai != nullptr; ai = ai->ai_next) {
        cDescriptor fd(connectOne(*ai, options, error));
        if (fd.get() >= 0) return connectionHandle(fd, options);
    }
    throw cSocketException("connect to", host, port, error);
}

// A listening socket of `family` on every local address, or -1 with errno set.
int listenOn(int family, unsigned short port) {
    cDescriptor fd(::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (fd.get() < 0) return -1;
    int on = 1;
    int off = 0;
    ::setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_storage address{};
    socklen_t length;
    if (family == AF_INET6) {
        ::setsockopt(fd.get(), IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof off);  // IPv4 too
        auto* in6 = reinterpret_cast<sockaddr_in6*>(&address);
        in6->sin6_family = AF_INET6;
        in6->sin6_addr = in6addr_any;
        in6->sin6_port = htons(port);
        length = sizeof *in6;
    } else {
        auto* in4 = reinterpret_cast<sockaddr_in*>(&address);
        in4->sin_family = AF_INET;
        in4->sin_addr.s_addr = htonl(INADDR_ANY);
        in4->sin_port = htons(port);
        length = sizeof *in4;
    }
    if (::bind(fd.get(), reinterpret_cast<sockaddr*>(&address), length) != 0) return -1;
    if (::listen(fd.get(), SOMAXCONN) != 0) return -1;
    return fd.release();
}

}  // namespace

cHandleValid gCreateListener(unsigned short port) {
    int fd = listenOn(AF_INET6, port);
    if (fd < 0 && (errno == EAFNOSUPPORT || errno == EADDRNOTAVAIL)) fd = listenOn(AF_INET, port);
    if (fd < 0) throw cSocketException("listen on", gGetLocalHostName().stdString(), port, errno);
    return cHandleAccess::make(fd);
}

unsigned short gLocalPort(cHandleOptional const& handle) {
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    cOperation asking(cHandleAccess::state(handle));
    int fd = asking.descriptor();
    if (fd < 0 || ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) return 0;
    if (address.ss_family == AF_INET6) return ntohs(reinterpret_cast<sockaddr_in6 const&>(address).sin6_port);
    if (address.ss_family == AF_INET) return ntohs(reinterpret_cast<sockaddr_in const&>(address).sin_port);
    return 0;
}

cHandleValid gCreateConnected(std::string const& host, unsigned short port, cSocketOptions options) {
    return connectTo(host.c_str(), host, port, options);
}

cHandleValid gCreateConnectedLocal(unsigned short port, cSocketOptions options) {
    return connectTo(nullptr, "localhost", port, options);
}

cHandleValid gAccept(cHandleValid const& listener, cSocketOptions options) {
    cOperation accepting(cHandleAccess::state(listener));
    int fd = accepting.descriptor();
    for (;;) {
        int error = fd < 0 ? EBADF : waitFor(fd, POLLIN, options.receiveTimeout);
        cDescriptor accepted(error == 0 ? ::accept4(fd, nullptr, nullptr, SOCK_CLOEXEC) : -1);
        if (accepted.get() >= 0) return connectionHandle(accepted, options);
        if (error == 0) error = errno;
        // A signal, or a connection that was reset before it was taken: wait for the next one.
        if (error == EINTR || error == ECONNABORTED || error == EAGAIN) continue;
        if (!gIsValid(listener)) error = EBADF;  // closed by another thread while waiting
        throw cSocketException("accept on", gGetLocalHostName().stdString(), gLocalPort(listener), error);
    }
}

RWCString gGetLocalHostName() {
    char name[HOST_NAME_MAX + 1] = {};
    if (::gethostname(name, sizeof name - 1) != 0) return RWCString("localhost");
    return RWCString(name);
}

}  // namespace nSocket
}  // namespace nCommunication
