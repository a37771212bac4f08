// c_Socket: the owner of one connection or listener handle of the socket layer.
#ifndef COLLOQUY_BASESOCKET_H
#define COLLOQUY_BASESOCKET_H

#include "cplatformdefs.h"
#include "nsocket.h"

// Owns a handle: starts invalid or adopts an open connection, can become a listener, can be
// closed, and releases the handle (gDelete, never gClose) when destroyed. Not copyable: two
// owners would both release the handle.
class COLLOQUY_EXPORT c_Socket {
  public:
    c_Socket();
    c_Socket(const nCommunication::nSocket::cHandleValid& handle);
    virtual ~c_Socket();
    c_Socket(c_Socket const&) = delete;
    c_Socket& operator=(c_Socket const&) = delete;

    // Replaces the handle with a listener on `port` (0: an ephemeral port; gLocalPort tells
    // which). A handle held before is not released: call it on an empty owner.
    void CreateListenerSocket(unsigned short port);
    // Closes the connection; false when the handle is invalid. The handle stays in place.
    bool CloseSocket();

    nCommunication::nSocket::cHandleOptional const& GetHandle() const { return mHandle; }

  protected:
    nCommunication::nSocket::cHandleOptional mHandle;
};

#endif
