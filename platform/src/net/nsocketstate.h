// What the socket layer keeps behind a handle: the descriptor, the receive limit of the
// connection and the read buffer of gReceive, and the count of operations that use them.
// Private to the platform library.
#ifndef COLLOQUY_NSOCKETSTATE_H
#define COLLOQUY_NSOCKETSTATE_H

#include "nsocket.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace nCommunication {
namespace nSocket {

// Closing may come from any thread while others send, receive or accept on the same socket.
// So closing only marks the socket closed (and shuts the connection down, which ends their
// waits); the descriptor is closed and the read buffer freed by whoever ends the last
// operation in progress. Until then the descriptor number cannot be reused by a new socket
// and the buffer stays where a receiving thread writes.
struct cSocketState {
    explicit cSocketState(int descriptorNumber) : fd(descriptorNumber) {}
    ~cSocketState() { release(); }
    cSocketState(cSocketState const&) = delete;
    cSocketState& operator=(cSocketState const&) = delete;

    // The bit of `use` that marks the socket closed; the bits below count the operations in
    // progress.
    static constexpr std::uint32_t kClosed = 0x80000000u;

    // The descriptor as the handle shows it: -1 once the socket is marked closed.
    int descriptor() const { return (use.load(std::memory_order_acquire) & kClosed) ? -1 : fd; }
    // Marks the socket closed (false when it already was); `shutDown` also ends the connection,
    // which wakes the threads that wait on it. The last operation to end releases.
    bool close(bool shutDown);
    // Closes the descriptor and frees the read buffer, once: false when closing the descriptor
    // failed (later calls, which do nothing, return true). An operation that began after the
    // socket was closed may be the one to end last, while the closing thread has yet to
    // release: whichever comes first releases.
    bool release();

    int const fd;
    std::atomic<std::uint32_t> use{0};  // kClosed | the number of operations in progress
    std::atomic<bool> released{false};
    std::optional<nTime::cDiff> receiveTimeout;  // used when gReceive gets no latency configuration
    std::optional<int> maxMessageSize;           // of the connection's options
    std::vector<char> buffer;                    // bytes read ahead: [begin, end)
    std::size_t begin = 0;
    std::size_t end = 0;
};

// One operation on a socket: while it lasts, the descriptor stays open and the read buffer
// stays in place, even when another thread closes the socket. descriptor() is -1 when the
// socket was closed before the operation began (or there is none).
class cOperation {
  public:
    explicit cOperation(cSocketState* state) : mState(state) {
        if (mState && (mState->use.fetch_add(1, std::memory_order_acq_rel) & cSocketState::kClosed) == 0)
            mFd = mState->fd;
    }
    ~cOperation() { end(); }
    cOperation(cOperation const&) = delete;
    cOperation& operator=(cOperation const&) = delete;

    int descriptor() const { return mFd; }
    // Ends the operation early; true unless it was the last of a closed socket and closing the
    // descriptor failed.
    bool end() {
        if (!mState) return true;
        cSocketState* state = mState;
        mState = nullptr;
        mFd = -1;
        if (state->use.fetch_sub(1, std::memory_order_acq_rel) == (cSocketState::kClosed | 1)) return state->release();
        return true;
    }

  private:
    cSocketState* mState;
    int mFd = -1;
};

// The way from a handle to its state, and from a new descriptor to a handle.
struct cHandleAccess {
    static cSocketState* state(cHandleOptional const& h) { return h.mState.get(); }
    static cSocketState* state(cHandleValid const& h) { return h.mState.get(); }
    static cHandleValid make(int fd) { return cHandleValid(std::make_shared<cSocketState>(fd)); }
    static cHandleValid valid(cHandleOptional const& h) { return cHandleValid(h.mState); }
};

}  // namespace nSocket
}  // namespace nCommunication

#endif
