// Member orders of the public classes as host code compiled against the headers sees them:
// offsets strictly increasing in the documented order, exact where the class is a plain record.
#include "associativearray.h"
#include "clntsrv.h"
#include "filesassociationarchive.h"
#include "netmsg.h"
#include "packmsg.h"
#include "processgroupmanager.h"
#include "zepnames.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <type_traits>
#include <vector>

namespace {

// Pointers to protected and private members, taken through an explicit instantiation (where
// access is not checked) so the test reads the real layout without widening the headers.
template <class Class, class Type>
using MemberOf = Type Class::*;

template <class Tag, typename Tag::type Pointer>
struct Expose {
    friend constexpr typename Tag::type gMember(Tag) { return Pointer; }
};

#define COMPAT_MEMBER(Class, Type, name)               \
    struct Class##_##name {                            \
        using type = MemberOf<Class, Type>;            \
        friend constexpr type gMember(Class##_##name); \
    };                                                 \
    template struct Expose<Class##_##name, &Class::name>

COMPAT_MEMBER(CAssociativeArray, RWCString, mLastText);
COMPAT_MEMBER(RWCollectableInt, int, mValue);
COMPAT_MEMBER(ValidateObject, int, validFlag);
COMPAT_MEMBER(ClientObj, ClientHandler[ClientObj::kMaxHandlerIndex + 1], handlerTable);
COMPAT_MEMBER(ClientObj, int, highestIndex);
COMPAT_MEMBER(ClientObj, int, handlerCount);
COMPAT_MEMBER(ServerObj, std::unique_ptr<RWHashTable>, eventTable);
COMPAT_MEMBER(FilesAssociationArchive, std::string, mDefualtDestinationDirectory);
COMPAT_MEMBER(FilesAssociationArchive, std::unique_ptr<RWHashDictionaryIterator>, mIterator);

// Byte offset of a member (possibly of a base class) inside the complete object `object`.
template <class Object, class Base, class Type>
std::ptrdiff_t offsetIn(Object const& object, Type Base::*member) {
    Base const& base = object;
    return reinterpret_cast<char const*>(&(base.*member)) - reinterpret_cast<char const*>(&object);
}

struct Member {
    char const* name;
    std::ptrdiff_t offset;
};

// Each member lies after the previous one (and after `after`, the end of the base part).
void expectInOrder(char const* what, std::size_t after, std::vector<Member> const& members) {
    std::ptrdiff_t previous = std::ptrdiff_t(after) - 1;
    char const* previousName = "the base part";
    for (Member const& member : members) {
        EXPECT_GT(member.offset, previous) << what << ": " << member.name << " does not follow " << previousName;
        previous = member.offset;
        previousName = member.name;
    }
}

// A member's offset in the class and in its mirror, a struct that lays out the documented
// members in the documented order: the same size and offsets mean no member moved, changed
// type or was added. Plain records are measured with offsetof, others through an object.
struct Mirrored {
    char const* name;
    std::ptrdiff_t offset;
    std::size_t mirrorOffset;
};

#define COMPAT_MIRRORED(object, Mirror, name) \
    Mirrored { #name, offsetIn(object, &std::remove_const_t <decltype(object)>::name), offsetof(Mirror, name) }
#define COMPAT_PLAIN(Class, Mirror, name) \
    Mirrored { #name, std::ptrdiff_t(offsetof(Class, name)), offsetof(Mirror, name) }

void expectMirrored(char const* what, std::size_t size, std::size_t mirrorSize, std::vector<Mirrored> const& members) {
    EXPECT_EQ(size, mirrorSize) << what;
    for (Mirrored const& member : members)
        EXPECT_EQ(member.offset, std::ptrdiff_t(member.mirrorOffset)) << what << "::" << member.name;
}

struct PackMirror {
    char* theBuffer;
    char const* theFields[11];
    int theLengths[10];
    int theCount;
    int thePackedLength;
};

// Polymorphic classes with no data in their bases: the virtual table pointer, then the members.
struct MessageMirror {
    void* vptr;
    unsigned int userValue;
    unsigned int formatStamp;
    char const* toHost;
    char const* toName;
    char const* fromHost;
    char const* fromName;
    int qType;
    short messageType;
    short messageSubType;
    char const* body;
    unsigned int bodyLen;
    char* packedBuffer;
    unsigned int packedLen;
};

struct TypedMessageMirror {
    void* vptr;
    short type;
    short subType;
    char* data;
    unsigned int length;
};

TEST(Layout, MessageRecordsMatchTheirDocumentedMirrors) {
    static_assert(std::is_standard_layout_v<c_Pack>);
    expectMirrored("c_Pack", sizeof(c_Pack), sizeof(PackMirror),
                   {COMPAT_PLAIN(c_Pack, PackMirror, theBuffer), COMPAT_PLAIN(c_Pack, PackMirror, theFields),
                    COMPAT_PLAIN(c_Pack, PackMirror, theLengths), COMPAT_PLAIN(c_Pack, PackMirror, theCount),
                    COMPAT_PLAIN(c_Pack, PackMirror, thePackedLength)});

    cColloquyMessage const message;
    EXPECT_EQ(sizeof(QType), sizeof(int));
    expectMirrored(
        "cColloquyMessage", sizeof(cColloquyMessage), sizeof(MessageMirror),
        {COMPAT_MIRRORED(message, MessageMirror, userValue), COMPAT_MIRRORED(message, MessageMirror, formatStamp),
         COMPAT_MIRRORED(message, MessageMirror, toHost), COMPAT_MIRRORED(message, MessageMirror, toName),
         COMPAT_MIRRORED(message, MessageMirror, fromHost), COMPAT_MIRRORED(message, MessageMirror, fromName),
         COMPAT_MIRRORED(message, MessageMirror, qType), COMPAT_MIRRORED(message, MessageMirror, messageType),
         COMPAT_MIRRORED(message, MessageMirror, messageSubType), COMPAT_MIRRORED(message, MessageMirror, body),
         COMPAT_MIRRORED(message, MessageMirror, bodyLen), COMPAT_MIRRORED(message, MessageMirror, packedBuffer),
         COMPAT_MIRRORED(message, MessageMirror, packedLen)});

    // RWCollectable carries nothing but its virtual table pointer, so the typed message is exact too.
    cTypedMessageObject const typed(1, 2, nullptr, 0);
    expectMirrored(
        "cTypedMessageObject", sizeof(cTypedMessageObject), sizeof(TypedMessageMirror),
        {COMPAT_MIRRORED(typed, TypedMessageMirror, type), COMPAT_MIRRORED(typed, TypedMessageMirror, subType),
         COMPAT_MIRRORED(typed, TypedMessageMirror, data), COMPAT_MIRRORED(typed, TypedMessageMirror, length)});
}

TEST(Layout, EventRegistryMembersFollowTheDocumentedOrder) {
    ServerObj const server(4);
    // The serial number (the collectable integer), the validity flag of the mixin, the handler
    // table and its counters, then the server's event table.
    expectInOrder("ServerObj", 0,
                  {{"serialNumber", offsetIn(server, gMember(RWCollectableInt_mValue{}))},
                   {"validFlag", offsetIn(server, gMember(ValidateObject_validFlag{}))},
                   {"handlerTable", offsetIn(server, gMember(ClientObj_handlerTable{}))},
                   {"highestIndex", offsetIn(server, gMember(ClientObj_highestIndex{}))},
                   {"handlerCount", offsetIn(server, gMember(ClientObj_handlerCount{}))},
                   {"eventTable", offsetIn(server, gMember(ServerObj_eventTable{}))}});
    // The table holds a handler for every index signOn can issue.
    EXPECT_GE(offsetIn(server, gMember(ClientObj_highestIndex{})) - offsetIn(server, gMember(ClientObj_handlerTable{})),
              std::ptrdiff_t(256 * sizeof(ClientHandler)));

    BaseEvent const event(7, nullptr, 3);
    expectInOrder("BaseEvent", 0,
                  {{"value", offsetIn(event, gMember(RWCollectableInt_mValue{}))},
                   {"eventClient", offsetIn(event, &BaseEvent::eventClient)},
                   {"handlerIndex", offsetIn(event, &BaseEvent::handlerIndex)}});

    // The mixin on its own: virtual table pointer, then the flag.
    struct ValidateMirror {
        void* vptr;
        int validFlag;
    };
    ValidateObject const validate;
    expectMirrored(
        "ValidateObject", sizeof(ValidateObject), sizeof(ValidateMirror),
        {{"validFlag", offsetIn(validate, gMember(ValidateObject_validFlag{})), offsetof(ValidateMirror, validFlag)}});
}

TEST(Layout, RecordArchiveAddressAndProcessGroupMembersFollowTheirBases) {
    CAssociativeArray const record(8);
    expectInOrder("CAssociativeArray", sizeof(RWHashDictionary),
                  {{"mLastText", offsetIn(record, gMember(CAssociativeArray_mLastText{}))}});
    EXPECT_EQ(sizeof(CAssociativeArray), sizeof(RWHashDictionary) + sizeof(RWCString));

    FilesAssociationArchive const archive;
    expectInOrder("FilesAssociationArchive", sizeof(CAssociativeArray),
                  {{"mDefualtDestinationDirectory",
                    offsetIn(archive, gMember(FilesAssociationArchive_mDefualtDestinationDirectory{}))},
                   {"iterator", offsetIn(archive, gMember(FilesAssociationArchive_mIterator{}))}});
    // The iterator member is one pointer wide.
    EXPECT_EQ(sizeof(FilesAssociationArchive), sizeof(CAssociativeArray) + sizeof(std::string) + sizeof(void*));

    CColloquyAddress const address("name@host");
    expectInOrder("CColloquyAddress", sizeof(void*),
                  {{"namePart", offsetIn(address, &CColloquyAddress::namePart)},
                   {"hostPart", offsetIn(address, &CColloquyAddress::hostPart)},
                   {"fullAddress", offsetIn(address, &CColloquyAddress::fullAddress)}});
    EXPECT_EQ(sizeof(CColloquyAddress), sizeof(void*) + 3 * sizeof(std::string));

    ProcessGroup const group;
    expectInOrder("ProcessGroup", sizeof(RWOrdered), {{"mGroupFlag", offsetIn(group, &ProcessGroup::mGroupFlag)}});
    EXPECT_EQ(sizeof(ProcessInfo::pid), 4u);
}

}  // namespace
