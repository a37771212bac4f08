// The in-process event registry: clients sign on member-function handlers, servers keep
// registered events and dispatch them to their clients' handlers.
//
// A client (ClientObj) signs on handlers and gets an index for each (1, 2, ... 256). An event
// (BaseEvent) names the client that wants it and the handler index to call. A server
// (ServerObj) keeps registered events in a hash table, matched through the events' own
// hash() and isEqual(); it owns them from registration on. When a handler answers 0 during
// ServerObj::dispatchEvent, the server drops that client: it destroys all the client's events
// and then the client itself (such clients live on the heap).
//
// Checks report an Error record with no text and the operation carries on; nothing throws.
// The registry has no locks: one thread at a time creates objects and uses a server.
#ifndef COLLOQUY_CLNTSRV_H
#define COLLOQUY_CLNTSRV_H

#include "cplatformdefs.h"
#include "rwcollect.h"
#include "rwhashtable.h"

#include <memory>

class BaseEvent;
class ClientObj;
class ServerObj;

// A mixin carrying a validity flag: 1 from construction on (nothing resets it).
class COLLOQUY_EXPORT ValidateObject {
  public:
    ValidateObject() = default;
    virtual ~ValidateObject();
    virtual int valid() const;
    virtual char const* nameOf() const;

  protected:
    int validFlag = 1;
};

// A collectable with a serial number (its RWCollectableInt value, taken from a process-wide
// counter: the first object of a process gets 1) and a validity flag. As a collectable it is
// anonymous: isA() and hash() answer 0 and it equals nothing.
class COLLOQUY_EXPORT CollectableValidateObject : public RWCollectableInt, public ValidateObject {
  public:
    CollectableValidateObject();
    // A copy would share the serial number, which identifies one object.
    CollectableValidateObject(CollectableValidateObject const&) = delete;
    CollectableValidateObject& operator=(CollectableValidateObject const&) = delete;

    RWClassID isA() const override;
    ~CollectableValidateObject() override;
    unsigned hash() const override;
    bool isEqual(RWCollectable const* other) const override;
    char const* nameOf() const override;  // serves ValidateObject's too
};

// The kind of handler a client signs on: a member function of the client (of a derived
// class, converted with static_cast) answering non-zero to stay, 0 when finished.
typedef int (ClientObj::*ClientHandler)(BaseEvent&);

// An event: what a server stores and dispatches. Concrete event classes define isA(), hash()
// and isEqual(); that identity is the key under which a server finds a registered event. A
// bare BaseEvent equals nothing, not even itself.
class COLLOQUY_EXPORT BaseEvent : public RWCollectableInt {
  public:
    BaseEvent(int value = 0, ClientObj* client = nullptr, int handlerIndex = 0);

    RWClassID isA() const override;
    ~BaseEvent() override;
    unsigned hash() const override;
    bool isEqual(RWCollectable const* other) const override;
    // Calls this event's handler on its client and returns the handler's answer (0 and an
    // Error record when the event has no client).
    virtual int dispatchMe();
    virtual char const* nameOf() const;

    // Routes `incoming` through this (registered) event's handler: copies handlerIndex into
    // `incoming` and dispatches it to this event's client (0 and an Error record when there
    // is no client).
    int dispatchEvent(BaseEvent& incoming);

    ClientObj* eventClient;  // the client whose handler receives the event; not owned
    int handlerIndex;        // index into the client's handler table
};

class COLLOQUY_EXPORT ClientObj : public CollectableValidateObject {
  public:
    // Handler indices run from 1 to kMaxHandlerIndex; slot 0 is never issued.
    static constexpr int kMaxHandlerIndex = 256;

    ClientObj();

    ~ClientObj() override;
    char const* nameOf() const override;
    // Stores `handler` and returns its index (1, 2, ... 256), or -1 once 256 are signed on.
    virtual int signOn(ClientHandler handler);
    // Asks `server` to register `event` (whose eventClient and handlerIndex the caller fills in).
    virtual int pleaseRegister(ServerObj& server, BaseEvent& event);
    virtual int pleaseUnRegister(ServerObj& server, BaseEvent& event);
    // Asks `server` to destroy every event registered for this client.
    virtual void pleaseUnRegisterAll(ServerObj& server);
    // Calls the handler at event.handlerIndex and returns its answer. An index above 255 or
    // an empty slot writes an Error record first; when there is no handler to call (empty
    // slot, index outside 0..256) the answer is -1, which keeps the client.
    virtual int dispatch(BaseEvent& event);

  protected:
    // Index kMaxHandlerIndex is issued too, so the table has one slot more than the 256 the
    // range check accepts.
    ClientHandler handlerTable[kMaxHandlerIndex + 1] = {};
    int highestIndex = 0;  // highest index issued so far
    int handlerCount = 0;  // handlers signed on
};

// A server is a client too. It owns the events registered with it.
class COLLOQUY_EXPORT ServerObj : public ClientObj {
  public:
    // `buckets` is the event table's initial size (at least 1; the table grows as needed).
    explicit ServerObj(int buckets);

    // Destroys every registered event; clients are not told.
    ~ServerObj() override;
    char const* nameOf() const override;
    // Dispatches `event` to its client; when the handler answers 0, destroys every event of
    // that client (`event` too, when it is one of them) and then the client.
    virtual void dispatchEvent(BaseEvent& event);
    // Registers `event`, taking it over; an equal event registered before is removed (and
    // left to its owner). Returns 1.
    virtual int registerEvent(BaseEvent& event);
    // Removes the registered event equal to `event` without destroying it. Returns 0 when
    // there is none, otherwise non-zero (on a 32-bit host, the removed event's address).
    virtual int unRegisterEvent(BaseEvent& event);
    // Removes and destroys every event whose eventClient is `client`.
    virtual void unRegisterClient(ClientObj& client);
    // A hook for derived servers: returns 1.
    virtual int applyRegistration();

    // The registered event equal to `event`, or null.
    BaseEvent* findEvent(BaseEvent& event) const;

  protected:
    std::unique_ptr<RWHashTable> eventTable;
};

#endif
