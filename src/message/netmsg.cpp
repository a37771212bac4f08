// The message envelope and the typed message it can be made from (see netmsg.h).
#include "netmsg.h"

#include "log_records.h"
#include "message/packread.h"

#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

char const kModule[] = "netmsg";
char const kEmpty[] = "";
constexpr unsigned int kStamp = 352;
constexpr unsigned int kAllBits = ~0u;
constexpr int kMessageFields = 8;
constexpr int kMappedFields = 6;  // fields 0 to 5 are read whatever the count
constexpr std::size_t kPrintSize = 4096;
constexpr std::size_t kNumberText = 12;  // "%d" of an int and its zero byte

enum Field { kToHost, kToName, kFromHost, kFromName, kQType, kBody, kUserValue, kStampField };

// "%d" of `value` taken as a signed int, zero-terminated; returns the text length.
int formatNumber(char (&out)[kNumberText], int value) {
    char* end = std::to_chars(out, out + kNumberText - 1, value).ptr;
    *end = '\0';
    return static_cast<int>(end - out);
}

unsigned int readNumber(char const* text) { return static_cast<unsigned int>(std::strtol(text, nullptr, 10)); }

// A text or number field can be read in place only when it ends inside the buffer.
bool isTerminated(c_Pack const& pack, int i) {
    return std::memchr(pack.theFields[i], '\0', static_cast<std::size_t>(pack.theLengths[i])) != nullptr;
}

bool fitsMessage(c_Pack const& pack) {
    if (pack.theCount < kMappedFields) return false;
    for (int i : {kToHost, kToName, kFromHost, kFromName, kQType})
        if (!isTerminated(pack, i)) return false;
    return pack.theCount != kMessageFields || (isTerminated(pack, kUserValue) && isTerminated(pack, kStampField));
}

char const* orNull(char const* text) { return text != nullptr ? text : "(null)"; }

}  // namespace

cTypedMessageObject::cTypedMessageObject(short type_, short subType_, char* data_, unsigned int length_)
    : type(type_), subType(subType_), data(data_), length(length_) {}

cTypedMessageObject::~cTypedMessageObject() { delete[] data; }

cColloquyMessage::cColloquyMessage() = default;

cColloquyMessage::cColloquyMessage(unsigned int userValue_, char const* toHost_, char const* toName_,
                                   char const* fromHost_, char const* fromName_, QType qType_, short messageType_,
                                   short messageSubType_, char const* body_, unsigned int bodyLen_)
    : userValue(userValue_),
      formatStamp(kStamp),
      toHost(toHost_),
      toName(toName_),
      fromHost(fromHost_),
      fromName(fromName_),
      qType(qType_),
      messageType(messageType_),
      messageSubType(messageSubType_),
      body(body_),
      bodyLen(bodyLen_) {
    if (body == nullptr) nLogRecords::logError(kModule, __LINE__);
    if (bodyLen == 0) nLogRecords::logError(kModule, __LINE__);
    packMe();
}

cColloquyMessage::cColloquyMessage(char const* packed, unsigned int len, short messageType_, short messageSubType_)
    : messageType(messageType_), messageSubType(messageSubType_) {
    unPackMe(packed, len);
}

cColloquyMessage::cColloquyMessage(cTypedMessageObject* tmo) {
    if (tmo != nullptr) {
        messageType = tmo->type;
        messageSubType = tmo->subType;
        packedBuffer = tmo->data;
        packedLen = tmo->length;
        tmo->data = nullptr;  // the buffer is ours now
        delete tmo;
    }
    reMapFields();
    if (bodyLen == 0) nLogRecords::logError(kModule, __LINE__);
}

cColloquyMessage::~cColloquyMessage() { delete[] packedBuffer; }

char const* cColloquyMessage::nameOf() const { return "ColloquyMessage"; }

void cColloquyMessage::packMe() {
    if (packedBuffer != nullptr) return;
    if (bodyLen == 0) nLogRecords::logError(kModule, __LINE__);
    char qTypeText[kNumberText], userValueText[kNumberText], stampText[kNumberText];
    int const qTypeLength = formatNumber(qTypeText, qType);
    int const userValueLength = formatNumber(userValueText, static_cast<int>(userValue));
    int const stampLength = formatNumber(stampText, static_cast<int>(formatStamp));
    auto const textLength = [](char const* text) { return static_cast<int>(std::strlen(text) + 1); };
    c_Pack pack(toHost, textLength(toHost), toName, textLength(toName), fromHost, textLength(fromHost), fromName,
                textLength(fromName), qTypeText, qTypeLength + 1, body, static_cast<int>(bodyLen), userValueText,
                userValueLength + 1, stampText, stampLength + 1, static_cast<char const*>(nullptr));
    packedBuffer = pack.theBuffer;
    packedLen = static_cast<unsigned int>(pack.thePackedMsgLen());
    mapFields(pack);
}

void cColloquyMessage::rePackMe(char const* toHost_, char const* toName_) {
    toHost = toHost_;
    char* const previous = packedBuffer;
    packedBuffer = nullptr;
    toName = toName_;
    packMe();  // packs from the sender and body views, which still point into `previous`
    delete[] previous;
}

void cColloquyMessage::unPackMe(char const* packed, unsigned int len) {
    if (packed == nullptr) {
        nLogRecords::logError(kModule, __LINE__);
        len = 0;  // nothing to copy: mapped as an empty, malformed buffer
    }
    packedLen = len;
    packedBuffer = new char[len];
    if (len > 0) std::memcpy(packedBuffer, packed, len);
    reMapFields();
}

void cColloquyMessage::mapFields(c_Pack& pack) {
    toHost = pack.field(kToHost);
    toName = pack.field(kToName);
    fromHost = pack.field(kFromHost);
    fromName = pack.field(kFromName);
    qType = static_cast<QType>(readNumber(pack.field(kQType)));
    body = pack.field(kBody);
    bodyLen = static_cast<unsigned int>(pack.theLengths[kBody]);
    if (pack.theCount == kMessageFields) {
        userValue = readNumber(pack.field(kUserValue));
        formatStamp = readNumber(pack.field(kStampField));
    } else {
        userValue = kAllBits;
        formatStamp = kAllBits;
    }
}

void cColloquyMessage::reMapFields() {
    std::optional<c_Pack> pack = nPack::readBounded(packedBuffer, packedLen);
    if (pack && fitsMessage(*pack)) {
        mapFields(*pack);
        return;
    }
    COLLOQUY_LOG(nLog::nBasic::sErrorTag_, kModule, "malformed packed message", packedLen);
    toHost = toName = fromHost = fromName = kEmpty;
    qType = static_cast<QType>(-1);
    body = kEmpty;  // not null: a null field pointer would end the field list when packed again
    bodyLen = 0;
    userValue = kAllBits;
    formatStamp = kAllBits;
}

char* cColloquyMessage::printOnString() {
    static char* const buffer = new char[kPrintSize];  // shared for the life of the process
    std::snprintf(buffer, kPrintSize, "%s: , Message len:%d, type (%d,%d), QType=%d from %s@%s to %s@%s\n",
                  orNull(nameOf()), static_cast<int>(bodyLen), messageType, messageSubType, static_cast<int>(qType),
                  orNull(fromName), orNull(fromHost), orNull(toName), orNull(toHost));
    return buffer;
}
