// The registry's and the hub dump's costs beside baselines run in the same program:
// (a) finding a registered event among 1,000 and routing an incoming event through its
//     handler, compared with a std::unordered_map<int, std::function> lookup and call;
// (b) DumpHubArray of a sender and 8 pairs (including the heap text and its release),
//     compared with snprintf of the same text into a std::string.
// Target: (b) within 2x of the baseline. (a) has none: the registry pays for virtual identity
// (hash, isEqual, isA), a key object per lookup and a member-function call by index, which
// the baseline does not; the figure is kept to see changes.
#include "ratio_report.h"
#include "send2hub.h"
#include "socketlib.h"

#include <cstdio>
#include <functional>
#include <string>
#include <unordered_map>

namespace {

constexpr int kEvents = 1000;

class Event : public BaseEvent {
  public:
    Event(int key, ClientObj* client, int index) : BaseEvent(0, client, index), mKey(key) {}
    RWClassID isA() const override { return 0x4242; }
    unsigned hash() const override { return static_cast<unsigned>(mKey); }
    bool isEqual(RWCollectable const* other) const override {
        return other->isA() == isA() && static_cast<Event const*>(other)->mKey == mKey;
    }

  private:
    int mKey;
};

class Counter : public ClientObj {
  public:
    int count(BaseEvent&) { return ++calls; }
    long calls = 0;
};

void RouteThroughServer(benchmark::State& state) {
    Counter client;
    int const index = client.signOn(static_cast<ClientHandler>(&Counter::count));
    ServerObj server(kEvents);
    for (int key = 0; key < kEvents; ++key) server.registerEvent(*new Event(key, &client, index));
    int key = 0;
    for (auto _ : state) {
        Event incoming(key, nullptr, 0);
        BaseEvent* registered = server.findEvent(incoming);
        benchmark::DoNotOptimize(registered->dispatchEvent(incoming));
        key = (key + 7) % kEvents;
    }
}

void RouteThroughMap(benchmark::State& state) {
    long calls = 0;
    std::unordered_map<int, std::function<int(int)>> handlers;
    for (int key = 0; key < kEvents; ++key) handlers[key] = [&calls](int) { return static_cast<int>(++calls); };
    int key = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(handlers.find(key)->second(key));
        key = (key + 7) % kEvents;
    }
}

char const* const kEnd = nullptr;

void HubDump_8(benchmark::State& state) {
    for (auto _ : state) {
        char* text =
            DumpHubArray("agent@host7", "mode", "fast", "queue", "inbound-3", "priority", "7", "retry", "0", "user",
                         "operator", "session", "4711-0815", "origin", "console", "trace", "off", kEnd);
        benchmark::DoNotOptimize(text);
        FreeHubDumpArray(text);
    }
}

void Snprintf_8(benchmark::State& state) {
    char buffer[512];
    for (auto _ : state) {
        int const n = std::snprintf(
            buffer, sizeof buffer,
            "%d '%d %s '%d %s '%d %s '%d %s '%d %s '%d %s '%d %s '%d %s '%d %s '%d %s '%d %s '%d %s '%d %s '%d %s "
            "'%d %s '%d %s '%d %s '%d %s",
            9, 5, "$FROM", 11, "agent@host7", 4, "mode", 4, "fast", 5, "queue", 9, "inbound-3", 8, "priority", 1, "7",
            5, "retry", 1, "0", 4, "user", 8, "operator", 7, "session", 9, "4711-0815", 6, "origin", 7, "console", 5,
            "trace", 3, "off");
        std::string text(buffer, static_cast<size_t>(n));
        benchmark::DoNotOptimize(text.data());
    }
}

BENCHMARK(RouteThroughServer);
BENCHMARK(RouteThroughMap);
BENCHMARK(HubDump_8);
BENCHMARK(Snprintf_8);

}  // namespace

int main(int argc, char** argv) {
    return benchratio::runWithRatios(
        argc, argv, {{"RouteThroughServer", "RouteThroughMap", "-"}, {"HubDump_8", "Snprintf_8", "<= 2"}});
}
