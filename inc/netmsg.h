// The message envelope: destination and sender (a name and a host each), a QType, a body and
// two further numbers, always kept packed as eight counted fields (packmsg.h) in a buffer the
// message owns. Every text member and the body point into that buffer.
//
// Packed fields, in order: toHost, toName, fromHost, fromName (zero-terminated, zero byte
// included), qType ("%d" text and a zero byte), body (raw, bodyLen bytes), userValue and
// formatStamp ("%d" text of the value as a signed int, and a zero byte). messageType and
// messageSubType are not packed: they travel in the stream header.
//
// Example: userValue 7, to svc@hostB, from agent@hostA, qType 3, body "hi" packs 50 bytes:
//     "8 6 4 6 6 2 2 2 4 " "hostB\0svc\0hostA\0agent\0" "3\0" "hi" "7\0" "352\0"
//
// Failure reporting: Error records with no text when the full constructor gets a null body or
// a body length of 0, when packMe packs a body length of 0, when unPackMe gets a null buffer,
// and when a message made from a typed message has a body length of 0. None changes the
// outcome.
//
// Bytes from the network: a message made from a buffer and a length (unPackMe, the
// four-argument constructor, the constructor from a typed message) reads only inside
// [buffer, buffer + length). The buffer is malformed when its header is not a count of 1 to 10
// and that many lengths, each 1 to 10 digits followed by one blank, when a field runs past
// the end, when it has fewer than six fields, or when a text or number field (0 to 4, and 6
// and 7 of an eight-field buffer) holds no zero byte. A malformed buffer writes one Error record
// with the text "malformed packed message" and the length, and yields: the four text members
// and the body pointing at an empty string, bodyLen 0, qType, userValue and formatStamp all bits
// one; the copy (or adopted buffer) is still owned and freed by the message. A null buffer
// given to unPackMe counts as an empty, malformed one (packedLen 0).
// A well-formed buffer with a count other than 8 maps fields 0 to 5 and sets userValue and
// formatStamp to all bits one.
#ifndef COLLOQUY_NETMSG_H
#define COLLOQUY_NETMSG_H

#include "cplatformdefs.h"
#include "packmsg.h"
#include "rwcollect.h"

// The kind of a message: a number the host processes define; passed through unchanged.
enum QType : int {};

// A received typed stream message: type, subtype and the body bytes it owns (array new).
class COLLOQUY_EXPORT cTypedMessageObject : public RWCollectable {
  public:
    short type;
    short subType;
    char* data;           // owned; released with the array delete when non-null
    unsigned int length;  // bytes at data

    // Takes over `data`, which must come from the array new.
    cTypedMessageObject(short type, short subType, char* data, unsigned int length);
    cTypedMessageObject(cTypedMessageObject const&) = delete;
    cTypedMessageObject& operator=(cTypedMessageObject const&) = delete;
    ~cTypedMessageObject() override;
};

class COLLOQUY_EXPORT cColloquyMessage {
  public:
    unsigned int userValue = 0;
    unsigned int formatStamp = 0;  // 352 in every message built here
    char const* toHost = nullptr;
    char const* toName = nullptr;
    char const* fromHost = nullptr;
    char const* fromName = nullptr;
    QType qType = QType(0);
    short messageType = 0;
    short messageSubType = 0;
    char const* body = nullptr;
    unsigned int bodyLen = 0;
    char* packedBuffer = nullptr;  // owned, or null
    unsigned int packedLen = 0;

    // An empty message holding no buffer.
    cColloquyMessage();

    // Stores the arguments, sets formatStamp to 352 and packs at once: the caller's strings
    // and body are copied and not referred to afterwards. The four texts must not be null;
    // `body` may be null only with a length of 0, and a null body ends the packed field list
    // there (five fields, which a message made from bytes treats as malformed).
    cColloquyMessage(unsigned int userValue, char const* toHost, char const* toName, char const* fromHost,
                     char const* fromName, QType qType, short messageType, short messageSubType, char const* body,
                     unsigned int bodyLen);

    // Copies `len` bytes of a packed buffer and maps the members onto the copy (unPackMe).
    cColloquyMessage(char const* packed, unsigned int len, short messageType, short messageSubType);

    // Takes over the typed message's buffer, deletes the typed message and maps the members.
    // A null `tmo` gives an empty, malformed message.
    explicit cColloquyMessage(cTypedMessageObject* tmo);

    cColloquyMessage(cColloquyMessage const&) = delete;
    cColloquyMessage& operator=(cColloquyMessage const&) = delete;

    virtual ~cColloquyMessage();
    virtual char const* nameOf() const;  // "ColloquyMessage"

    // Packs the members into a new buffer, unless one is already held.
    void packMe();

    // Re-addresses the message and packs it again; the sender, body and numbers are kept and
    // the old buffer is released only after the new one is packed (the arguments may point
    // into it).
    void rePackMe(char const* toHost, char const* toName);

    // Copies `len` bytes from `packed` into a new buffer and maps the members onto it. A buffer
    // held before is not released here. The caller keeps `packed`.
    void unPackMe(char const* packed, unsigned int len);

    // Points the members at the fields of `pack` (a well-formed eight-field or other buffer).
    void mapFields(c_Pack& pack);

    // Reads packedBuffer (bounded by packedLen) and maps the members onto it.
    void reMapFields();

    // "<nameOf>: , Message len:<bodyLen>, type (<type>,<subtype>), QType=<qType> from
    // <fromName>@<fromHost> to <toName>@<toHost>\n" in one 4096-byte buffer shared by every
    // message and thread, valid until the next call; longer text is cut to fit. A null text
    // prints as "(null)". Not the caller's to free.
    char* printOnString();
};

#endif
