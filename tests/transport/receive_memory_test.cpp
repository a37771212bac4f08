// Receiving a message, into a new body or into the caller's buffer: bodies of every size, a
// header alone cannot make the receiver reserve what it announces, a connection may refuse bodies
// above a maximum, a failed allocation is a failed receive, failures leave the outputs untouched.
#include "streamtest.h"

#include <optional>

using namespace nStreamTest;

// Allocations of the current thread while counting: the largest asked for, and a size from
// which they fail (0: none fail).
static thread_local bool tCounting = false;
static thread_local size_t tLargest = 0, tFailFrom = 0;

static void* allocate(size_t size, bool nothrow) {
    if (tCounting) tLargest = std::max(tLargest, size);
    void* p = tCounting && tFailFrom != 0 && size >= tFailFrom ? nullptr : std::malloc(size ? size : 1);
    if (p == nullptr && !nothrow) throw std::bad_alloc();
    return p;
}

void* operator new(size_t size) { return allocate(size, false); }
void* operator new[](size_t size) { return allocate(size, false); }
void* operator new(size_t size, std::nothrow_t const&) noexcept { return allocate(size, true); }
void* operator new[](size_t size, std::nothrow_t const&) noexcept { return allocate(size, true); }
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, size_t) noexcept { std::free(p); }
void operator delete[](void* p, size_t) noexcept { std::free(p); }

namespace {

// The header of a message of `length` bytes, of type `type` and subtype type + 1.
std::string headerOf(uint32_t length, char type) {
    uint32_t const big = htonl(length);
    return std::string(reinterpret_cast<char const*>(&big), 4) + std::string{0, type, 0, char(type + 1)};
}

TEST(StreamSocketReceive, BodyMemoryFollowsTheBytesReceived) {
    constexpr size_t kMiB = 1 << 20;
    enum End { kStays, kCloses, kResets };
    struct Case {
        char const* what;
        uint32_t announced;
        size_t sent;  // body bytes sent, after which the peer does `end`
        End end;
        bool ok;
        size_t errors, largest;  // Error records; the largest allocation while receiving, at most
        size_t largestInto = 0;  // where the caller's vector grows further
        std::optional<int> maxMessageSize = std::nullopt;
        size_t failFrom = 0;     // allocations of this size or more fail (0: none)
        size_t headerBytes = 8;  // of the header, sent
    } const cases[] = {
        {"empty body", 0, 0, kStays, true, 0, 0},
        {"small body", 100, 100, kStays, true, 0, 100},
        {"body beyond the read-ahead", 100000, 100000, kStays, true, 0, 100000},
        {"a body that grows arrives whole", 3 * kMiB + 5, 3 * kMiB + 5, kStays, true, 0, 3 * kMiB + 5, 4 * kMiB},
        {"negative length", 0x80000000u, 0, kStays, false, 0, 0},
        {"2 GiB announced, the peer closes after 10 bytes", 0x7fffffffu, 10, kCloses, false, 0, kMiB},
        {"3 MiB announced, 1.5 MiB arrive", 3 * kMiB, 3 * kMiB / 2, kCloses, false, 0, 2 * kMiB},
        {"the peer closes inside the header", 4, 0, kCloses, false, 0, 0, 0, {}, 0, 3},
        {"the peer resets inside the body", 4, 1, kResets, false, 0, 4},
        {"a body at the connection's maximum", 4096, 4096, kStays, true, 0, 4096, 0, 4096},
        {"a body above the connection's maximum is not read", 4097, 4097, kStays, false, 1, 4096, 0, 4096},
        {"the body cannot be allocated", 1000, 1000, kStays, false, 1, 1000, 0, {}, 1000},
        {"the growing body cannot be allocated", 3 * kMiB, 3 * kMiB, kStays, false, 1, 2 * kMiB, 0, {}, 2 * kMiB},
    };
    Watchdog watchdog(120);
    TagScope error("Error", true);
    for (Case const& c : cases)
        for (bool into : {false, true}) {
            SCOPED_TRACE(std::string(c.what) + (into ? ", into the caller's buffer" : ""));
            nSock::cSocketOptions options = boundedOptions();
            options.maxMessageSize = c.maxMessageSize;
            RawPeerPair pair(options);
            std::string body(c.sent, '\0');
            for (size_t k = 0; k < body.size(); ++k) body[k] = static_cast<char>(k * 7 + k / 4093);
            // An empty message first, whose receive makes the read buffer; a small one behind.
            std::string const wire = headerOf(0, 5) + headerOf(c.announced, 1).substr(0, c.headerBytes) + body +
                                     (c.end == kStays ? headerOf(1, 3) + "z" : "");
            std::thread peer([&] {  // a blocking send: all of it, or less when the receiver closes first
                ::send(pair.peer.get(), wire.data(), wire.size(), MSG_NOSIGNAL);
                if (c.end == kCloses) ::shutdown(pair.peer.get(), SHUT_WR);
                if (c.end == kResets) pair.peer.abort();
            });
            std::optional<Received> got;  // the empty message leaves `data` as it was
            EXPECT_TRUE(got.emplace(pair.socket).ok && got->type == 5 && got->subType == 6 && got->length == 0 &&
                        got->data == Received::sentinel);
            nLog::cCapture capture;
            short type = 111, subType = 222;
            std::vector<char> buffer;
            tLargest = 0, tFailFrom = c.failFrom, tCounting = true;
            // Into the caller's buffer with a latency configuration, a new body with the options' limit alone.
            bool const ok = into ? pair.socket.WaitTypedMessageInto(type, subType, buffer, patience())
                                 : got.emplace(pair.socket, nullptr).ok;
            tCounting = false;
            EXPECT_EQ(std::make_pair(ok, capture.records().size()), std::make_pair(c.ok, c.errors));
            EXPECT_LE(tLargest, std::max(c.largest, into ? c.largestInto : 0));
            if (!into) std::tie(type, subType) = std::tie(got->type, got->subType);
            std::string const received = into ? std::string(buffer.begin(), buffer.end()) : got->body();
            EXPECT_TRUE(ok ? type == 1 && subType == 2 && received == body
                           : type == 111 && subType == 222 && (into || got->untouched()));
            char const* const kept = buffer.data();
            if (c.ok || static_cast<int32_t>(c.announced) < 0) {  // the stream keeps its place
                EXPECT_TRUE(pair.socket.WaitTypedMessageInto(type, subType, buffer, patience()) && type == 3 &&
                            subType == 4 && buffer.size() == 1 && buffer[0] == 'z');
                EXPECT_TRUE(!into || c.sent == 0 || buffer.data() == kept) << "the buffer was not kept";
            }
            pair.socket.CloseSocket();  // ends a peer that is still sending
            peer.join();
        }
}

}  // namespace
