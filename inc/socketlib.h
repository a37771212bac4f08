// The registration calls of the event registry: a client asking a server to register or
// unregister its events (ClientObj::pleaseRegister, pleaseUnRegister, pleaseUnRegisterAll)
// and the server's side of them (ServerObj::registerEvent, unRegisterEvent,
// unRegisterClient, findEvent). They are members of the classes declared in clntsrv.h.
#ifndef COLLOQUY_SOCKETLIB_H
#define COLLOQUY_SOCKETLIB_H

#include "clntsrv.h"

#endif
