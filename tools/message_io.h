// Messages on the tool's streams: packing a body into an envelope from the command line, and
// describing a received body (envelope, pairs or raw bytes) as text or JSON.
#ifndef COLLOQUY_TOOLS_MESSAGE_IO_H
#define COLLOQUY_TOOLS_MESSAGE_IO_H

#include "cli.h"
#include "record_io.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

class StreamSocket;

namespace colloquy {

// The envelope fields of a packed message.
struct Envelope {
    std::string toName, toHost, fromName, fromHost, body;
    long qType = 0;
    unsigned userValue = 0, formatStamp = 0;
};

// The options --to, --from, --qtype and --user-value, as pack and send take them.
extern std::vector<std::string> const kEnvelopeOptions;
// True when `args` asks for an envelope (--to or --from given; then both are required).
bool wantsEnvelope(Args const& args);
// Packs `body` into a message addressed as `args` says; returns the packed bytes.
std::string packEnvelope(Args const& args, std::string const& body);
// The envelope of a well-formed packed message of eight fields, or nothing.
std::optional<Envelope> readEnvelope(std::string_view packed);

// What a message body holds, in text lines (each starting with `indent`) or as JSON members.
std::string describeBody(std::string_view body, std::string const& indent);
std::string describeBodyJson(std::string_view body);

// The length, type and subtype of the 8 header bytes of a framed message, as msghdr.h reads them.
struct HeaderFields {
    int32_t length;
    short type, subType;
};
HeaderFields headerFields(std::string_view header);

// A framed message as listen and tap print it, from its 8 header bytes and its body (none:
// the body was not kept). Text: "TITLE: N bytes, type T, subtype S", the header in hex and
// what the body holds, indented. JSON: one object of `members`, then the message's, and a
// line feed.
std::string messageText(std::string const& title, std::string_view header, std::optional<std::string_view> body);
std::string messageJson(std::string const& members, std::string_view header, std::optional<std::string_view> body);

// The most messages that send --batch and bench --batch put into one batch.
constexpr long long kMaxBatch = 1 << 20;
// Sends `count` copies of `body` in batches of `batchSize` messages (the last one shorter),
// telling `progress` the number sent after each batch; returns how many were written whole:
// `count`, or fewer when the connection failed.
long long sendBatched(StreamSocket& socket, long long count, long long batchSize, short type, short subType,
                      std::string const& body, std::function<void(long long)> const& progress = {});

}  // namespace colloquy

#endif
