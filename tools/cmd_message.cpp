// pack and unpack: the message envelope from and to a shell.
#include "commands.h"
#include "message_io.h"
#include "msghdr.h"
#include "netmsg.h"

#include <cstring>
#include <memory>

namespace colloquy {

std::vector<std::string> const kEnvelopeOptions = {"--to", "--from", "--qtype", "--user-value"};

bool wantsEnvelope(Args const& args) {
    bool const to = args.option("--to").has_value(), from = args.option("--from").has_value();
    if (to != from) throw UsageError("--to and --from go together");
    return to;
}

std::string packEnvelope(Args const& args, std::string const& body) {
    auto const [toName, toHost] = splitAddress(*args.option("--to"), "--to");
    auto const [fromName, fromHost] = splitAddress(*args.option("--from"), "--from");
    auto const qType = static_cast<int>(args.number("--qtype", 0, INT32_MIN, INT32_MAX));
    auto const userValue = static_cast<unsigned>(args.number("--user-value", 0, 0, UINT32_MAX));
    if (body.size() > kMaxLength) throw Failure("body too large");
    cColloquyMessage message(userValue, toHost.c_str(), toName.c_str(), fromHost.c_str(), fromName.c_str(),
                             static_cast<QType>(qType), 0, 0, body.data(), static_cast<unsigned>(body.size()));
    return std::string(message.packedBuffer, message.packedLen);
}

std::optional<Envelope> readEnvelope(std::string_view packed) {
    if (packed.empty() || packed.size() > kMaxLength) return std::nullopt;
    cColloquyMessage const message(packed.data(), static_cast<unsigned>(packed.size()), 0, 0);
    // A message of eight well-formed fields packs again into exactly the bytes it came from; a
    // malformed buffer (mapped to empty fields) or one of another field count does not.
    cColloquyMessage const again(message.userValue, message.toHost, message.toName, message.fromHost, message.fromName,
                                 message.qType, 0, 0, message.body, message.bodyLen);
    if (std::string_view(again.packedBuffer, again.packedLen) != packed) return std::nullopt;
    Envelope e;
    e.toName = message.toName;
    e.toHost = message.toHost;
    e.fromName = message.fromName;
    e.fromHost = message.fromHost;
    e.body.assign(message.body, message.bodyLen);
    e.qType = message.qType;
    e.userValue = message.userValue;
    e.formatStamp = message.formatStamp;
    return e;
}

namespace {

std::string envelopeLine(Envelope const& e) {
    return "from " + escapeBytes(e.fromName) + "@" + escapeBytes(e.fromHost) + " to " + escapeBytes(e.toName) + "@" +
           escapeBytes(e.toHost) + ", qtype " + std::to_string(e.qType) + ", user value " +
           std::to_string(e.userValue) + ", format " + std::to_string(e.formatStamp) + ", body " +
           std::to_string(e.body.size()) + " bytes";
}

std::string envelopeJson(Envelope const& e) {
    return "{\"to\":" + jsonString(e.toName + "@" + e.toHost) +
           ",\"from\":" + jsonString(e.fromName + "@" + e.fromHost) + ",\"qType\":" + std::to_string(e.qType) +
           ",\"userValue\":" + std::to_string(e.userValue) + ",\"formatStamp\":" + std::to_string(e.formatStamp) +
           ",\"bodyLength\":" + std::to_string(e.body.size()) + "}";
}

constexpr size_t kRawShown = 256;  // raw bodies are shown up to this many bytes

std::string rawLine(std::string_view body) {
    std::string shown = escapeBytes(body.substr(0, kRawShown));
    if (body.size() > kRawShown) shown += "...";
    return shown;
}

}  // namespace

std::string describeBody(std::string_view body, std::string const& indent) {
    std::string out;
    std::string_view content = body;
    std::optional<Envelope> envelope = readEnvelope(body);
    if (envelope) {
        out += indent + "envelope: " + envelopeLine(*envelope) + "\n";
        content = envelope->body;
    }
    Pairs pairs;
    if (!content.empty() && tryDecodeTextForm(content, pairs)) {
        out += indent + "pairs: " + std::to_string(pairs.size()) + "\n" + pairLines(pairs, indent + "  ");
    } else if (!content.empty()) {
        out += indent + "body: " + rawLine(content) + "\n";
    }
    return out;
}

std::string describeBodyJson(std::string_view body) {
    std::string out;
    std::string_view content = body;
    std::optional<Envelope> envelope = readEnvelope(body);
    if (envelope) {
        out += ",\"envelope\":" + envelopeJson(*envelope);
        content = envelope->body;
    }
    Pairs pairs;
    if (!content.empty() && tryDecodeTextForm(content, pairs))
        out += ",\"pairs\":" + pairsJson(pairs);
    else
        out += ",\"body\":" + jsonString(content);
    return out;
}

HeaderFields headerFields(std::string_view header) {
    c_MessageHeader fields;
    std::memcpy(&fields, header.data(), sizeof fields);
    return {gBodyLengthOf(fields), gMessageTypeOf(fields), gMessageSubTypeOf(fields)};
}

std::string messageText(std::string const& title, std::string_view header, std::optional<std::string_view> body) {
    HeaderFields const h = headerFields(header);
    return title + ": " + std::to_string(h.length) + " bytes, type " + std::to_string(h.type) + ", subtype " +
           std::to_string(h.subType) + "\n  header: " + hexBytes(header.data(), header.size()) + "\n" +
           (body ? describeBody(*body, "  ") : "  body: not shown (over --max-size)\n");
}

std::string messageJson(std::string const& members, std::string_view header, std::optional<std::string_view> body) {
    HeaderFields const h = headerFields(header);
    return "{" + members + ",\"length\":" + std::to_string(h.length) + ",\"type\":" + std::to_string(h.type) +
           ",\"subType\":" + std::to_string(h.subType) +
           ",\"header\":" + jsonString(hexBytes(header.data(), header.size())) +
           (body ? describeBodyJson(*body) : ",\"bodyShown\":false") + "}\n";
}

int cmdPack(Words const& words) {
    Args const args(words, kEnvelopeOptions, {});
    if (!args.positional().empty()) throw UsageError("pack reads the body on standard input and takes no arguments");
    if (!wantsEnvelope(args)) throw UsageError("pack needs --to NAME@HOST and --from NAME@HOST");
    writeAll(stdout, packEnvelope(args, readAll(stdin)));
    return 0;
}

int cmdUnpack(Words const& words) {
    Args const args(words, {}, {"--json"});
    if (!args.positional().empty()) throw UsageError("unpack reads standard input and takes no arguments");
    std::string const packed = readAll(stdin);
    std::optional<Envelope> const envelope = readEnvelope(packed);
    if (!envelope)
        throw Failure("input is not a packed message of eight fields (" + std::to_string(packed.size()) + " bytes)");
    if (args.flag("--json")) {
        writeAll(stdout, "{\"packedLength\":" + std::to_string(packed.size()) + describeBodyJson(packed) + "}\n");
    } else {
        writeAll(stdout, "to: " + escapeBytes(envelope->toName) + "@" + escapeBytes(envelope->toHost) +
                             "\nfrom: " + escapeBytes(envelope->fromName) + "@" + escapeBytes(envelope->fromHost) +
                             "\nqtype: " + std::to_string(envelope->qType) +
                             "\nuser value: " + std::to_string(envelope->userValue) +
                             "\nformat: " + std::to_string(envelope->formatStamp) +
                             "\nbody: " + std::to_string(envelope->body.size()) + " bytes\n");
        Pairs pairs;
        if (!envelope->body.empty() && tryDecodeTextForm(envelope->body, pairs))
            writeAll(stdout, "pairs: " + std::to_string(pairs.size()) + "\n" + pairLines(pairs, "  "));
    }
    return 0;
}

}  // namespace colloquy
