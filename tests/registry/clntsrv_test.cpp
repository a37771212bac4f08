// The event registry: handler indices, registration by identity, dispatch keeping or dropping clients, Error records.
#include "socketlib.h"

#include "tagscope.h"

namespace {

int gEventsDestroyed = 0, gClientsDestroyed = 0;

// Equal to a KeyedEvent of the same key, a negative key to nothing; events with a client count their destruction.
struct KeyedEvent : BaseEvent {
    KeyedEvent(int key, ClientObj* client = nullptr, int index = 0) : BaseEvent(0, client, index), key(key) {}
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
    int add(bool keeping) {
        return signOn(static_cast<ClientHandler>(keeping ? &TestClient::keep : &TestClient::finish));
    }
    // Puts the counters out of step first, a state no public operation brings about.
    int addOutOfStep(int highest, int count) { return highestIndex = highest, handlerCount = count, add(false); }
    std::vector<BaseEvent*> seen;
};

struct TestServer : ServerObj {
    TestServer() : ServerObj(16) {}
    size_t entries() const { return eventTable->entries(); }
    BaseEvent* find(int key) const { return findEvent(*std::make_unique<KeyedEvent>(key)); }
    void dropTable() { eventTable.reset(); }
};

struct RegistryTest : ::testing::Test {
    void SetUp() override { gEventsDestroyed = gClientsDestroyed = 0; }
    int errors() {  // the reports since the last call
        int const n = static_cast<int>(records.count("clntsrv"));
        return records.clear(), n;
    }
    nTagScope::ErrorRecords records;
};

TEST_F(RegistryTest, SignOnAndDispatchStayInTheTable) {
    TestClient client;
    EXPECT_EQ((std::pair{client.signOn(nullptr), errors()}), std::pair(1, 1));  // reported, and stored all the same
    for (int expected = 2; expected <= 256; ++expected) ASSERT_EQ(client.add(true), expected);
    EXPECT_EQ(client.add(false), -1);  // refused, and nothing stored: 256 still keeps
    // {index, result, reports}: 256 is reported for the range and still runs; an empty slot is
    // reported by another check (slot 0 too); beyond the table the range report only; a negative index neither.
    std::vector<int> lines;
    int const dispatched[][3] = {{256, 1, 1}, {255, 1, 0}, {1, -1, 1}, {100000, -1, 1}, {-1, -1, 0}, {0, -1, 1}};
    for (auto& [index, result, reports] : dispatched) {
        BaseEvent event(0, &client, index);
        EXPECT_EQ(client.dispatch(event), result) << index;
        if (reports) lines.push_back(records.records().at(0).line);
        ASSERT_EQ(errors(), reports) << index;
    }
    EXPECT_TRUE(lines.size() == 4 && lines[0] == lines[2] && lines[1] == lines[3] && lines[0] != lines[1]);
    EXPECT_EQ(client.seen.size(), 2u);

    // Counters out of step {highest, count, index, reports}: none occupied from the highest index on (clamped):
    // that index; an occupied one is reused (count above it); from an empty one the next occupied, up to the last.
    TestClient other;
    BaseEvent toKeep(0, &other, other.add(true)), toFinish(0, &other, other.add(false)), incoming(0, nullptr, 99);
    EXPECT_EQ((std::tuple{toKeep.dispatchMe(), toFinish.dispatchEvent(incoming), incoming.handlerIndex}),
              std::tuple(1, 0, 2));  // incoming runs under the event's handler
    EXPECT_EQ(other.seen, (std::vector<BaseEvent*>{&toKeep, &incoming}));
    int const outOfStep[][4] = {{300, 0, 256, 2}, {1, 5, 1, 2}, {0, 3, 1, 3}, {254, 0, 256, 2}};
    for (auto& [highest, count, index, reports] : outOfStep) {
        EXPECT_EQ(other.addOutOfStep(highest, count), index) << highest;
        EXPECT_EQ(errors(), reports) << highest;
    }
    EXPECT_EQ(other.dispatch(toKeep), 0);            // slot 1 now finishes
    EXPECT_EQ(TestClient().addOutOfStep(-5, 1), 0);  // below the table and none occupied: slot 0
}

TEST_F(RegistryTest, RegistrationGoesByIdentityAndTheServerOwnsWhatItHolds) {
    TestClient client;
    KeyedEvent first(7, &client, 1);  // the caller's throughout: never destroyed by the server
    auto* second = new KeyedEvent(7, &client, 1);
    KeyedEvent probe(7), stranger(9);
    {
        TestServer server;
        EXPECT_EQ(client.pleaseRegister(server, first) + server.registerEvent(*new KeyedEvent(8, &client, 1)), 2);
        EXPECT_EQ(server.findEvent(*second), &first);
        EXPECT_EQ(server.registerEvent(*second), 1);  // replaces first without destroying it
        EXPECT_EQ(server.findEvent(probe), second);
        EXPECT_EQ(client.pleaseUnRegister(server, stranger), 0);
        EXPECT_NE(client.pleaseUnRegister(server, probe), 0);  // second goes back to the caller
        EXPECT_EQ(server.findEvent(probe), nullptr);
        auto* a = new KeyedEvent(-1, &client, 1);  // events equal to nothing: all kept, never found or unregistered
        EXPECT_EQ(server.registerEvent(*a) + server.registerEvent(*new KeyedEvent(-1, &client, 1)), 2);
        EXPECT_EQ(server.findEvent(*a), nullptr);
        EXPECT_EQ(std::pair(server.unRegisterEvent(*a), server.entries()), std::pair(0, size_t(3)));
    }
    EXPECT_EQ(gEventsDestroyed, 3);  // the ones the server held went with it
    delete second;
}

TEST_F(RegistryTest, DispatchEventKeepsOrDropsTheClient) {
    TestServer server;
    auto *dropped = new TestClient, *kept = new TestClient;
    int const finish = dropped->add(false), keep = kept->add(true);
    // Interleaved, so that removing one client's events walks past the other's.
    for (int key = 0; key < 6; ++key)
        server.registerEvent(*new KeyedEvent(key, key % 2 ? dropped : kept, key % 2 ? finish : keep));
    server.registerEvent(*new KeyedEvent(-1, dropped, finish));  // found by the walk alone
    BaseEvent* const keptEvent = server.find(0);
    server.dispatchEvent(*keptEvent);  // a handler answering 1 changes nothing
    EXPECT_EQ(kept->seen, std::vector<BaseEvent*>{keptEvent});
    EXPECT_EQ(std::tuple(server.entries(), gEventsDestroyed, gClientsDestroyed), std::tuple(size_t(7), 0, 0));
    // Answering 0 destroys all the client's events (the dispatched one too), then the client.
    server.dispatchEvent(*server.find(1));
    EXPECT_EQ(std::tuple(gEventsDestroyed, gClientsDestroyed, server.entries()), std::tuple(4, 1, size_t(3)));
    for (int key = 0; key < 6; ++key)
        EXPECT_EQ(server.find(key) ? server.find(key)->eventClient : nullptr, key % 2 ? nullptr : kept) << key;
    kept->pleaseUnRegisterAll(server);
    EXPECT_EQ(std::pair(gEventsDestroyed, server.entries()), std::pair(7, size_t(0)));
    delete kept;
}

TEST_F(RegistryTest, MissingClientOrTableIsReportedAndIdentity) {
    {
        TestServer server;
        BaseEvent orphan(0, nullptr, 1), incoming;
        EXPECT_EQ(orphan.dispatchMe() + orphan.dispatchEvent(incoming), 0);
        KeyedEvent clientless(5);
        server.registerEvent(clientless);
        server.dispatchEvent(orphan);  // answer 0 without a client: nothing to drop, no event unregistered
        EXPECT_EQ(std::pair(errors(), server.entries()), std::pair(3, size_t(1)));
        KeyedEvent event(1);  // without a table nothing is stored or found; the destructor reports it
        server.dropTable();
        server.unRegisterClient(*static_cast<ClientObj*>(&server));
        EXPECT_EQ(server.registerEvent(event) + server.unRegisterEvent(event) + errors(), 0);
        EXPECT_EQ(server.findEvent(event), nullptr);
    }
    EXPECT_EQ(std::pair(errors(), gClientsDestroyed), std::pair(1, 0));
    // Serial numbers count up over every client and server; names are virtual; clients and plain events equal nothing.
    TestClient first;
    ServerObj second(0);  // a bucket count below 1 is taken as 1
    EXPECT_TRUE(first.value() > 0 && second.value() == first.value() + 1);
    auto const name = [](ValidateObject const& object) { return std::string(object.nameOf()); };
    EXPECT_EQ(name(second) + name(first), "ServerObjClientObj");
    EXPECT_TRUE(first.valid() == 1 && !first.isEqual(&first) && !BaseEvent().isEqual(&first));
}

}  // namespace
