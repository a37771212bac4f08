// StreamSocket against a raw POSIX baseline with the same framing and the same copies: the
// sender builds header and body in a fresh buffer and sends it with one send; the baseline
// receiver reads the 8 header bytes and then the body into a fresh buffer with two exact
// receives. Both run over IPv4 loopback with TCP_NODELAY on.
//
// Measured: one-way throughput of 100-byte and 1 MiB messages (the benchmark thread is the
// receiver, a second thread sends until the receiver hangs up) and the round trip of 100-byte
// messages (the benchmark thread sends and waits for the echo of a second thread).
// OneWay100BWork40 and OneWay100BWork200 give the receiver work per message (about 0.4 and
// 2 microseconds of it), the way a host that does something with its messages would.
// OneWay100BBatch64 sends 64 messages per call: SendTypedMessageBatch against writev with an
// iovec per header and body, whose receiver reads ahead 16 KiB as the library's does; the
// -reuse row receives with WaitTypedMessageInto into one buffer for every message.
// Counters beside messages per second:
//   rx_cpu_us   CPU time (user + system) of the benchmark thread per message, from
//               getrusage(RUSAGE_THREAD);
//   rx_syscalls system calls of the benchmark thread per message: this program defines recv,
//               send and poll itself (forwarding to the kernel), so the calls of the library
//               and of the baseline are both counted, per thread;
//   cpu_us      CPU time of the whole program per message (both ends);
//   rx_queue_kib bytes waiting in the receiver's kernel queue, sampled (one-way only).
#include "stream_workload.h"

#include <benchmark/benchmark.h>

namespace {

using benchstream::LibraryBatchConnection;
using benchstream::LibraryBatchReuseConnection;
using benchstream::LibraryConnection;
using benchstream::OneWay;
using benchstream::PingPong;
using benchstream::RawBatchConnection;
using benchstream::RawConnection;

BENCHMARK_TEMPLATE(OneWay, RawConnection)->Name("OneWay100B/raw")->Args({100, 0})->UseRealTime();
BENCHMARK_TEMPLATE(OneWay, LibraryConnection)->Name("OneWay100B/StreamSocket")->Args({100, 0})->UseRealTime();
BENCHMARK_TEMPLATE(OneWay, RawBatchConnection<64>)->Name("OneWay100BBatch64/raw-writev")->Args({100, 0})->UseRealTime();
BENCHMARK_TEMPLATE(OneWay, LibraryBatchConnection<64>)
    ->Name("OneWay100BBatch64/StreamSocket")
    ->Args({100, 0})
    ->UseRealTime();
BENCHMARK_TEMPLATE(OneWay, LibraryBatchReuseConnection<64>)
    ->Name("OneWay100BBatch64/StreamSocket-reuse")
    ->Args({100, 0})
    ->UseRealTime();
BENCHMARK_TEMPLATE(OneWay, RawConnection)->Name("OneWay100BWork40/raw")->Args({100, 40})->UseRealTime();
BENCHMARK_TEMPLATE(OneWay, LibraryConnection)->Name("OneWay100BWork40/StreamSocket")->Args({100, 40})->UseRealTime();
BENCHMARK_TEMPLATE(OneWay, RawConnection)->Name("OneWay100BWork200/raw")->Args({100, 200})->UseRealTime();
BENCHMARK_TEMPLATE(OneWay, LibraryConnection)->Name("OneWay100BWork200/StreamSocket")->Args({100, 200})->UseRealTime();
BENCHMARK_TEMPLATE(OneWay, RawConnection)->Name("OneWay1MiB/raw")->Args({1 << 20, 0})->UseRealTime();
BENCHMARK_TEMPLATE(OneWay, LibraryConnection)->Name("OneWay1MiB/StreamSocket")->Args({1 << 20, 0})->UseRealTime();
BENCHMARK_TEMPLATE(PingPong, RawConnection)->Name("PingPong100B/raw")->Arg(100)->UseRealTime();
BENCHMARK_TEMPLATE(PingPong, LibraryConnection)->Name("PingPong100B/StreamSocket")->Arg(100)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
