// Free functions around the message envelope (see zeppackmsg.h).
#include "zeppackmsg.h"

cColloquyMessage* ZEPTmo2Cqm(cTypedMessageObject* tmo) { return new cColloquyMessage(tmo); }

void ZEPDeleteMsg(cColloquyMessage* msg) { delete msg; }
