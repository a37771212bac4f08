// What the socket layer keeps behind a handle: the descriptor, the receive limit of the
// connection and the read buffer of gReceive. Private to the platform library.
#ifndef COLLOQUY_NSOCKETSTATE_H
#define COLLOQUY_NSOCKETSTATE_H

#include "nsocket.h"

#include <atomic>
#include <cstddef>
#include <optional>
#include <vector>

namespace nCommunication {
namespace nSocket {

struct cSocketState {
    explicit cSocketState(int fd) : descriptor(fd) {}
    ~cSocketState() { release(); }
    cSocketState(cSocketState const&) = delete;
    cSocketState& operator=(cSocketState const&) = delete;

    // Closes the descriptor once (later calls return false) and frees the read buffer.
    bool release();

    std::atomic<int> descriptor;                 // -1 once closed or deleted
    std::optional<nTime::cDiff> receiveTimeout;  // used when gReceive gets no latency configuration
    std::vector<char> buffer;                    // bytes read ahead: [begin, end)
    std::size_t begin = 0;
    std::size_t end = 0;
};

// The way from a handle to its state, and from a new descriptor to a handle.
struct cHandleAccess {
    static cSocketState* state(cHandleOptional const& h) { return h.mState.get(); }
    static cSocketState* state(cHandleValid const& h) { return h.mState.get(); }
    static cHandleValid make(int fd) { return cHandleValid(std::make_shared<cSocketState>(fd)); }
    static cHandleValid valid(cHandleOptional const& h) { return cHandleValid(h.mState); }
};

// The descriptor of a handle, -1 when there is none or it was closed.
inline int descriptorOf(cSocketState const* state) {
    return state ? state->descriptor.load(std::memory_order_relaxed) : -1;
}

}  // namespace nSocket
}  // namespace nCommunication

#endif
