// Memory of a received body: a header alone cannot make the receiver reserve what it announces,
// a connection may refuse bodies above a maximum, and a failed allocation is a failed receive.
#include "streamtest.h"

#include <cstdlib>
#include <cstring>
#include <new>
#include <optional>
#include <string>

using namespace nStreamTest;

namespace {

// Allocations of the current thread while counting: the largest asked for, and a size from
// which they fail (0: none fail).
thread_local bool tCounting = false;
thread_local size_t tLargest = 0;
thread_local size_t tFailFrom = 0;

bool refused(size_t size) {
    if (!tCounting) return false;
    if (size > tLargest) tLargest = size;
    return tFailFrom != 0 && size >= tFailFrom;
}

void* allocate(size_t size) {
    if (refused(size)) throw std::bad_alloc();
    if (void* p = std::malloc(size ? size : 1)) return p;
    throw std::bad_alloc();
}

void* allocateOrNull(size_t size) noexcept { return refused(size) ? nullptr : std::malloc(size ? size : 1); }

}  // namespace

void* operator new(size_t size) { return allocate(size); }
void* operator new[](size_t size) { return allocate(size); }
void* operator new(size_t size, std::nothrow_t const&) noexcept { return allocateOrNull(size); }
void* operator new[](size_t size, std::nothrow_t const&) noexcept { return allocateOrNull(size); }
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, size_t) noexcept { std::free(p); }
void operator delete[](void* p, size_t) noexcept { std::free(p); }

namespace {

// The header of a message of `length` bytes, type 1, subtype 2.
std::string headerOf(uint32_t length) {
    std::string header(8, '\0');
    uint32_t const big = htonl(length);
    std::memcpy(&header[0], &big, 4);
    header[5] = 1;
    header[7] = 2;
    return header;
}

TEST(StreamSocketMemory, BodyMemoryFollowsTheBytesReceived) {
    constexpr int kMiB = 1 << 20;
    struct Case {
        char const* what;
        uint32_t announced;
        size_t sent;  // body bytes sent; the peer closes after them when fewer than announced
        std::optional<int> maxMessageSize;
        size_t failFrom;  // allocations of this size or more fail (0: none)
        bool ok;
        size_t errors;
        size_t largestAtMost;  // allocation while receiving
    } const cases[] = {
        {"2 GiB announced, the peer closes after 10 bytes", 0x7fffffffu, 10, {}, 0, false, 0, kMiB},
        {"3 MiB announced, 1.5 MiB arrive", 3 * kMiB, 3 * kMiB / 2, {}, 0, false, 0, 2 * kMiB},
        {"a body that grows arrives whole", 3 * kMiB + 5, 3 * kMiB + 5, {}, 0, true, 0, 3 * kMiB + 5},
        {"a body at the connection's maximum", 4096, 4096, 4096, 0, true, 0, 4096},
        {"a body above the connection's maximum is not read", 4097, 4097, 4096, 0, false, 1, 4096},
        {"the body cannot be allocated", 1000, 1000, {}, 1000, false, 1, 1000},
        {"the growing body cannot be allocated", 3 * kMiB, 3 * kMiB, {}, 2 * kMiB, false, 1, 2 * kMiB},
    };
    Watchdog watchdog(std::chrono::seconds(60));
    TagScope error("Error", true);
    for (Case const& c : cases) {
        SCOPED_TRACE(c.what);
        nSock::cSocketOptions options = boundedOptions();
        options.maxMessageSize = c.maxMessageSize;
        RawPeerPair pair(options);
        std::string body(c.sent, '\0');
        for (size_t k = 0; k < body.size(); ++k) body[k] = static_cast<char>(k * 7 + k / 4093);
        // An empty message first: its receive makes the connection's read buffer.
        std::string const wire = headerOf(0) + headerOf(c.announced) + body;
        std::thread peer([&] {
            for (size_t done = 0; done < wire.size();) {
                ssize_t const n = ::send(pair.peer.get(), wire.data() + done, wire.size() - done, MSG_NOSIGNAL);
                if (n <= 0) break;
                done += static_cast<size_t>(n);
            }
            if (c.sent < c.announced) ::shutdown(pair.peer.get(), SHUT_WR);
        });
        ASSERT_TRUE(Received(pair.socket).ok);
        nLog::cCapture capture;
        tLargest = 0;
        tFailFrom = c.failFrom;
        tCounting = true;
        std::optional<Received> got;
        EXPECT_NO_THROW(got.emplace(pair.socket));
        tCounting = false;
        pair.socket.CloseSocket();  // ends a peer that is still sending
        peer.join();
        ASSERT_TRUE(got);
        EXPECT_EQ(got->ok, c.ok);
        EXPECT_LE(tLargest, c.largestAtMost);
        EXPECT_TRUE(c.ok ? got->length == static_cast<int>(c.announced) && got->body() == body : got->untouched());
        EXPECT_EQ(capture.records().size(), c.errors);
    }
}

}  // namespace
