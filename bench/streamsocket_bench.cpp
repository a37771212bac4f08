// StreamSocket against a raw POSIX baseline with the same framing and the same copies: the
// sender builds header and body in a fresh buffer and sends it with one send; the baseline
// receiver reads the 8 header bytes and then the body into a fresh buffer with two exact
// receives. Both run over IPv4 loopback with TCP_NODELAY on.
//
// Measured: one-way throughput of 100-byte and 1 MiB messages (the benchmark thread is the
// receiver, a second thread sends until the receiver hangs up) and the round trip of 100-byte
// messages (the benchmark thread sends and waits for the echo of a second thread).
// Counters beside messages per second:
//   rx_cpu_us   CPU time (user + system) of the benchmark thread per message, from
//               getrusage(RUSAGE_THREAD);
//   rx_syscalls system calls of the benchmark thread per message: this program defines recv,
//               send and poll itself (forwarding to the kernel), so the calls of the library
//               and of the baseline are both counted, per thread;
//   cpu_us      CPU time of the whole program per message (both ends).
#include "stream_workload.h"

#include <benchmark/benchmark.h>

namespace {

using benchstream::LibraryConnection;
using benchstream::OneWay;
using benchstream::PingPong;
using benchstream::RawConnection;

BENCHMARK_TEMPLATE(OneWay, RawConnection)->Name("OneWay100B/raw")->Arg(100)->UseRealTime();
BENCHMARK_TEMPLATE(OneWay, LibraryConnection)->Name("OneWay100B/StreamSocket")->Arg(100)->UseRealTime();
BENCHMARK_TEMPLATE(OneWay, RawConnection)->Name("OneWay1MiB/raw")->Arg(1 << 20)->UseRealTime();
BENCHMARK_TEMPLATE(OneWay, LibraryConnection)->Name("OneWay1MiB/StreamSocket")->Arg(1 << 20)->UseRealTime();
BENCHMARK_TEMPLATE(PingPong, RawConnection)->Name("PingPong100B/raw")->Arg(100)->UseRealTime();
BENCHMARK_TEMPLATE(PingPong, LibraryConnection)->Name("PingPong100B/StreamSocket")->Arg(100)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
