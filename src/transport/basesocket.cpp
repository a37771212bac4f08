#include "basesocket.h"

#include "Log.h"

namespace nSock = nCommunication::nSocket;

static char const kModule[] = "basesocket";

c_Socket::c_Socket() : mHandle(nSock::gInvalidHandle()) {}

c_Socket::c_Socket(const nSock::cHandleValid& handle) : mHandle(handle) {
    COLLOQUY_LOG(nColloquy::sTraceTag_, kModule);
}

c_Socket::~c_Socket() {
    // Nothing may escape a destructor: a failure to trace or release ends here.
    try {
        COLLOQUY_LOG(nColloquy::sTraceTag_, kModule);
        if (nSock::gIsValid(mHandle)) nSock::gDelete(mHandle);
    } catch (...) {
    }
}

void c_Socket::CreateListenerSocket(unsigned short port) {
    COLLOQUY_LOG(nColloquy::sTraceTag_, kModule);
    mHandle = nSock::cHandleOptional(nSock::gCreateListener(port));
}

bool c_Socket::CloseSocket() {
    COLLOQUY_LOG(nColloquy::sTraceTag_, kModule);
    if (!nSock::gIsValid(mHandle)) return false;
    return nSock::gClose(nSock::gValidate(mHandle));
}
