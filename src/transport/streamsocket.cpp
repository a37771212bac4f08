#include "streamsocket.h"

#include "Log.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
#include <new>
#include <string_view>
#include <vector>

namespace nSock = nCommunication::nSocket;

static char const kModule[] = "streamsocket";

StreamSocket::StreamSocket() : mReserved(0) {}

// The adopting constructor does not set the extra member: nothing reads it.
StreamSocket::StreamSocket(nSock::cHandleValid handle) : c_Socket(handle) {}

StreamSocket::~StreamSocket() = default;

void StreamSocket::Connect(const std::string& host, unsigned short port, nSock::cSocketOptions options) {
    mHandle = nSock::cHandleOptional(nSock::gCreateConnected(host, port, options));
}

void StreamSocket::ConnectLocal(unsigned short port, nSock::cSocketOptions options) {
    mHandle = nSock::cHandleOptional(nSock::gCreateConnectedLocal(port, options));
}

nSock::cHandleValid StreamSocket::Accept(nSock::cSocketOptions options) {
    return nSock::gAccept(nSock::gValidate(mHandle), options);
}

bool StreamSocket::ReadDataZ1(int count, char* buffer, bool continuation, nSock::iLatencyConfiguration* latency) {
    return nSock::gReceive(nSock::gValidate(mHandle), count, buffer, continuation, latency);
}

bool StreamSocket::WriteDataZ1(int count, const char* buffer) {
    return nSock::gSend(nSock::gValidate(mHandle), count, buffer);
}

void StreamSocket::FreeMessage(const char* body) { delete[] body; }

bool StreamSocket::SendTypedMessageZ2(short type, short subType, const char* data, int length) {
    COLLOQUY_LOG(nColloquy::sTraceTag_, kModule);
    if (nLog::nBasic::sErrorTag_.enabled() && data == nullptr) COLLOQUY_LOG(nLog::nBasic::sErrorTag_, kModule);
    if (nLog::nBasic::sErrorTag_.enabled() && length < 0) COLLOQUY_LOG(nLog::nBasic::sErrorTag_, kModule);
    c_MessageHeader header;
    SSMMakeMessageHeader(length, type, subType, &header);
    // One buffer for header and body, so that the message leaves in a single write. A length
    // between -8 and -1 still gets room for the header; below -8 the allocation fails
    // (std::bad_array_new_length).
    long const total = static_cast<long>(length) + static_cast<long>(sizeof header);
    if (total < 0) throw std::bad_array_new_length();
    std::unique_ptr<char[]> buffer(new char[std::max<size_t>(static_cast<size_t>(total), sizeof header)]);
    std::memcpy(buffer.get(), &header, sizeof header);
    if (length > 0) {
        if (nLog::nBasic::sErrorTag_.enabled() && data == nullptr) COLLOQUY_LOG(nLog::nBasic::sErrorTag_, kModule);
        // A missing body goes out as zero bytes: the receiver still finds the next header.
        if (data != nullptr)
            std::memcpy(buffer.get() + sizeof header, data, static_cast<size_t>(length));
        else
            std::memset(buffer.get() + sizeof header, 0, static_cast<size_t>(length));
    }
    return WriteDataZ1(static_cast<int>(total), buffer.get());
}

cTypedMessageBatch::cTypedMessageBatch() = default;

cTypedMessageBatch::~cTypedMessageBatch() = default;

bool cTypedMessageBatch::Add(short type, short subType, const char* data, int length) {
    if (length < 0 || (length > 0 && data == nullptr)) {
        COLLOQUY_LOG(nLog::nBasic::sErrorTag_, kModule, "cTypedMessageBatch:Add refused", length,
                     static_cast<void const*>(data));
        return false;
    }
    cEntry& entry = mEntries.emplace_back();
    SSMMakeMessageHeader(length, type, subType, &entry.header);
    entry.data = data;
    entry.length = length;
    return true;
}

void cTypedMessageBatch::Clear() { mEntries.clear(); }

bool StreamSocket::SendTypedMessageBatch(const cTypedMessageBatch& batch, long* written) {
    COLLOQUY_LOG(nColloquy::sTraceTag_, kModule);
    nSock::cHandleValid const handle = nSock::gValidate(mHandle);
    // A piece for each header and each non-empty body, each field stored on its own (a piece
    // copied in whole from a temporary costs a stalled load per piece).
    std::unique_ptr<nSock::cSendPiece[]> const pieces(new nSock::cSendPiece[2 * batch.mEntries.size()]);
    std::size_t used = 0;
    std::uint64_t total = 0;
    for (cTypedMessageBatch::cEntry const& entry : batch.mEntries) {
        pieces[used].data = reinterpret_cast<char const*>(&entry.header);
        pieces[used++].size = sizeof entry.header;
        if (entry.length > 0) {
            pieces[used].data = entry.data;
            pieces[used++].size = static_cast<std::size_t>(entry.length);
        }
        total += sizeof entry.header + static_cast<std::uint64_t>(entry.length);
    }
    std::uint64_t const sent = nSock::gSendPieces(handle, pieces.get(), used);
    long whole = batch.Count();
    if (sent < total) {
        int const error = errno;
        whole = 0;
        for (std::uint64_t end = 0; whole < batch.Count(); ++whole) {
            end += sizeof(c_MessageHeader) +
                   static_cast<std::uint64_t>(batch.mEntries[static_cast<std::size_t>(whole)].length);
            if (end > sent) break;
        }
        COLLOQUY_LOG(nLog::nBasic::sErrorTag_, kModule, "StreamSocket:SendTypedMessageBatch", whole, batch.Count(),
                     std::strerror(error));
    }
    if (written != nullptr) *written = whole;
    return sent == total;
}

int StreamSocket::GetMessageHeaderZ1(c_MessageHeader* header, nSock::iLatencyConfiguration* latency) {
    COLLOQUY_LOG(nColloquy::sTraceTag_, kModule);
    if (!ReadDataZ1(sizeof *header, reinterpret_cast<char*>(header), false, latency)) return -1;
    return gBodyLengthOf(*header);
}

namespace {

// Bodies up to this size get their buffer at once; a larger one grows as its bytes arrive, so
// that a header alone (up to 2 GiB announced) cannot make the receiver reserve memory.
constexpr int kGrowAbove = 1 << 20;

// The latency configuration of the reads of one body: together they take no longer than one
// receive of the caller's configuration would (its continuation limit, from the first read on).
class cBodyLatency : public nSock::iLatencyConfiguration {
  public:
    explicit cBodyLatency(nSock::iLatencyConfiguration* outer)
        : mLimit(outer ? outer->receiveLimit(true) : std::nullopt), mStart(std::chrono::steady_clock::now()) {}
    ~cBodyLatency() override = default;
    std::optional<nTime::cDiff> receiveLimit(bool) const override {
        if (!mLimit) return std::nullopt;
        auto const spent =
            std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - mStart);
        return *mLimit - nTime::cDiff(spent.count());
    }

  private:
    std::optional<nTime::cDiff> mLimit;
    std::chrono::steady_clock::time_point mStart;
};

// The body of `n` bytes: one array of exactly `n` bytes, or null when a read or an allocation
// failed (`allocationFailed` tells which). The buffer of a failed read is kept, not released:
// a reader that lost its place in the stream closes the connection, and the buffer stays with
// the failed read (deliberate). Memory beyond kGrowAbove follows the bytes received: the buffer
// doubles once full, and reaches exactly `n` bytes with the last step.
char* receiveBody(StreamSocket& socket, int n, nSock::iLatencyConfiguration* latency, bool& allocationFailed) {
    allocationFailed = false;
    if (n <= kGrowAbove) {
        char* body = new (std::nothrow) char[static_cast<size_t>(n)];
        allocationFailed = body == nullptr;
        return body && socket.ReadDataZ1(n, body, true, latency) ? body : nullptr;
    }
    cBodyLatency bodyLatency(latency);
    nSock::iLatencyConfiguration* const reads = latency ? &bodyLatency : nullptr;
    int capacity = kGrowAbove;
    char* body = new (std::nothrow) char[static_cast<size_t>(capacity)];
    for (int done = 0; body != nullptr;) {
        if (!socket.ReadDataZ1(capacity - done, body + done, true, reads)) return nullptr;
        done = capacity;
        if (done == n) return body;
        int const grown = capacity > n / 2 ? n : capacity * 2;
        char* larger = new (std::nothrow) char[static_cast<size_t>(grown)];
        if (larger) std::memcpy(larger, body, static_cast<size_t>(done));
        delete[] body;
        body = larger;
        capacity = grown;
    }
    allocationFailed = true;
    return nullptr;
}

}  // namespace

bool StreamSocket::WaitTypedMessageZ1(short& type, short& subType, char*& data, int& length,
                                      nSock::iLatencyConfiguration* latency) {
    COLLOQUY_LOG(nColloquy::sTraceTag_, kModule);
    c_MessageHeader header;
    int const n = GetMessageHeaderZ1(&header, latency);
    if (n < 0) return false;
    if (n > 0) {
        // A body above the connection's maximum is not read, and one that cannot be allocated
        // fails the receive: both are reported, neither throws.
        std::optional<int> const limit = nSock::gMaxMessageSize(mHandle);
        bool allocationFailed = false;
        char* body = limit && n > *limit ? nullptr : receiveBody(*this, n, latency, allocationFailed);
        if (!body) {
            if (allocationFailed || (limit && n > *limit)) COLLOQUY_LOG(nLog::nBasic::sErrorTag_, kModule);
            return false;
        }
        COLLOQUY_LOG(nColloquy::sTraceTag_, kModule, "StreamSocket:WaitTypedMessageZ1", n,
                     std::string_view(body, static_cast<size_t>(n)));
        data = body;
    }
    length = n;
    type = gMessageTypeOf(header);
    subType = gMessageSubTypeOf(header);
    return true;
}

bool StreamSocket::WaitTypedMessageInto(short& type, short& subType, std::vector<char>& body,
                                        nSock::iLatencyConfiguration* latency) {
    COLLOQUY_LOG(nColloquy::sTraceTag_, kModule);
    // One validated handle serves the header and the body.
    nSock::cHandleValid const handle = nSock::gValidate(mHandle);
    c_MessageHeader header;
    if (!nSock::gReceive(handle, sizeof header, reinterpret_cast<char*>(&header), false, latency)) return false;
    int32_t const n = gBodyLengthOf(header);
    if (n < 0) return false;
    if (std::optional<int> const limit = nSock::gMaxMessageSize(mHandle); limit && n > *limit) {
        COLLOQUY_LOG(nLog::nBasic::sErrorTag_, kModule);
        return false;
    }
    // Up to kGrowAbove bytes the buffer is sized at once; beyond, it grows with the bytes that
    // arrive (at most doubling), not with what the header announces, and the reads together
    // take no longer than one receive would.
    std::optional<cBodyLatency> bodyLatency;
    nSock::iLatencyConfiguration* const reads = latency && n > kGrowAbove ? &bodyLatency.emplace(latency) : latency;
    auto const size = static_cast<std::size_t>(n);
    try {
        for (std::size_t got = 0; got < size;) {
            std::size_t const step = std::min(size - got, std::max(static_cast<std::size_t>(kGrowAbove), got));
            if (body.size() < got + step) body.resize(got + step);
            if (!nSock::gReceive(handle, static_cast<int>(step), body.data() + got, true, reads)) return false;
            got += step;
        }
        body.resize(size);
    } catch (std::bad_alloc const&) {
        COLLOQUY_LOG(nLog::nBasic::sErrorTag_, kModule);  // reported like a failed read, not thrown
        return false;
    }
    COLLOQUY_LOG(nColloquy::sTraceTag_, kModule, "StreamSocket:WaitTypedMessageInto", n,
                 std::string_view(body.data(), size));
    type = gMessageTypeOf(header);
    subType = gMessageSubTypeOf(header);
    return true;
}
