// StreamSocket: typed messages over a stream connection, each framed by a c_MessageHeader.
#ifndef COLLOQUY_STREAMSOCKET_H
#define COLLOQUY_STREAMSOCKET_H

#include "basesocket.h"
#include "cplatformdefs.h"
#include "msghdr.h"
#include "nsocket.h"

#include <string>
#include <vector>

// Typed messages gathered by a host to be sent together (StreamSocket::SendTypedMessageBatch).
// The batch refers to the bodies and does not copy them: each body stays in place, unchanged,
// until the batch has been sent for the last time or cleared. Sending does not change the
// batch, so one batch can be sent on several connections, and from several threads at once.
class COLLOQUY_EXPORT cTypedMessageBatch {
  public:
    cTypedMessageBatch();
    ~cTypedMessageBatch();

    // Adds a message behind those added before. A negative length, or a null body of positive
    // length, is refused: false, an Error record, and the batch is unchanged.
    bool Add(short type, short subType, const char* data, int length);
    // Removes every message; the memory stays for the next ones.
    void Clear();
    long Count() const { return static_cast<long>(mEntries.size()); }

  private:
    friend class StreamSocket;
    struct cEntry {
        c_MessageHeader header;  // in network order, as it goes on the wire
        const char* data;
        int length;
    };
    std::vector<cEntry> mEntries;
};

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
    // Sends the messages of `batch` in the order they were added: the same bytes as one
    // SendTypedMessageZ2 per message, in as few system calls as the system allows, all before it
    // returns. True when every message was sent. When the connection fails part-way, false and
    // an Error record: `written` (when not null) receives the number of messages the system
    // accepted whole, the first ones of the batch; the peer can have received those, and none
    // of the rest whole.
    bool SendTypedMessageBatch(const cTypedMessageBatch& batch, long* written = nullptr);
    // Receives one message into `body`, which is resized to the body's length and keeps its
    // memory for the next message (no allocation per message once it is large enough; above
    // 1 MiB it grows as the bytes arrive, not as a header announces). False on a failed read, a
    // negative length on the wire, a body over the connection's maximum message size or one
    // that cannot be allocated (the last two with an Error record); `type` and `subType` are
    // then untouched and the contents of `body` are unspecified.
    bool WaitTypedMessageInto(short& type, short& subType, std::vector<char>& body,
                              nCommunication::nSocket::iLatencyConfiguration* latency);
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
