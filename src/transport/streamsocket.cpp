#include "streamsocket.h"

#include "Log.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cerrno>
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

bool StreamSocket::WaitTypedMessageInto(short& type, short& subType, std::vector<char>& body,
                                        nSock::iLatencyConfiguration* latency) {
    COLLOQUY_LOG(nColloquy::sTraceTag_, kModule);
    // One validated handle serves the header and the body.
    nSock::cHandleValid const handle = nSock::gValidate(mHandle);
    c_MessageHeader header;
    if (!nSock::gReceive(handle, sizeof header, reinterpret_cast<char*>(&header), false, latency)) return false;
    int32_t const length = static_cast<int32_t>(ntohl(static_cast<uint32_t>(header.bodyLength)));
    if (length < 0) return false;
    auto const n = static_cast<std::size_t>(length);
    // The buffer grows with the bytes that arrive, not with what the header announces: at most
    // kFirstStep at once, then at most doubling.
    constexpr std::size_t kFirstStep = std::size_t(1) << 20;
    for (std::size_t got = 0; got < n;) {
        std::size_t const step = std::min(n - got, std::max(kFirstStep, got));
        if (body.size() < got + step) body.resize(got + step);
        if (!nSock::gReceive(handle, static_cast<int>(step), body.data() + got, true, latency)) return false;
        got += step;
    }
    body.resize(n);
    COLLOQUY_LOG(nColloquy::sTraceTag_, kModule, "StreamSocket:WaitTypedMessageInto", n,
                 std::string_view(body.data(), n));
    type = static_cast<short>(ntohs(static_cast<uint16_t>(header.messageType)));
    subType = static_cast<short>(ntohs(static_cast<uint16_t>(header.messageSubType)));
    return true;
}

int StreamSocket::GetMessageHeaderZ1(c_MessageHeader* header, nSock::iLatencyConfiguration* latency) {
    COLLOQUY_LOG(nColloquy::sTraceTag_, kModule);
    if (!ReadDataZ1(sizeof *header, reinterpret_cast<char*>(header), false, latency)) return -1;
    return static_cast<int32_t>(ntohl(static_cast<uint32_t>(header->bodyLength)));
}

bool StreamSocket::WaitTypedMessageZ1(short& type, short& subType, char*& data, int& length,
                                      nSock::iLatencyConfiguration* latency) {
    COLLOQUY_LOG(nColloquy::sTraceTag_, kModule);
    c_MessageHeader header;
    int const n = GetMessageHeaderZ1(&header, latency);
    if (n < 0) return false;
    if (n > 0) {
        char* body = new char[n];
        // On failure the body buffer is kept, not released: a reader that lost its place in the
        // stream closes the connection, and the buffer stays with the failed read (deliberate).
        if (!ReadDataZ1(n, body, true, latency)) return false;
        COLLOQUY_LOG(nColloquy::sTraceTag_, kModule, "StreamSocket:WaitTypedMessageZ1", n,
                     std::string_view(body, static_cast<size_t>(n)));
        data = body;
    }
    length = n;
    type = static_cast<short>(ntohs(static_cast<uint16_t>(header.messageType)));
    subType = static_cast<short>(ntohs(static_cast<uint16_t>(header.messageSubType)));
    return true;
}
