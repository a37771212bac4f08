// nCommunication::nSocket: TCP connections over POSIX stream sockets (IPv4 and IPv6).
//
// A connection or listener is known by a handle. `cHandleValid` is a handle that refers to an
// open socket; `cHandleOptional` may also be invalid. Copies of a handle refer to the same
// socket. `gClose` closes the socket; `gDelete` releases it and everything kept for it (the
// receive buffer), closing it first when that has not happened. After either, `gIsValid` is
// false for every copy of the handle.
//
// Closing from another thread: `gClose` may be called on any copy of a handle while other
// threads send, receive or accept on it. It shuts the connection down, which ends their waits
// (their calls return false, `gAccept` throws with EBADF), and the descriptor and the receive
// buffer are released when the last of those calls has returned: until then the descriptor
// number cannot pass to a new socket. `gDelete` releases in the same way but does not shut the
// connection down (another process may share the descriptor), so it wakes no waiting thread:
// call `gClose` first to end a wait. Two threads receiving on one handle at the same time, or
// two sending, are not supported.
//
// `gReceive` keeps a small read buffer per handle, so that one `recv` usually brings a whole
// small message (header and body) and the following receive is served from memory. Bytes that
// a failed receive has taken from the socket are kept for the next receive when the failure was
// a time-out; when the peer closed or reset the connection, the stream is over anyway.
#ifndef COLLOQUY_NSOCKET_H
#define COLLOQUY_NSOCKET_H

#include "cplatformdefs.h"
#include "ntime.h"
#include "rwcstring.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

namespace nCommunication {
namespace nSocket {

struct cSocketState;  // the descriptor and the read buffer behind a handle

// A handle that refers to an open socket. Made only by the functions below.
class COLLOQUY_EXPORT cHandleValid {
  public:
    // The POSIX descriptor, -1 once the socket was closed or deleted. Reading from it directly
    // bypasses the bytes gReceive has read ahead.
    int descriptor() const;

  private:
    friend class cHandleOptional;
    friend struct cHandleAccess;
    explicit cHandleValid(std::shared_ptr<cSocketState> state) : mState(std::move(state)) {}
    std::shared_ptr<cSocketState> mState;
};

// A handle that may be invalid (the default).
class COLLOQUY_EXPORT cHandleOptional {
  public:
    cHandleOptional() = default;
    cHandleOptional(cHandleValid const& handle) : mState(handle.mState) {}
    int descriptor() const;  // -1 when invalid

  private:
    friend struct cHandleAccess;
    std::shared_ptr<cSocketState> mState;
};

// Options of a new connection (connect and accept).
struct cSocketOptions {
    // How long `gCreateConnected` waits for the connection to be made, per address tried.
    nTime::cDiff connectTimeout = nTime::cDiff::fromSeconds(10);
    // When set: how long a single wait for incoming bytes may last on the new connection
    // (also when `gReceive` gets no latency configuration), and how long `gAccept` waits for a
    // connection. Unset: no limit.
    std::optional<nTime::cDiff> receiveTimeout;
    // Non-zero: TCP_NODELAY on (small messages leave at once).
    int noDelay = 1;
    // When set: the largest message body the stream transport accepts on the new connection
    // (`StreamSocket::WaitTypedMessageZ1` fails on a header that announces more). Unset: any
    // length the header can carry.
    std::optional<int> maxMessageSize;
};

// How long `gReceive` may wait. `continuation` is false for the first bytes of a message (its
// header) and true for the rest of a message whose start has arrived.
class COLLOQUY_EXPORT iLatencyConfiguration {
  public:
    virtual ~iLatencyConfiguration();
    // The longest a whole receive may take; no value: no limit.
    virtual std::optional<nTime::cDiff> receiveLimit(bool continuation) const = 0;
};

// A fixed time-out: one limit for the start of a message, one for its continuation.
class COLLOQUY_EXPORT cFixedLatencyConfiguration : public iLatencyConfiguration {
  public:
    explicit cFixedLatencyConfiguration(nTime::cDiff limit) : mFirst(limit), mContinuation(limit) {}
    cFixedLatencyConfiguration(nTime::cDiff first, nTime::cDiff continuation)
        : mFirst(first), mContinuation(continuation) {}
    ~cFixedLatencyConfiguration() override;
    std::optional<nTime::cDiff> receiveLimit(bool continuation) const override;

  private:
    nTime::cDiff mFirst;
    nTime::cDiff mContinuation;
};

// What connect, listen, accept and `gValidate` throw. what() names the operation, the host,
// the port and the system error, or for a host name that did not resolve, the resolver's reason.
class COLLOQUY_EXPORT cSocketException : public std::runtime_error {
  public:
    cSocketException(std::string const& operation, std::string host, unsigned short port, int systemError);
    // A host name that did not resolve; `resolveError` is getaddrinfo's code (not EAI_SYSTEM).
    static cSocketException unresolved(std::string host, unsigned short port, int resolveError);
    ~cSocketException() override;
    std::string const& host() const { return mHost; }
    unsigned short port() const { return mPort; }
    int systemError() const { return mSystemError; }    // the errno value, 0 for a name that did not resolve
    int resolveError() const { return mResolveError; }  // getaddrinfo's code for such a name, else 0

  private:
    cSocketException(std::string const& message, std::string host, unsigned short port, int systemError,
                     int resolveError);
    std::string mHost;
    unsigned short mPort;
    int mSystemError;
    int mResolveError = 0;
};

COLLOQUY_EXPORT cHandleOptional gInvalidHandle();
COLLOQUY_EXPORT bool gIsValid(cHandleOptional const& handle);
// The same handle as a valid one; throws cSocketException (EBADF) when it is not valid.
COLLOQUY_EXPORT cHandleValid gValidate(cHandleOptional const& handle);

// A listener on `port` (0: an ephemeral port) of every local address, IPv6 and IPv4, with
// address reuse on.
COLLOQUY_EXPORT cHandleValid gCreateListener(unsigned short port);
// The local port of a handle (0 for an invalid handle).
COLLOQUY_EXPORT unsigned short gLocalPort(cHandleOptional const& handle);
// A connection to `host` (a name or a numeric address), trying each address it resolves to.
COLLOQUY_EXPORT cHandleValid gCreateConnected(std::string const& host, unsigned short port, cSocketOptions options);
// A connection to `port` of the local host (loopback).
COLLOQUY_EXPORT cHandleValid gCreateConnectedLocal(unsigned short port, cSocketOptions options);
// Waits for the next connection on a listener (bounded by options.receiveTimeout when set).
COLLOQUY_EXPORT cHandleValid gAccept(cHandleValid const& listener, cSocketOptions options);

// Sends all `count` bytes (restarting after signals and partial writes) or returns false.
// A peer that has gone gives false, never SIGPIPE.
COLLOQUY_EXPORT bool gSend(cHandleValid const& handle, int count, char const* buffer);
// One run of bytes of a gathered send.
struct cSendPiece {
    char const* data;
    std::size_t size;
};
// Sends the bytes of `count` pieces, in order, as one run on the stream, gathering up to IOV_MAX
// pieces and 1 MiB into each system call (sendmsg) and restarting after signals and partial
// writes. Returns how many bytes the system accepted for sending: all of them, or fewer when
// the connection failed (errno then tells why). A peer that has gone gives a short count, never
// SIGPIPE.
COLLOQUY_EXPORT std::uint64_t gSendPieces(cHandleValid const& handle, cSendPiece const* pieces, std::size_t count);
// Stores exactly `count` bytes in `buffer` or returns false (peer closed, reset, time-out).
// `latency` bounds the wait (null: no limit).
COLLOQUY_EXPORT bool gReceive(cHandleValid const& handle, int count, char* buffer, bool continuation,
                              iLatencyConfiguration* latency);
// The maximum message size the handle's connection was made with (unset when it has none or the
// handle has no socket).
COLLOQUY_EXPORT std::optional<int> gMaxMessageSize(cHandleOptional const& handle);
// Closes the connection (from any thread, see above); false when it was closed already or
// the system reported an error closing it.
COLLOQUY_EXPORT bool gClose(cHandleValid const& handle);
// Releases the handle's socket and buffer; an invalid handle is ignored.
COLLOQUY_EXPORT void gDelete(cHandleOptional const& handle);

COLLOQUY_EXPORT RWCString gGetLocalHostName();

}  // namespace nSocket
}  // namespace nCommunication

#endif
