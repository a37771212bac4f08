// The event registry's classes: serial numbers, handler tables, event identity and dispatch.
// The registration calls (register, unregister) live in socketlib.cpp.
#include "clntsrv.h"

#include "log_records.h"

#include <algorithm>

namespace {

char const kModule[] = "clntsrv";

// The process-wide serial counter. Objects are created from one thread at a time, so a
// plain int is enough.
int serialValidateObject = 0;

}  // namespace

// ---- ValidateObject ----

ValidateObject::~ValidateObject() = default;

int ValidateObject::valid() const { return validFlag; }

char const* ValidateObject::nameOf() const { return "ValidateObject"; }

// ---- CollectableValidateObject ----

CollectableValidateObject::CollectableValidateObject() : RWCollectableInt(++serialValidateObject) {}

CollectableValidateObject::~CollectableValidateObject() = default;

RWClassID CollectableValidateObject::isA() const { return 0; }

unsigned CollectableValidateObject::hash() const { return 0; }

bool CollectableValidateObject::isEqual(RWCollectable const*) const { return false; }

char const* CollectableValidateObject::nameOf() const { return "CollectableValidateObject"; }

// ---- BaseEvent ----

BaseEvent::BaseEvent(int value, ClientObj* client, int index)
    : RWCollectableInt(value), eventClient(client), handlerIndex(index) {}

BaseEvent::~BaseEvent() = default;

RWClassID BaseEvent::isA() const { return 0; }

unsigned BaseEvent::hash() const { return 0; }

bool BaseEvent::isEqual(RWCollectable const*) const { return false; }

int BaseEvent::dispatchMe() {
    if (eventClient == nullptr) {
        nLogRecords::logError(kModule, __LINE__);
        return 0;  // nobody to ask
    }
    return eventClient->dispatch(*this);
}

char const* BaseEvent::nameOf() const { return "BaseEvent"; }

int BaseEvent::dispatchEvent(BaseEvent& incoming) {
    if (eventClient == nullptr) {
        nLogRecords::logError(kModule, __LINE__);
        return 0;
    }
    incoming.handlerIndex = handlerIndex;
    return eventClient->dispatch(incoming);
}

// ---- ClientObj ----

ClientObj::ClientObj() = default;

ClientObj::~ClientObj() = default;

char const* ClientObj::nameOf() const { return "ClientObj"; }

int ClientObj::signOn(ClientHandler handler) {
    if (handler == nullptr) nLogRecords::logError(kModule, __LINE__);  // stored all the same
    if (highestIndex == kMaxHandlerIndex) return -1;
    if (highestIndex == handlerCount) {
        // The normal path: the next index, so the first handler gets 1 and slot 0 stays empty.
        int const index = highestIndex + 1;
        handlerTable[index] = handler;
        highestIndex = handlerCount = index;
        return index;
    }
    // The counters differ, which only a derived class tampering with them brings about:
    // report it and reuse the first occupied slot from highestIndex on (highestIndex itself
    // when there is none), keeping every access inside the table.
    nLogRecords::logError(kModule, __LINE__);
    int const from = std::clamp(highestIndex, 0, kMaxHandlerIndex);
    int index = from;
    while (index <= kMaxHandlerIndex && handlerTable[index] == nullptr) ++index;
    if (index > kMaxHandlerIndex) index = from;
    if (index != highestIndex) nLogRecords::logError(kModule, __LINE__);
    handlerTable[index] = handler;
    ++handlerCount;
    if (handlerCount > highestIndex) nLogRecords::logError(kModule, __LINE__);
    return index;
}

int ClientObj::dispatch(BaseEvent& event) {
    int const index = event.handlerIndex;
    // Signed test of the upper bound only: a negative index is not reported.
    if (index > kMaxHandlerIndex - 1) nLogRecords::logError(kModule, __LINE__);
    bool const inTable = index >= 0 && index <= kMaxHandlerIndex;
    if (inTable && handlerTable[index] == nullptr) nLogRecords::logError(kModule, __LINE__);
    if (!inTable || handlerTable[index] == nullptr) return -1;  // no handler: keep the client
    return (this->*handlerTable[index])(event);
}

// ---- ServerObj ----

namespace {

// The table only takes a positive size hint; it grows as events are added.
size_t bucketHint(int buckets) { return static_cast<size_t>(std::clamp(buckets, 1, 1 << 16)); }

}  // namespace

ServerObj::ServerObj(int buckets) : eventTable(std::make_unique<RWHashTable>(bucketHint(buckets))) {}

ServerObj::~ServerObj() {
    if (eventTable == nullptr) {
        nLogRecords::logError(kModule, __LINE__);
        return;
    }
    eventTable->clearAndDestroy();
    eventTable.reset();
}

char const* ServerObj::nameOf() const { return "ServerObj"; }

void ServerObj::dispatchEvent(BaseEvent& event) {
    if (event.dispatchMe() != 0) return;
    // The handler is finished with its client: drop the client with all its events.
    ClientObj* const client = event.eventClient;
    if (client == nullptr) return;
    unRegisterClient(*client);
    delete client;
}

int ServerObj::applyRegistration() { return 1; }
