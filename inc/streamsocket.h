// StreamSocket: typed messages over a stream connection, each framed by a c_MessageHeader.
#ifndef COLLOQUY_STREAMSOCKET_H
#define COLLOQUY_STREAMSOCKET_H

#include "basesocket.h"
#include "cplatformdefs.h"
#include "msghdr.h"
#include "nsocket.h"

#include <string>

// A connection (made by Connect or ConnectLocal, or adopted from Accept) on which typed
// messages are sent and received, or a listener (CreateListenerSocket) that accepts them.
// A message is the 8-byte header (body length, type, subtype, big-endian) and then the body.
class COLLOQUY_EXPORT StreamSocket : public c_Socket {
  public:
    StreamSocket();
    StreamSocket(nCommunication::nSocket::cHandleValid handle);
    ~StreamSocket() override;

    // Connection set-up: each replaces the handle without releasing one held before.
    void Connect(const std::string& host, unsigned short port, nCommunication::nSocket::cSocketOptions options);
    void ConnectLocal(unsigned short port, nCommunication::nSocket::cSocketOptions options);
    // The next connection on this listener; wrap it in a new StreamSocket.
    nCommunication::nSocket::cHandleValid Accept(nCommunication::nSocket::cSocketOptions options);

    // Exactly `count` bytes into `buffer`, or false.
    bool ReadDataZ1(int count, char* buffer, bool continuation,
                    nCommunication::nSocket::iLatencyConfiguration* latency);
    // All `count` bytes, or false.
    bool WriteDataZ1(int count, const char* buffer);
    // Releases a body returned by WaitTypedMessageZ1; null is ignored.
    static void FreeMessage(const char* body);

    // Sends header and body in one write. A null body or a negative length is reported (Error)
    // and the message is sent all the same.
    bool SendTypedMessageZ2(short type, short subType, const char* data, int length);
    // Reads a header into `header` (left in network order): its body length, or -1 on failure.
    int GetMessageHeaderZ1(c_MessageHeader* header, nCommunication::nSocket::iLatencyConfiguration* latency);
    // Receives one message. A body is returned in `data` (release it with FreeMessage); for an
    // empty message `data` is left as it was. False, with the outputs untouched, on a failed
    // read or a negative length on the wire; also, with an Error record, on a body above the
    // connection's maximum (cSocketOptions::maxMessageSize; not read) or one that cannot be
    // allocated. A body above 1 MiB is received into a buffer that grows as its bytes arrive,
    // so that memory follows what was received rather than what the header announced.
    // Once the header has been read, a failure (a time-out included) leaves the connection
    // without its place in the stream: the header is gone, and the body bytes received so far
    // stay with the failed receive. Close the connection then; only a time-out while waiting for
    // the header loses nothing.
    bool WaitTypedMessageZ1(short& type, short& subType, char*& data, int& length,
                            nCommunication::nSocket::iLatencyConfiguration* latency);

  protected:
    int mReserved;  // set to 0 by the default constructor; no operation here reads it
};

#endif
