// The event registry: handler indices, registration by identity, dispatch that keeps or drops
// clients (seen through destruction counters), and the Error records of the checks.
#include "socketlib.h"

#include "tagscope.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

int gEventsDestroyed = 0, gClientsDestroyed = 0;

// Equal to another KeyedEvent with the same key; a negative key is equal to nothing (as
// BaseEvent is). Only events with a client (not lookup probes) count their destruction.
struct KeyedEvent : BaseEvent {
    KeyedEvent(int key, ClientObj* client, int index) : BaseEvent(0, client, index), key(key) {}
    ~KeyedEvent() override { gEventsDestroyed += eventClient != nullptr; }
    RWClassID isA() const override { return 0x4711; }
    unsigned hash() const override { return static_cast<unsigned>(key); }
    bool isEqual(RWCollectable const* other) const override {
        return key >= 0 && other->isA() == isA() && static_cast<KeyedEvent const*>(other)->key == key;
    }
    int key;
};

// A client whose handlers record the events they get and answer 1 (keep) or 0 (finished).
struct TestClient : ClientObj {
    ~TestClient() override { ++gClientsDestroyed; }
    int keep(BaseEvent& event) { return seen.push_back(&event), 1; }
    int finish(BaseEvent& event) { return seen.push_back(&event), 0; }
    int keepIndex() { return signOn(static_cast<ClientHandler>(&TestClient::keep)); }
    int finishIndex() { return signOn(static_cast<ClientHandler>(&TestClient::finish)); }
    // Puts the counters out of step, a state no public operation brings about.
    int signOnWith(int highest, int count, bool keeping) {
        highestIndex = highest;
        handlerCount = count;
        return keeping ? keepIndex() : finishIndex();
    }
    std::vector<BaseEvent*> seen;
};

struct TestServer : ServerObj {
    TestServer() : ServerObj(16) {}
    size_t entries() const { return eventTable->entries(); }
    void dropTable() { eventTable.reset(); }
};

struct RegistryTest : ::testing::Test {
    void SetUp() override { gEventsDestroyed = gClientsDestroyed = 0; }
    size_t errors() const { return records.count("clntsrv"); }
    nTagScope::ErrorRecords records;
};

TEST_F(RegistryTest, SignOnIssuesOneTo256AndDispatchStaysInTheTable) {
    TestClient client;
    EXPECT_EQ(client.signOn(nullptr), 1);  // reported, and stored all the same
    EXPECT_EQ(errors(), 1u);
    for (int expected = 2; expected <= 256; ++expected) ASSERT_EQ(client.keepIndex(), expected);
    EXPECT_EQ(client.finishIndex(), -1);  // refused, and nothing stored: 256 still keeps
    struct {
        int index, result;
        size_t reports;
    } const cases[] = {
        {256, 1, 1},      // a handler is there: reported for the range, and it still runs
        {1, -1, 1},       // an empty slot: reported by another check, no handler runs
        {100000, -1, 1},  // beyond the table: the range report only, nothing read outside
        {-1, -1, 0},      // below the checked bound: no report, no call
    };
    std::vector<int> lines;
    for (auto const& c : cases) {
        records.clear();
        BaseEvent event(0, &client, c.index);
        EXPECT_EQ(client.dispatch(event), c.result) << c.index;
        ASSERT_EQ(errors(), c.reports) << c.index;
        if (c.reports) lines.push_back(records.records()[0].line);
    }
    EXPECT_EQ(lines, (std::vector<int>{lines[0], lines[1], lines[0]}));
    EXPECT_NE(lines[0], lines[1]);
    EXPECT_EQ(client.seen.size(), 1u);
}

TEST_F(RegistryTest, DispatchCallsTheHandlerAtTheEventsIndexAndCountersOutOfStepStayInTheTable) {
    TestClient client;
    BaseEvent toKeep(0, &client, client.keepIndex()), toFinish(0, &client, client.finishIndex());
    EXPECT_EQ(toKeep.dispatchMe(), 1);
    BaseEvent incoming(0, nullptr, 99);  // routed through the registered event's handler
    EXPECT_EQ(toFinish.dispatchEvent(incoming), 0);
    EXPECT_EQ(incoming.handlerIndex, 2);
    EXPECT_EQ(client.seen, (std::vector<BaseEvent*>{&toKeep, &incoming}));
    // highestIndex 1 is occupied: it is reused (finish replaces keep); the count then exceeds it.
    EXPECT_EQ(client.signOnWith(1, 5, false), 1);
    EXPECT_EQ(errors(), 2u);
    EXPECT_EQ(client.dispatch(toKeep), 0);
    // highestIndex 0 is empty: the first occupied slot above it (1) is taken; three reports.
    records.clear();
    EXPECT_EQ(client.signOnWith(0, 3, false), 1);
    EXPECT_EQ(errors(), 3u);
    // Nothing occupied from highestIndex on: that index itself, within the table.
    records.clear();
    EXPECT_EQ(client.signOnWith(255, 0, true), 255);
    EXPECT_EQ(errors(), 1u);
    EXPECT_EQ(TestClient().signOnWith(-5, 1, true), 0);
}

TEST_F(RegistryTest, RegistrationGoesByIdentityAndTheServerOwnsWhatItHolds) {
    TestClient client;
    KeyedEvent first(7, &client, 1);  // the caller's throughout: never destroyed by the server
    auto* second = new KeyedEvent(7, &client, 1);
    KeyedEvent probe(7, nullptr, 0), stranger(9, nullptr, 0);
    {
        TestServer server;
        EXPECT_EQ(client.pleaseRegister(server, first), 1);
        EXPECT_EQ(server.registerEvent(*new KeyedEvent(8, &client, 1)), 1);
        EXPECT_EQ(server.findEvent(*second), &first);
        EXPECT_EQ(server.registerEvent(*second), 1);  // replaces first without destroying it
        EXPECT_EQ(server.findEvent(probe), second);
        EXPECT_EQ(client.pleaseUnRegister(server, stranger), 0);
        EXPECT_NE(client.pleaseUnRegister(server, probe), 0);  // second goes back to the caller
        EXPECT_EQ(server.findEvent(probe), nullptr);
        // Events equal to nothing: all kept, never found, never unregistered.
        auto* a = new KeyedEvent(-1, &client, 1);
        server.registerEvent(*a);
        server.registerEvent(*new KeyedEvent(-1, &client, 1));
        EXPECT_EQ(server.findEvent(*a), nullptr);
        EXPECT_EQ(server.unRegisterEvent(*a), 0);
        EXPECT_EQ(server.entries(), 3u);
    }
    EXPECT_EQ(gEventsDestroyed, 3);  // the ones the server held went with it
    delete second;
}

TEST_F(RegistryTest, DispatchEventKeepsOrDropsTheClient) {
    TestServer server;
    auto* dropped = new TestClient;
    auto* kept = new TestClient;
    int const finish = dropped->finishIndex(), keep = kept->keepIndex();
    // Interleaved, so that removing one client's events walks past the other's.
    for (int key = 0; key < 6; ++key)
        server.registerEvent(*new KeyedEvent(key, key % 2 ? dropped : kept, key % 2 ? finish : keep));
    KeyedEvent keptProbe(0, nullptr, 0), droppedProbe(1, nullptr, 0);
    BaseEvent* const keptEvent = server.findEvent(keptProbe);
    server.dispatchEvent(*keptEvent);  // a handler answering 1 changes nothing
    EXPECT_EQ(kept->seen, std::vector<BaseEvent*>{keptEvent});
    EXPECT_EQ(server.entries(), 6u);
    EXPECT_EQ(gEventsDestroyed + gClientsDestroyed, 0);
    // Answering 0 destroys all the client's events (the dispatched one too), then the client.
    server.dispatchEvent(*server.findEvent(droppedProbe));
    EXPECT_EQ(gEventsDestroyed, 3);
    EXPECT_EQ(gClientsDestroyed, 1);
    for (int key = 0; key < 6; ++key) {
        KeyedEvent probe(key, nullptr, 0);
        BaseEvent* const found = server.findEvent(probe);
        EXPECT_EQ(found ? found->eventClient : nullptr, key % 2 ? nullptr : kept) << key;
    }
    kept->pleaseUnRegisterAll(server);
    EXPECT_EQ(gEventsDestroyed, 6);
    EXPECT_EQ(server.entries(), 0u);
    delete kept;
}

TEST_F(RegistryTest, MissingClientOrTableIsReportedAndIdentity) {
    {
        TestServer server;
        BaseEvent orphan(0, nullptr, 1), incoming;
        EXPECT_EQ(orphan.dispatchMe() + orphan.dispatchEvent(incoming), 0);
        server.dispatchEvent(orphan);  // answer 0 without a client: nothing to drop
        EXPECT_EQ(errors(), 3u);
        // Without a table nothing is stored or found; the destructor reports it.
        server.dropTable();
        KeyedEvent event(1, nullptr, 0);
        EXPECT_EQ(server.registerEvent(event) + server.unRegisterEvent(event), 0);
        EXPECT_EQ(server.findEvent(event), nullptr);
        server.unRegisterClient(*static_cast<ClientObj*>(&server));
        EXPECT_EQ(errors(), 3u);
    }
    EXPECT_EQ(errors(), 4u);
    EXPECT_EQ(gClientsDestroyed, 0);
    // Serial numbers count up over every client and server; names are virtual; clients equal nothing.
    TestClient first;
    ServerObj second(0);  // a bucket count below 1 is taken as 1
    EXPECT_EQ(second.value(), first.value() + 1);
    EXPECT_GT(first.value(), 0);
    EXPECT_STREQ(static_cast<ValidateObject const&>(second).nameOf(), "ServerObj");
    EXPECT_STREQ(static_cast<ValidateObject const&>(first).nameOf(), "ClientObj");
    EXPECT_EQ(first.valid(), 1);
    EXPECT_FALSE(first.isEqual(&first));
}

}  // namespace
