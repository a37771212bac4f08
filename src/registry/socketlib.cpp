// The registration calls of the event registry: how events enter and leave a server's table.
#include "socketlib.h"

#include <cstdint>

// ---- the client's requests ----

int ClientObj::pleaseRegister(ServerObj& server, BaseEvent& event) { return server.registerEvent(event); }

int ClientObj::pleaseUnRegister(ServerObj& server, BaseEvent& event) { return server.unRegisterEvent(event); }

void ClientObj::pleaseUnRegisterAll(ServerObj& server) { server.unRegisterClient(*this); }

// ---- the server's side ----

int ServerObj::registerEvent(BaseEvent& event) {
    if (eventTable == nullptr) return 0;
    unRegisterEvent(event);  // an equal event registered before goes back to its owner
    eventTable->insert(&event);
    return 1;
}

int ServerObj::unRegisterEvent(BaseEvent& event) {
    if (eventTable == nullptr) return 0;
    RWCollectable const* const removed = eventTable->remove(&event);
    if (removed == nullptr) return 0;
    // The answer is the removed event's address where it fits in an int; where it does not,
    // its low bits, kept non-zero so that the answer still means "removed".
    int const address = static_cast<int>(reinterpret_cast<uintptr_t>(removed));
    return address != 0 ? address : 1;
}

BaseEvent* ServerObj::findEvent(BaseEvent& event) const {
    if (eventTable == nullptr) return nullptr;
    // The table holds nothing but the events registered here.
    return static_cast<BaseEvent*>(eventTable->find(&event));
}

void ServerObj::unRegisterClient(ClientObj& client) {
    if (eventTable == nullptr) return;
    RWHashTableIterator next(*eventTable);
    while (RWCollectable* const item = next()) {
        auto* const event = static_cast<BaseEvent*>(item);
        if (event->eventClient != &client) continue;
        next.remove();
        // A further event equal to this one is taken out too, and left to its owner.
        unRegisterEvent(*event);
        delete event;
    }
}
