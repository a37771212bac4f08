// Gathered sends: many pieces of a stream (message headers and bodies) in few system calls.
#include "net/nsocketstate.h"

#include <limits.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <cerrno>
#include <memory>

namespace nCommunication {
namespace nSocket {

namespace {

// What one system call carries at most: the system's limit of pieces, and a byte count that
// keeps a call's copy into the kernel short while still amortising the call over many messages.
constexpr std::size_t kPiecesPerCall = IOV_MAX;
constexpr std::size_t kBytesPerCall = std::size_t(1) << 20;
// Vectors up to this many pieces live on the stack.
constexpr std::size_t kLocalPieces = 128;

// The position of the next byte to send: `offset` bytes into piece `index`.
struct cPosition {
    std::size_t index = 0;
    std::size_t offset = 0;
};

// One call's share of the pieces: `used` entries of the vector, `bytes` in all, and the
// position after them.
struct cCall {
    std::size_t used = 0;
    std::size_t bytes = 0;
    cPosition end;
};

// Fills `vector` (room for `room` entries) with the bytes from `at` on, within the limits of
// one call.
cCall fill(iovec* vector, std::size_t room, cSendPiece const* pieces, std::size_t count, cPosition at) {
    cCall call;
    call.end = at;
    while (call.end.index < count && call.used < room && call.bytes < kBytesPerCall) {
        cSendPiece const& piece = pieces[call.end.index];
        std::size_t const size = std::min(piece.size - call.end.offset, kBytesPerCall - call.bytes);
        if (size > 0) {
            vector[call.used].iov_base = const_cast<char*>(piece.data + call.end.offset);
            vector[call.used].iov_len = size;
            ++call.used;
            call.bytes += size;
        }
        if (call.end.offset + size < piece.size) {
            call.end.offset += size;  // the byte limit cut this piece
        } else {
            ++call.end.index;
            call.end.offset = 0;
        }
    }
    return call;
}

// Moves `at` forward by `bytes` and past pieces that have nothing left.
void advance(cPosition& at, cSendPiece const* pieces, std::size_t count, std::size_t bytes) {
    while (at.index < count) {
        std::size_t const left = pieces[at.index].size - at.offset;
        if (bytes < left) {
            at.offset += bytes;
            return;
        }
        bytes -= left;
        ++at.index;
        at.offset = 0;
    }
}

}  // namespace

std::uint64_t gSendPieces(cHandleValid const& handle, cSendPiece const* pieces, std::size_t count) {
    // The descriptor stays open while the batch goes out, even when another thread closes.
    cOperation sending(cHandleAccess::state(handle));
    int const fd = sending.descriptor();
    if (fd < 0) {
        errno = EBADF;
        return 0;
    }
    std::size_t const room = std::min(count, kPiecesPerCall);
    iovec local[kLocalPieces];
    std::unique_ptr<iovec[]> large(room > kLocalPieces ? new iovec[room] : nullptr);
    iovec* const vector = large ? large.get() : local;

    std::uint64_t sent = 0;
    cPosition at;
    advance(at, pieces, count, 0);
    while (at.index < count) {
        cCall const call = fill(vector, room, pieces, count, at);
        msghdr message{};
        message.msg_iov = vector;
        message.msg_iovlen = call.used;
        ssize_t const n = ::sendmsg(fd, &message, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            if (n == 0) errno = EIO;  // a stream socket that takes nothing would never end
            return sent;
        }
        sent += static_cast<std::uint64_t>(n);
        if (static_cast<std::size_t>(n) == call.bytes) {
            at = call.end;
            advance(at, pieces, count, 0);  // past empty pieces
        } else {
            advance(at, pieces, count, static_cast<std::size_t>(n));
        }
    }
    return sent;
}

}  // namespace nSocket
}  // namespace nCommunication
