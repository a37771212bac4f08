// The Wireshark dissector (tools/wireshark/colloquy.lua) run by tshark on captures this test
// writes itself: Ethernet, IPv4 and TCP frames around exact message bytes, so no capture
// privileges are needed and every byte is known.
#include "files.h"
#include "netmsg.h"

namespace {

constexpr uint16_t kDefaultPort = 7870;  // the dissector's default port preference

void put(std::string& out, uint64_t value, int bytes, bool big = true) {
    for (int i = 0; i < bytes; ++i) out.push_back(static_cast<char>(value >> (8 * (big ? bytes - 1 - i : i))));
}

// A classic pcap file of Ethernet frames, each carrying one TCP segment from 10.0.0.1 to 10.0.0.2.
// The sequence numbers run on over all segments, so those of one stream follow each other; the
// checksums stay 0, which tshark does not check by default.
struct Capture {
    std::string file = "\xd4\xc3\xb2\xa1\x02\0\x04\0\0\0\0\0\0\0\0\0\xff\xff\0\0\x01\0\0\0"s;  // 2.4, Ethernet
    uint32_t seq = 1000;
    void segment(uint16_t from, uint16_t to, std::string const& payload) {
        std::string frame = "\x02\0\0\0\0\x02\x02\0\0\0\0\x01\x08\0\x45\0"s;  // Ethernet, IPv4
        put(frame, 40 + payload.size(), 2);
        put(frame, 0x400040060000, 8);  // no fragments, TTL 64, TCP, checksum 0
        put(frame, 0x0a0000010a000002, 8);
        put(frame, (uint64_t{from} << 16) | to, 4);
        put(frame, (uint64_t{seq} << 32) | 1, 8);  // sequence and acknowledgement numbers
        put(frame, 0x5018ffff00000000, 8);         // 20-byte header, PSH and ACK, window
        put(file, 1700000000, 8, false);
        put(file, (frame.size() + payload.size()) * 0x100000001, 8, false);  // captured and original length
        file += frame + payload;
        seq += static_cast<uint32_t>(payload.size());
    }
};

// One message on the stream: the 8-byte header (big-endian length, type, subtype), then the body.
std::string header(int32_t length, short type, short subType) {
    std::string out;
    put(out,
        (uint64_t{static_cast<uint32_t>(length)} << 32) | (uint32_t{static_cast<uint16_t>(type)} << 16) |
            static_cast<uint16_t>(subType),
        8);
    return out;
}
std::string message(short type, short subType, std::string const& body) {
    return header(static_cast<int32_t>(body.size()), type, subType) + body;
}

// A packed envelope as the library packs it.
std::string envelope(std::string const& body, unsigned userValue) {
    cColloquyMessage const m(userValue, "hostB", "svc", "hostA", "agent", static_cast<QType>(-3), 0, 0, body.data(),
                             static_cast<unsigned>(body.size()));
    return std::string(m.packedBuffer, m.packedLen);
}

// A text form holding one pair.
std::string record(std::string const& key, std::string const& value) {
    return "1 '" + std::to_string(key.size()) + " " + key + " '" + std::to_string(value.size()) + " " + value + " ";
}

// Each frame as tshark decodes it with the dissector and `options`: "field=value ..." for the
// fields that have values (several joined by '|'), a field named by the last part of its name.
std::vector<std::string> dissect(Capture const& capture, std::string const& options) {
    ScratchScope const scratch("colloquy_dissector");
    std::string const pcap = scratch.path + "/capture.pcap";
    gWriteFile(pcap, capture.file);
    std::vector<std::string> fields;
    std::string command = "tshark -n -r " + pcap + " -X lua_script:" COLLOQUY_DISSECTOR_PATH " " + options +
                          " -T fields -E occurrence=a -E aggregator='|'";
    for (std::string const field : {"length", "type", "subtype", "envelope.to_name", "envelope.to_host",
                                    "envelope.from_name", "envelope.from_host", "envelope.qtype", "envelope.user_value",
                                    "envelope.format_stamp", "record.count", "key", "value", "record.depth", "raw"})
        command += " -e colloquy." + field, fields.push_back(field.substr(field.find('.') + 1));
    fields.push_back("expert");
    std::vector<std::string> frames;
    FILE* const pipe = popen((command + " -e _ws.expert.message 2>&1").c_str(), "r");
    char buffer[8192];
    while (pipe && std::fgets(buffer, sizeof buffer, pipe)) {
        std::string const line(buffer, std::strcspn(buffer, "\n"));
        if (line.rfind("Running as user \"root\"", 0) == 0) continue;  // tshark's warning; any other shows
        std::string frame;
        for (size_t i = 0, at = 0, end = 0; end != std::string::npos; ++i, at = end + 1) {
            std::string const value = line.substr(at, (end = line.find('\t', at)) - at);
            if (!value.empty()) frame += (frame.empty() ? "" : " ") + fields.at(i) + "=" + value;
        }
        frames.push_back(frame);
    }
    EXPECT_EQ(pipe ? pclose(pipe) : -1, 0) << command;
    return frames;
}

TEST(Dissector, DecodesFramingEnvelopesRecordsAndMarksMalformedStreams) {
    ASSERT_EQ(std::system("command -v tshark >/dev/null 2>&1"), 0)
        << "tshark is missing: scripts/bootstrap installs it";
    std::string const kv = record("k", "v"), split = message(7, 9, record("ab", "xyz")), nested = record("n", "m");
    std::string const body =
        "3 '3 bin '4 a\0b\xff '4 city '7 Z\xc3\xbcrich '4 nest '"s + std::to_string(nested.size()) + " " + nested + " ";
    std::string const wrapped = envelope(body, 0xffffffff), packed = envelope(kv, 7);  // the first packs "-1"
    std::string const inner = record("c", record("d", "e")), middle = record("b", inner), deep = record("a", middle);
    std::string const envelopeFields =
        " to_name=svc to_host=hostB from_name=agent from_host=hostA qtype=-3 user_value=";
    struct Segment {
        uint16_t from, to;
        std::string payload, decoded;  // the frame as dissect() shows it
    } const segments[] = {
        // one message split over three segments
        {40001, kDefaultPort, split.substr(0, 5), ""},
        {40001, kDefaultPort, split.substr(5, 7), ""},
        {40001, kDefaultPort, split.substr(12), "length=15 type=7 subtype=9 count=1 key=ab value=xyz"},
        // two messages in one segment, the second without a body, from the server's side
        {kDefaultPort, 40001, message(1, -2, kv) + message(3, 4, ""),
         "length=12|0 type=1|3 subtype=-2|4 count=1 key=k value=v"},
        // an envelope around a record with a binary value, UTF-8 text and a nested record
        {40002, kDefaultPort, message(5, 6, wrapped),
         "length=" + std::to_string(wrapped.size()) + " type=5 subtype=6" + envelopeFields +
             "4294967295 format_stamp=352 count=3|1 key=bin|city|nest|n value=a\\x00b\\xff|Z\xc3\xbcrich|" + nested +
             "|m depth=1"},
        // a header announcing a negative length, then more bytes of the same direction
        {40003, kDefaultPort, header(-5, 1, 1) + "junk",
         "length=-5 type=1 subtype=1 raw=6a756e6b expert=a body of -5 bytes (0 to 67108864 allowed): the stream "
         "cannot be framed from here on"},
        {40003, kDefaultPort, message(1, 1, kv),
         "raw=0000000c0001000131202731206b202731207620 expert=this direction could not be framed since frame 6"},
        // an envelope cut inside its last field (the header agrees with the bytes sent): raw "35" is
        // the start of the format stamp "352"
        {40004, kDefaultPort, message(2, 2, packed.substr(0, packed.size() - 2)),
         "length=" + std::to_string(packed.size() - 2) + " type=2 subtype=2" + envelopeFields +
             "7 count=1 key=k value=v raw=3335 expert=malformed envelope: field 7 announces 4 bytes, 2 left"},
        // an envelope whose fields end inside the first one
        {40005, kDefaultPort, message(2, 2, "8 6 4 6 6 2 2 2 4 hostB"),
         "length=23 type=2 subtype=2 raw=686f737442 expert=malformed envelope: field 0 announces 6 bytes, 5 left"},
        // a text form whose value length runs past the end
        {40006, kDefaultPort, message(2, 2, "2 '1 a '9 b "),
         "length=12 type=2 subtype=2 raw=322027312061202739206220 expert=bad record text form at byte 7: pair 1: "
         "the value length 9 runs past the end (2 bytes left)"},
        // records nested four deep, shown as records down to the depth preference (2) only
        {40007, kDefaultPort, message(2, 2, deep),
         "length=" + std::to_string(deep.size()) + " type=2 subtype=2 count=1|1|1 key=a|b|c value=" + middle + "|" +
             inner + "|" + record("d", "e") +
             " depth=1|2 expert=records nested deeper than 2 levels are shown as values"},
        // another port, decoded as asked ("Decode As"); then a port nobody asked for
        {40008, 9999, message(4, 4, kv), "length=12 type=4 subtype=4 count=1 key=k value=v"},
        {40009, 9998, message(4, 4, kv), ""},
    };
    Capture capture;
    std::vector<std::string> expected;
    for (Segment const& s : segments) capture.segment(s.from, s.to, s.payload), expected.push_back(s.decoded);
    EXPECT_EQ(dissect(capture, "-o colloquy.max_depth:2 -d tcp.port==9999,colloquy"), expected);
}

}  // namespace
