// Free functions around the message envelope, for host processes that receive typed messages.
#ifndef COLLOQUY_ZEPPACKMSG_H
#define COLLOQUY_ZEPPACKMSG_H

#include "cplatformdefs.h"
#include "netmsg.h"

// A new heap message made from `tmo`, which is taken over and destroyed (its buffer now
// belongs to the message). Free the result with ZEPDeleteMsg. A malformed buffer gives a
// message mapped as netmsg.h describes.
COLLOQUY_EXPORT cColloquyMessage* ZEPTmo2Cqm(cTypedMessageObject* tmo);

// Deletes a message through its virtual destructor; does nothing for null.
COLLOQUY_EXPORT void ZEPDeleteMsg(cColloquyMessage* msg);

#endif
