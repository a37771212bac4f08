// The Wireshark dissector (tools/wireshark/colloquy.lua) run by tshark on captures this test
// writes itself: Ethernet, IPv4 and TCP frames around exact message bytes, so no capture
// privileges are needed and every byte is known.
#include "files.h"
#include "netmsg.h"

#include <gtest/gtest.h>

#include <unistd.h>
#include <cstdint>
#include <cstdio>
#include <map>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

using namespace std::string_literals;

namespace {

constexpr uint16_t kDefaultPort = 7870;  // the dissector's default port preference

void putBig(std::string& out, uint64_t value, int bytes) {
    for (int i = bytes - 1; i >= 0; --i) out.push_back(static_cast<char>(value >> (8 * i)));
}

void putLittle(std::string& out, uint32_t value, int bytes) {
    for (int i = 0; i < bytes; ++i) out.push_back(static_cast<char>(value >> (8 * i)));
}

uint16_t internetChecksum(std::string const& bytes) {
    uint32_t sum = 0;
    for (size_t i = 0; i < bytes.size(); i += 2) {
        uint32_t word = static_cast<uint32_t>(static_cast<unsigned char>(bytes[i])) << 8;
        if (i + 1 < bytes.size()) word |= static_cast<unsigned char>(bytes[i + 1]);
        sum += word;
    }
    while (sum >> 16) sum = (sum & 0xffff) + (sum >> 16);
    return static_cast<uint16_t>(~sum);
}

// A classic pcap file of Ethernet frames, each carrying one TCP segment from 10.0.0.1 to
// 10.0.0.2; each (source port, destination port) is one stream with its own sequence numbers.
class Capture {
  public:
    void segment(uint16_t sourcePort, uint16_t destinationPort, std::string const& payload) {
        uint32_t& seq = mNextSeq.try_emplace(std::make_pair(sourcePort, destinationPort), 1000).first->second;
        std::string tcp;
        putBig(tcp, sourcePort, 2);
        putBig(tcp, destinationPort, 2);
        putBig(tcp, seq, 4);
        putBig(tcp, 1, 4);       // acknowledgement number
        putBig(tcp, 0x5018, 2);  // 20-byte header; PSH, ACK
        putBig(tcp, 65535, 2);   // window
        putBig(tcp, 0, 4);       // checksum (below), urgent pointer
        tcp += payload;
        seq += static_cast<uint32_t>(payload.size());
        std::string const source("\x0a\x00\x00\x01", 4), destination("\x0a\x00\x00\x02", 4);
        std::string pseudo = source + destination;
        putBig(pseudo, 6, 2);
        putBig(pseudo, tcp.size(), 2);
        uint16_t const tcpSum = internetChecksum(pseudo + tcp);
        tcp[16] = static_cast<char>(tcpSum >> 8);
        tcp[17] = static_cast<char>(tcpSum);

        std::string ip;
        putBig(ip, 0x4500, 2);
        putBig(ip, 20 + tcp.size(), 2);
        putBig(ip, 0, 2);       // identification
        putBig(ip, 0x4000, 2);  // don't fragment
        putBig(ip, 0x4006, 2);  // TTL 64, TCP
        putBig(ip, 0, 2);       // checksum (below)
        ip += source + destination;
        uint16_t const ipSum = internetChecksum(ip);
        ip[10] = static_cast<char>(ipSum >> 8);
        ip[11] = static_cast<char>(ipSum);

        std::string const ethernet = std::string("\x02\x00\x00\x00\x00\x02\x02\x00\x00\x00\x00\x01\x08\x00", 14);
        mFrames.push_back(ethernet + ip + tcp);
    }
    std::string file() const {
        std::string out;
        putLittle(out, 0xa1b2c3d4, 4);
        putLittle(out, 2, 2);  // version 2.4
        putLittle(out, 4, 2);
        putLittle(out, 0, 4);  // time zone, accuracy
        putLittle(out, 0, 4);
        putLittle(out, 65535, 4);  // snapshot length
        putLittle(out, 1, 4);      // Ethernet
        for (size_t i = 0; i < mFrames.size(); ++i) {
            putLittle(out, static_cast<uint32_t>(1700000000 + i), 4);
            putLittle(out, 0, 4);
            putLittle(out, static_cast<uint32_t>(mFrames[i].size()), 4);
            putLittle(out, static_cast<uint32_t>(mFrames[i].size()), 4);
            out += mFrames[i];
        }
        return out;
    }

  private:
    std::map<std::pair<uint16_t, uint16_t>, uint32_t> mNextSeq;
    std::vector<std::string> mFrames;
};

// One message on the stream: the 8-byte header (big-endian length, type, subtype), then the body.
std::string message(short type, short subType, std::string const& body, int32_t length) {
    std::string out;
    putBig(out, static_cast<uint32_t>(length), 4);
    putBig(out, static_cast<uint16_t>(type), 2);
    putBig(out, static_cast<uint16_t>(subType), 2);
    return out + body;
}
std::string message(short type, short subType, std::string const& body) {
    return message(type, subType, body, static_cast<int32_t>(body.size()));
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

// The fields tshark prints for each frame.
std::vector<std::string> const kFields = {"colloquy.length",
                                          "colloquy.type",
                                          "colloquy.subtype",
                                          "colloquy.envelope.to_name",
                                          "colloquy.envelope.to_host",
                                          "colloquy.envelope.from_name",
                                          "colloquy.envelope.from_host",
                                          "colloquy.envelope.qtype",
                                          "colloquy.envelope.user_value",
                                          "colloquy.envelope.format_stamp",
                                          "colloquy.record.count",
                                          "colloquy.key",
                                          "colloquy.value",
                                          "colloquy.record.depth",
                                          "colloquy.raw",
                                          "_ws.expert.message"};

using Decoded = std::map<std::string, std::string>;  // field -> values joined by '|', non-empty only

struct Dissection {
    std::vector<Decoded> frames;
    std::string err;
};

std::string shellQuoted(std::string const& text) {
    std::string out = "'";
    for (char c : text) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return out + "'";
}

// tshark with the dissector on `capture`; `options` are added to its command line.
Dissection tshark(Capture const& capture, std::string const& options) {
    std::string const dir = gScratchDirectory("colloquy_dissector");
    EXPECT_FALSE(dir.empty());
    std::string const pcap = dir + "/capture.pcap", err = dir + "/stderr.txt";
    gWriteFile(pcap, capture.file());
    std::string command = "tshark -n -r " + shellQuoted(pcap) +
                          " -X lua_script:" + shellQuoted(COLLOQUY_DISSECTOR_PATH) + " " + options +
                          " -T fields -E header=n -E occurrence=a -E aggregator='|'";
    for (auto const& field : kFields) command += " -e " + field;
    command += " 2>" + shellQuoted(err);
    Dissection run;
    std::string out;
    if (FILE* pipe = popen(command.c_str(), "r")) {
        char buffer[4096];
        for (size_t n; (n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;) out.append(buffer, n);
        EXPECT_EQ(pclose(pipe), 0) << command;
    }
    // tshark warns when it runs as root; anything else on standard error is a fault.
    std::istringstream errLines(gReadFile(err));
    for (std::string line; std::getline(errLines, line);)
        if (line.rfind("Running as user \"root\"", 0) != 0) run.err += line + "\n";
    std::remove(pcap.c_str());
    std::remove(err.c_str());
    rmdir(dir.c_str());

    std::istringstream lines(out);
    for (std::string line; std::getline(lines, line);) {
        Decoded frame;
        std::istringstream values(line);
        std::string value;
        for (size_t i = 0; std::getline(values, value, '\t'); ++i)
            if (!value.empty() && i < kFields.size()) frame[kFields[i]] = value;
        run.frames.push_back(frame);
    }
    return run;
}

bool haveTshark() { return std::system("command -v tshark >/dev/null 2>&1") == 0; }

TEST(Dissector, DecodesFramingEnvelopesRecordsAndMarksMalformedStreams) {
    ASSERT_TRUE(haveTshark()) << "tshark is missing: scripts/bootstrap installs it";
    Capture capture;
    // 1-3: one message split over three segments.
    std::string const split = message(7, 9, record("ab", "xyz"));
    capture.segment(40001, kDefaultPort, split.substr(0, 5));
    capture.segment(40001, kDefaultPort, split.substr(5, 7));
    capture.segment(40001, kDefaultPort, split.substr(12));
    // 4: two messages in one segment, the second without a body, from the server's side.
    capture.segment(kDefaultPort, 40001, message(1, -2, record("k", "v")) + message(3, 4, ""));
    // 5: an envelope around a record with a binary value, UTF-8 text and a nested record.
    std::string const nested = record("n", "m");
    std::string const body =
        "3 '3 bin '4 a\0b\xff '4 city '7 Z\xc3\xbcrich '4 nest '"s + std::to_string(nested.size()) + " " + nested + " ";
    std::string const wrapped = envelope(body, 0xffffffff);  // packs the user value as "-1"
    capture.segment(40002, kDefaultPort, message(5, 6, wrapped));
    // 6-7: a header announcing a negative length, then more bytes of the same direction.
    capture.segment(40003, kDefaultPort, message(1, 1, "junk", -5));
    capture.segment(40003, kDefaultPort, message(1, 1, record("k", "v")));
    // 8: an envelope cut inside its last field (the header agrees with the bytes sent).
    std::string const packed = envelope(record("k", "v"), 7);
    capture.segment(40004, kDefaultPort, message(2, 2, packed.substr(0, packed.size() - 2)));
    // 9: an envelope whose fields end inside the first one.
    capture.segment(40005, kDefaultPort, message(2, 2, "8 6 4 6 6 2 2 2 4 hostB"));
    // 10: a text form whose value length runs past the end.
    capture.segment(40006, kDefaultPort, message(2, 2, "2 '1 a '9 b "));
    // 11: records nested four deep, shown as records down to the depth preference (2) only.
    std::string const deepest = record("d", "e");
    capture.segment(40007, kDefaultPort, message(2, 2, record("a", record("b", record("c", deepest)))));
    // 12: another port, decoded as asked ("Decode As"); 13: a port nobody asked for.
    capture.segment(40008, 9999, message(4, 4, record("k", "v")));
    capture.segment(40009, 9998, message(4, 4, record("k", "v")));

    Dissection const run = tshark(capture, "-o colloquy.max_depth:2 -d tcp.port==9999,colloquy");
    EXPECT_EQ(run.err, "");
    std::vector<Decoded> const expected = {
        {},
        {},
        {{"colloquy.length", "15"},
         {"colloquy.type", "7"},
         {"colloquy.subtype", "9"},
         {"colloquy.record.count", "1"},
         {"colloquy.key", "ab"},
         {"colloquy.value", "xyz"}},
        {{"colloquy.length", "12|0"},
         {"colloquy.type", "1|3"},
         {"colloquy.subtype", "-2|4"},
         {"colloquy.record.count", "1"},
         {"colloquy.key", "k"},
         {"colloquy.value", "v"}},
        {{"colloquy.length", std::to_string(wrapped.size())},
         {"colloquy.type", "5"},
         {"colloquy.subtype", "6"},
         {"colloquy.envelope.to_name", "svc"},
         {"colloquy.envelope.to_host", "hostB"},
         {"colloquy.envelope.from_name", "agent"},
         {"colloquy.envelope.from_host", "hostA"},
         {"colloquy.envelope.qtype", "-3"},
         {"colloquy.envelope.user_value", "4294967295"},
         {"colloquy.envelope.format_stamp", "352"},
         {"colloquy.record.count", "3|1"},
         {"colloquy.record.depth", "1"},
         {"colloquy.key", "bin|city|nest|n"},
         {"colloquy.value", "a\\x00b\\xff|Z\xc3\xbcrich|" + nested + "|m"}},
        {{"colloquy.length", "-5"},
         {"colloquy.type", "1"},
         {"colloquy.subtype", "1"},
         {"colloquy.raw", "6a756e6b"},
         {"_ws.expert.message",
          "a body of -5 bytes (0 to 67108864 allowed): the stream cannot be framed from here on"}},
        {{"colloquy.raw", "0000000c0001000131202731206b202731207620"},
         {"_ws.expert.message", "this direction could not be framed since frame 6"}},
        {{"colloquy.length", std::to_string(packed.size() - 2)},
         {"colloquy.type", "2"},
         {"colloquy.subtype", "2"},
         {"colloquy.envelope.to_name", "svc"},
         {"colloquy.envelope.to_host", "hostB"},
         {"colloquy.envelope.from_name", "agent"},
         {"colloquy.envelope.from_host", "hostA"},
         {"colloquy.envelope.qtype", "-3"},
         {"colloquy.envelope.user_value", "7"},
         {"colloquy.record.count", "1"},
         {"colloquy.key", "k"},
         {"colloquy.value", "v"},
         {"colloquy.raw", "3335"},  // "35", the start of the format stamp "352"
         {"_ws.expert.message", "malformed envelope: field 7 announces 4 bytes, 2 left"}},
        {{"colloquy.length", "23"},
         {"colloquy.type", "2"},
         {"colloquy.subtype", "2"},
         {"colloquy.raw", "686f737442"},
         {"_ws.expert.message", "malformed envelope: field 0 announces 6 bytes, 5 left"}},
        {{"colloquy.length", "12"},
         {"colloquy.type", "2"},
         {"colloquy.subtype", "2"},
         {"colloquy.raw", "322027312061202739206220"},
         {"_ws.expert.message",
          "bad record text form at byte 7: pair 1: the value length 9 runs past the end (2 bytes left)"}},
        {{"colloquy.length", std::to_string(record("a", record("b", record("c", deepest))).size())},
         {"colloquy.type", "2"},
         {"colloquy.subtype", "2"},
         {"colloquy.record.count", "1|1|1"},
         {"colloquy.record.depth", "1|2"},
         {"colloquy.key", "a|b|c"},
         {"colloquy.value", record("b", record("c", deepest)) + "|" + record("c", deepest) + "|" + deepest},
         {"_ws.expert.message", "records nested deeper than 2 levels are shown as values"}},
        {{"colloquy.length", "12"},
         {"colloquy.type", "4"},
         {"colloquy.subtype", "4"},
         {"colloquy.record.count", "1"},
         {"colloquy.key", "k"},
         {"colloquy.value", "v"}},
        {},
    };
    ASSERT_EQ(run.frames.size(), expected.size());
    for (size_t i = 0; i < expected.size(); ++i) EXPECT_EQ(run.frames[i], expected[i]) << "frame " << i + 1;
}

}  // namespace
