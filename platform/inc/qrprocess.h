// Process control: ending a process by its id.
#ifndef COLLOQUY_QRPROCESS_H
#define COLLOQUY_QRPROCESS_H

#include "cplatformdefs.h"

// Ends the process `pid` and tells how it went:
//   0  it was ended: SIGTERM, up to 2 s for it to end, then SIGKILL (a child of the caller
//      is reaped);
//   1  it had already ended (a child that exited and is not yet reaped counts as ended, and
//      is reaped here);
//   2  no process has that id (ids below 1 name no single process);
//   3  the kill was refused (EPERM, or the id is the caller's own), or the process outlived
//      the grace period after SIGKILL.
COLLOQUY_EXPORT int gQRPKillProcess(int const& pid);

#endif
