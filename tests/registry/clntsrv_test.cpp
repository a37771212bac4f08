// The event registry: handler indices, registration by identity, dispatch that keeps or drops
// clients (observed through destruction counters), and the Error records of the checks.
#include "socketlib.h"

#include "tagscope.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

int gEventsDestroyed = 0;
int gClientsDestroyed = 0;

// Equal to another KeyedEvent with the same key; only events with a client (not lookup
// probes) count their destruction.
class KeyedEvent : public BaseEvent {
  public:
    KeyedEvent(int key, ClientObj* client, int index) : BaseEvent(0, client, index), mKey(key) {}
    ~KeyedEvent() override { gEventsDestroyed += eventClient != nullptr; }
    RWClassID isA() const override { return 0x4711; }
    unsigned hash() const override { return static_cast<unsigned>(mKey); }
    bool isEqual(RWCollectable const* other) const override {
        return other->isA() == isA() && static_cast<KeyedEvent const*>(other)->mKey == mKey;
    }

  private:
    int mKey;
};

// An event with BaseEvent's identity (equal to nothing) that counts its destruction.
class AnonymousEvent : public BaseEvent {
  public:
    using BaseEvent::BaseEvent;
    ~AnonymousEvent() override { ++gEventsDestroyed; }
};

// A client whose handlers record the events they get and answer 1 (keep) or 0 (finished).
class TestClient : public ClientObj {
  public:
    ~TestClient() override { ++gClientsDestroyed; }
    int keep(BaseEvent& event) {
        seen.push_back(&event);
        return 1;
    }
    int finish(BaseEvent& event) {
        seen.push_back(&event);
        return 0;
    }
    int keepIndex() { return signOn(static_cast<ClientHandler>(&TestClient::keep)); }
    int finishIndex() { return signOn(static_cast<ClientHandler>(&TestClient::finish)); }
    // Lets a test put the counters out of step, a state no public operation brings about.
    void setCounters(int highest, int count) {
        highestIndex = highest;
        handlerCount = count;
    }
    std::vector<BaseEvent*> seen;
};

class TestServer : public ServerObj {
  public:
    TestServer() : ServerObj(16) {}
    size_t entries() const { return eventTable->entries(); }
    void dropTable() { eventTable.reset(); }
};

// Every record of these tests is an Error record of clntsrv.
struct ErrorRecords : nTagScope::ErrorRecords {
    size_t count() const { return nTagScope::ErrorRecords::count("clntsrv"); }
};

class RegistryTest : public ::testing::Test {
  protected:
    void SetUp() override { gEventsDestroyed = gClientsDestroyed = 0; }
};

TEST_F(RegistryTest, SignOnIssuesOneTo256AndDispatchStaysInTheTable) {
    ErrorRecords errors;
    TestClient client;
    for (int expected = 1; expected <= 256; ++expected) ASSERT_EQ(client.keepIndex(), expected);
    EXPECT_EQ(client.finishIndex(), -1);  // refused, and nothing stored: 256 still keeps
    EXPECT_EQ(errors.count(), 0u);

    struct Case {
        int index, result;
        size_t reports;
    } const cases[] = {
        {256, 1, 1},      // a handler is there: reported for the range, and it still runs
        {0, -1, 1},       // slot 0 is never issued: an empty slot, no handler runs
        {100000, -1, 1},  // beyond the table: the range report only, nothing read outside
        {-1, -1, 0},      // below the checked bound: no report, no call
    };
    std::vector<int> lines;  // of the first record of each row
    for (Case const& c : cases) {
        SCOPED_TRACE(c.index);
        errors.clear();
        BaseEvent event(0, &client, c.index);
        EXPECT_EQ(client.dispatch(event), c.result);
        ASSERT_EQ(errors.count(), c.reports);
        if (c.reports) lines.push_back(errors.records()[0].line);
    }
    EXPECT_NE(lines[0], lines[1]);  // the empty slot is another check than the range
    EXPECT_EQ(lines[2], lines[0]);
    EXPECT_EQ(client.seen.size(), 1u);
}

TEST_F(RegistryTest, DispatchCallsTheHandlerAtTheEventsIndex) {
    ErrorRecords errors;
    TestClient client;
    EXPECT_EQ(client.signOn(nullptr), 1);  // reported, and stored all the same
    EXPECT_EQ(errors.count(), 1u);
    EXPECT_EQ(client.keepIndex(), 2);
    BaseEvent toKeep(0, &client, 2), toFinish(0, &client, client.finishIndex());
    EXPECT_EQ(toKeep.dispatchMe(), 1);
    // A registered event routes an incoming one through its own handler.
    BaseEvent incoming(0, nullptr, 99);
    EXPECT_EQ(toFinish.dispatchEvent(incoming), 0);
    EXPECT_EQ(incoming.handlerIndex, 3);
    EXPECT_EQ(client.seen, (std::vector<BaseEvent*>{&toKeep, &incoming}));
}

TEST_F(RegistryTest, CountersOutOfStepAreReportedAndStayInsideTheTable) {
    ErrorRecords errors;
    TestClient client;
    client.keepIndex();
    client.keepIndex();

    // highestIndex 2 is occupied: it is reused; the count then exceeds it.
    client.setCounters(2, 5);
    EXPECT_EQ(client.finishIndex(), 2);
    EXPECT_EQ(errors.count(), 2u);
    BaseEvent second(0, &client, 2);
    EXPECT_EQ(client.dispatch(second), 0);  // the finish handler replaced keep

    // highestIndex 0 is empty: the first occupied slot above it (1) is taken; three reports.
    errors.clear();
    client.setCounters(0, 3);
    EXPECT_EQ(client.finishIndex(), 1);
    EXPECT_EQ(errors.count(), 3u);

    // Nothing occupied from a high highestIndex on: that index itself, within the table.
    errors.clear();
    client.setCounters(255, 0);
    EXPECT_EQ(client.keepIndex(), 255);
    EXPECT_EQ(errors.count(), 1u);
    TestClient empty;  // nothing occupied from a negative highestIndex on: slot 0
    empty.setCounters(-5, 1);
    EXPECT_EQ(empty.keepIndex(), 0);
}

TEST_F(RegistryTest, RegistrationGoesByIdentityAndTheServerOwnsWhatItHolds) {
    TestClient client;
    KeyedEvent first(7, &client, 1);  // the caller's throughout: never destroyed by the server
    auto* second = new KeyedEvent(7, &client, 1);
    auto* other = new KeyedEvent(8, &client, 1);
    KeyedEvent probe(7, nullptr, 0), stranger(9, nullptr, 0);
    {
        TestServer server;
        EXPECT_EQ(client.pleaseRegister(server, first), 1);
        EXPECT_EQ(server.registerEvent(*other), 1);
        EXPECT_EQ(server.findEvent(*second), &first);
        EXPECT_EQ(server.registerEvent(*second), 1);  // replaces first without destroying it
        EXPECT_EQ(server.entries(), 2u);
        EXPECT_EQ(server.findEvent(probe), second);
        EXPECT_EQ(client.pleaseUnRegister(server, stranger), 0);
        EXPECT_NE(client.pleaseUnRegister(server, probe), 0);  // second goes back to the caller
        EXPECT_EQ(server.findEvent(probe), nullptr);

        // Anonymous events are equal to nothing: all kept, never found, never unregistered.
        auto* a = new AnonymousEvent(0, &client, 1);
        auto* b = new AnonymousEvent(0, &client, 1);
        server.registerEvent(*a);
        server.registerEvent(*b);
        EXPECT_EQ(server.findEvent(*a), nullptr);
        EXPECT_EQ(server.unRegisterEvent(*b), 0);
        EXPECT_EQ(server.entries(), 3u);
    }
    EXPECT_EQ(gEventsDestroyed, 3);  // other and the anonymous ones went with the server
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

    // A handler answering 1 changes nothing.
    BaseEvent* const keptEvent = server.findEvent(keptProbe);
    server.dispatchEvent(*keptEvent);
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

TEST_F(RegistryTest, MissingClientOrTableIsReported) {
    ErrorRecords errors;
    {
        TestServer server;
        BaseEvent orphan(0, nullptr, 1), incoming;
        EXPECT_EQ(orphan.dispatchMe(), 0);
        EXPECT_EQ(errors.count(), 1u);
        EXPECT_EQ(orphan.dispatchEvent(incoming), 0);
        EXPECT_EQ(errors.count(), 2u);
        server.dispatchEvent(orphan);  // answer 0 without a client: nothing to drop
        EXPECT_EQ(errors.count(), 3u);
        EXPECT_EQ(gClientsDestroyed, 0);
        // Without a table nothing is stored or found; the destructor reports it.
        server.dropTable();
        KeyedEvent event(1, nullptr, 0);
        EXPECT_EQ(server.registerEvent(event), 0);
        EXPECT_EQ(server.findEvent(event), nullptr);
        EXPECT_EQ(errors.count(), 3u);
    }
    EXPECT_EQ(errors.count(), 4u);
    // Serial numbers count up from 1 over every client and server; names are virtual.
    TestClient first;
    ServerObj second(0);  // a bucket count below 1 is taken as 1
    EXPECT_EQ(second.value(), first.value() + 1);
    EXPECT_GT(first.value(), 0);
    EXPECT_STREQ(static_cast<ValidateObject const&>(second).nameOf(), "ServerObj");
    EXPECT_STREQ(static_cast<ValidateObject const&>(first).nameOf(), "ClientObj");
    EXPECT_EQ(first.valid(), 1);
    EXPECT_FALSE(first.isEqual(&first));  // clients are equal to nothing
}

}  // namespace
