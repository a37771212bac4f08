#include "streamsocket.h"

#include "Log.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>
#include <string_view>

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

int StreamSocket::GetMessageHeaderZ1(c_MessageHeader* header, nSock::iLatencyConfiguration* latency) {
    COLLOQUY_LOG(nColloquy::sTraceTag_, kModule);
    if (!ReadDataZ1(sizeof *header, reinterpret_cast<char*>(header), false, latency)) return -1;
    return gBodyLengthOf(*header);
}

bool StreamSocket::WaitTypedMessageZ1(short& type, short& subType, char*& data, int& length,
                                      nSock::iLatencyConfiguration* latency) {
    COLLOQUY_LOG(nColloquy::sTraceTag_, kModule);
    c_MessageHeader header;
    int const n = GetMessageHeaderZ1(&header, latency);
    if (n < 0) return false;
    if (n > 0) {
        char* body = new char[static_cast<size_t>(n)];
        // On failure the body buffer is kept, not released: a reader that lost its place in the
        // stream closes the connection, and the buffer stays with the failed read (deliberate).
        if (!ReadDataZ1(n, body, true, latency)) return false;
        COLLOQUY_LOG(nColloquy::sTraceTag_, kModule, "StreamSocket:WaitTypedMessageZ1", n,
                     std::string_view(body, static_cast<size_t>(n)));
        data = body;
    }
    length = n;
    type = gMessageTypeOf(header);
    subType = gMessageSubTypeOf(header);
    return true;
}
