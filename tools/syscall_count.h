// System calls that move bytes over sockets, counted per thread, for bench's report.
#ifndef COLLOQUY_TOOLS_SYSCALL_COUNT_H
#define COLLOQUY_TOOLS_SYSCALL_COUNT_H

namespace colloquy {

// How many send, sendmsg, recv and poll calls the calling thread has made so far (the
// libraries' calls included: the tool defines these functions itself and forwards them).
long socketCallsOfThisThread();

}  // namespace colloquy

#endif
