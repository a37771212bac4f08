// The colloquy tool end to end: real processes, files on its standard streams, loopback sockets.
#include "envscope.h"
#include "files.h"
#include "msghdr.h"
#include "netmsg.h"
#include "streamtest.h"

#include <sys/wait.h>
#include <csignal>

namespace {

using namespace nStreamTest;

struct Result {
    int status;  // exit status, or 128 + signal
    std::string out, err;
};

std::string contents(FILE* file) { return gReadFile("/proc/self/fd/" + std::to_string(fileno(file))); }

// The tool as a child process reading `input` and writing into temporary files; an alarm set
// before exec ends it should it hang.
class Tool {
  public:
    explicit Tool(std::vector<std::string> args, std::string const& input = "") {
        FILE* const in = std::tmpfile();
        std::fwrite(input.data(), 1, input.size(), in);
        std::rewind(in);
        std::vector<char*> argv{const_cast<char*>(COLLOQUY_TOOL_PATH)};
        for (std::string& arg : args) argv.push_back(arg.data());
        argv.push_back(nullptr);
        if ((mPid = fork()) == 0) {
            dup2(fileno(in), 0), dup2(fileno(mOut), 1), dup2(fileno(mErr), 2), alarm(30);
            execv(argv[0], argv.data());
            _exit(127);
        }
        std::fclose(in);
    }
    ~Tool() {
        if (mPid > 0 && kill(mPid, SIGKILL) == 0) waitpid(mPid, nullptr, 0);
        std::fclose(mOut), std::fclose(mErr);
    }
    // The port a listener announces on its first line.
    std::string port() {
        EXPECT_TRUE(awaits("\n", true));
        std::string const err = contents(mErr);
        mAnnounced = err.find('\n') + 1;
        EXPECT_EQ(err.rfind("listening on port ", 0), 0u) << err;
        return err.substr(18, mAnnounced - 19);
    }
    // Waits a bounded while for `text` on standard output (or standard error); true when it came.
    bool awaits(std::string const& text, bool onError = false) {
        for (int i = 0; i < 1000; ++i, usleep(10 * 1000))
            if (contents(onError ? mErr : mOut).find(text) != std::string::npos) return true;
        return false;
    }
    // Waits for the end; standard error without the line port() has read.
    Result finish() {
        int status = 0;
        waitpid(std::exchange(mPid, -1), &status, 0);
        int const code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        return {code, contents(mOut), contents(mErr).substr(mAnnounced)};
    }

  private:
    FILE *mOut = std::tmpfile(), *mErr = std::tmpfile();
    pid_t mPid = -1;
    size_t mAnnounced = 0;
};

// The words of `line` between single blanks.
std::vector<std::string> words(std::string const& line) {
    std::vector<std::string> out;
    for (size_t at = 0, end = 0; end != std::string::npos; at = end + 1)
        out.push_back(line.substr(at, (end = line.find(' ', at)) - at));
    return out;
}

Result tool(std::vector<std::string> args, std::string const& in = "") { return Tool(std::move(args), in).finish(); }

// Status, standard output and standard error in one comparison.
void expectResult(Result const& r, int status, std::string const& out, std::string const& err) {
    EXPECT_EQ(std::to_string(r.status) + "|" + r.out + "|" + r.err, std::to_string(status) + "|" + out + "|" + err);
}

RawFd connectTo(std::string const& port) {
    RawFd fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{AF_INET, htons(static_cast<uint16_t>(std::stoi(port))), {htonl(INADDR_LOOPBACK)}, {}};
    EXPECT_EQ(::connect(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0) << port;
    return fd;
}

// "127.0.0.1:PORT" of the local end of `fd`: how the tool names this peer.
std::string nameOf(RawFd const& fd) {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    ::getsockname(fd.get(), reinterpret_cast<sockaddr*>(&address), &length);
    return "127.0.0.1:" + std::to_string(ntohs(address.sin_port));
}

// The 8 header bytes of a message, `length` stored as its low 32 bits.
std::string header(long length, short type = 1, short subType = 2) {
    c_MessageHeader h;
    SSMMakeMessageHeader(length, type, subType, &h);
    return std::string(reinterpret_cast<char const*>(&h), sizeof h);
}
std::string framed(std::string const& body, short type = 1, short subType = 2) {
    return header(static_cast<long>(body.size()), type, subType) + body;
}

// `body` packed by the library, from agent@hostA to svc@hostB, and how its envelope starts in JSON.
std::string packed(std::string const& body, unsigned userValue = 7, int qType = -3) {
    cColloquyMessage const m(userValue, "hostB", "svc", "hostA", "agent", static_cast<QType>(qType), 0, 0, body.data(),
                             static_cast<unsigned>(body.size()));
    return std::string(m.packedBuffer, m.packedLen);
}
std::string const envelopeJson = "\"envelope\":{\"to\":\"svc@hostB\",\"from\":\"agent@hostA\",\"qType\":";

std::string const kv = "1 '1 k '1 v ";

// "NAME must be a whole number from RANGE, not 'TEXT'"
std::string outside(std::string const& name, std::string const& range, std::string const& text) {
    return name + " must be a whole number from " + range + ", not '" + text + "'";
}

// Commands whose work lies on their standard streams, and every command's refusals. A row gives the arguments (split
// at each blank), standard input, the status, and standard output on success (standard error empty) or the error
// line's text after "colloquy COMMAND: " on failure (standard output empty).
TEST(Tool, CommandsOnStandardStreams) {
    std::string const envelope = packed(kv, UINT_MAX, INT_MIN), rawEnvelope = packed("a\x01");
    std::string pairs64, hub64 = "65 '5 $FROM '1 a";
    for (int i = 10; i < 74; ++i)
        pairs64 += "k" + std::to_string(i) + "=v\n", hub64 += " '3 k" + std::to_string(i) + " '1 v";
    // Well-formed UTF-8 stays; every other byte outside printable ASCII is escaped on its own.
    std::string const utf8 =
        "\"\\\x1f ~\x7f\xc2\x80\xc1\x80\xdf\xbf\xe0\xa0\x80\xe0\x9f\xbf\xed\x9f\xbf\xed\xa0\x80\xef\xbf\xbf\xe1\x80\x41"
        "\xf0\x90\x80\x80\xf0\x8f\xbf\xbf\xf4\x8f\xbf\xbf\xf4\x90\x80\x80\xf0\x90\x41\x80\xf0\x90\x80\x41\xf5\xc3\xc0"
        "\xe0\xa0";
    std::string const utf8Json =
        "\\\"\\\\\\u001f ~\\u007f\xc2\x80\\u00c1\\u0080\xdf\xbf\xe0\xa0\x80\\u00e0\\u009f\\u00bf\xed\x9f\xbf\\u00ed"
        "\\u00a0\\u0080\xef\xbf\xbf\\u00e1\\u0080A\xf0\x90\x80\x80\\u00f0\\u008f\\u00bf\\u00bf\xf4\x8f\xbf\xbf\\u00f4"
        "\\u0090\\u0080\\u0080\\u00f0\\u0090A\\u0080\\u00f0\\u0090\\u0080A\\u00f5\\u00c3\\u00c0\\u00e0\\u00a0";
    std::string const notOne = "input is not one text form ", toFrom = "to: svc@hostB\nfrom: agent@hostA\nqtype: ",
                      badEscape = "': a backslash starts either x and two hex digits or a second backslash";
    std::string const send = "send 127.0.0.1 1 --type 1 --subtype 1 ", pack = "pack --to s@h --from a@h ";
    std::tuple<std::string, std::string, int, std::string> const cases[] = {
        // encode: escapes of either case, the key ends at the first '=', lines of standard input
        {"encode k=\\x09\\x0a\\xAF\\xaf\\\\=", "", 0, "1 '1 k '6 \t\n\xaf\xaf\\= "},
        {"encode", "k=v\r\n\n", 0, kv},
        {"encode --hub agent b=2 a=1", "", 0, "3 '5 $FROM '5 agent '1 b '1 2 '1 a '1 1"},
        {"encode --hub a", pairs64, 0, hub64},
        {"encode --hub a", pairs64 + "k=v\n", 2, "--hub takes at most 64 pairs"},
        {"encode --hub a k=\\x00", "", 2, "a hub dump cannot carry NUL bytes (key 'k')"},
        {"encode", "", 2, "encode needs at least one key=value pair (an empty record does not read back)"},
        {"encode k=\\q", "", 2, "bad escape in '\\x5cq" + badEscape},
        {"encode \\x00=v", "", 2, "a key cannot hold a NUL byte"},
        {"encode kv", "", 2, "expected key=value, got 'kv'"},
        {"encode --k\nv", "", 2, "unknown option --k\\x0av"},
        {"encode --hub", "", 2, "--hub needs a value"},
        // decode: sorted escaped lines, JSON, the hub form without its last blank, every refusal
        {"decode", "3 '1 b '2 \x1f\0 '1 a '4  ~\x7f\\ '1 c '10 0123456789 "s, 0,
         "a\t ~\\x7f\\x5c\nb\t\\x1f\\x00\nc\t0123456789\n"},
        {"decode --json", "2 '1 k '" + std::to_string(utf8.size()) + " " + utf8 + " '1 a '9 123456789", 0,
         "{\"a\":\"123456789\",\"k\":\"" + utf8Json + "\"}\n"},
        {"decode", "x", 1, notOne + "(1 bytes): it does not start with a count and a blank"},
        {"decode", "01 '1 k '1 v ", 1, notOne + "(13 bytes): it does not start with a count and a blank"},
        {"decode", "1x '1 k '1 v ", 1, notOne + "(13 bytes): it does not start with a count and a blank"},
        {"decode --json", "1 '1 k '3 \xe1\x41\x80 ", 0, "{\"k\":\"\\u00e1A\\u0080\"}\n"},  // bad second byte
        {"decode", "0 ", 1, notOne + "(2 bytes): its count is 0"},
        {"decode", "1 1 k", 1, notOne + "(5 bytes): key 1 has no length prefix at byte 2"},
        {"decode", "1 ' k", 1, notOne + "(5 bytes): key 1 has no length prefix at byte 3"},
        {"decode", "1 '1 k 1 v ", 1, notOne + "(11 bytes): value 1 has no length prefix at byte 7"},
        {"decode", "1 '2147483648 k", 1, notOne + "(15 bytes): key 1 has no length prefix at byte 14"},
        {"decode", "1 '2147483647 k", 1, notOne + "(15 bytes): key 1 runs past the end of the input"},
        {"decode", "1 '1 \0 '1 v "s, 1, notOne + "(12 bytes): key 1 holds a NUL byte"},
        {"decode", "1 '1 kx'1 v ", 1, notOne + "(12 bytes): key 1 is not followed by a blank"},
        {"decode", "1 '1 k '1 v x", 1, notOne + "(13 bytes): 1 bytes follow the last pair"},
        {"decode", "2 '1 a '1 b '1 a '1 c ", 1, notOne + "(22 bytes): 1 pair(s) repeat an earlier key"},
        {"decode --", "", 2, "decode reads standard input and takes no arguments"},
        {"convert --from 1252 --to 65001", "1 '1 k '1 \xe9 ", 0, "1 '1 k '2 \xc3\xa9 "},
        {"convert --from 1252", "", 2, "convert needs --from CP and --to CP"},
        {"convert --from 99999 --to 65001", kv, 1, "cannot convert from code page 99999 to 65001"},
        {"convert --from  --to 65001", "", 2, outside("--from", "0 to 4294967295", "")},
        {"convert --from 1 --to 4294967296", "", 2, outside("--to", "0 to 4294967295", "4294967296")},
        {"convert --from 1 --to 1 x", "", 2, "convert reads standard input and takes only --from and --to"},
        {"pack --to svc@hostB --from agent@hostA --qtype -2147483648 --user-value 4294967295", kv, 0, envelope},
        {"unpack", envelope, 0,
         toFrom + "-2147483648\nuser value: 4294967295\nformat: 352\nbody: 12 bytes\npairs: 1\n  k\tv\n"},
        {"unpack --json", envelope, 0,
         "{\"packedLength\":" + std::to_string(envelope.size()) + "," + envelopeJson +
             "-2147483648,\"userValue\":4294967295,\"formatStamp\":352,\"bodyLength\":12},\"pairs\":{\"k\":\"v\"}}\n"},
        {"unpack", rawEnvelope, 0, toFrom + "-3\nuser value: 7\nformat: 352\nbody: 2 bytes\n"},
        {"unpack --json", rawEnvelope, 0,
         "{\"packedLength\":" + std::to_string(rawEnvelope.size()) + "," + envelopeJson +
             "-3,\"userValue\":7,\"formatStamp\":352,\"bodyLength\":2},\"body\":\"a\\u0001\"}\n"},
        {"unpack", "8 6 4 6 6 2 2 2 4 hostB", 1, "input is not a packed message of eight fields (23 bytes)"},
        {"unpack", "", 1, "input is not a packed message of eight fields (0 bytes)"},
        {"unpack x", "", 2, "unpack reads standard input and takes no arguments"},
        {"pack x", "", 2, "pack reads the body on standard input and takes no arguments"},
        {"pack", "", 2, "pack needs --to NAME@HOST and --from NAME@HOST"},
        {"pack --to s@h", "", 2, "--to and --from go together"},
        {"pack --to svc --from a@h", "", 2, "--to must be NAME@HOST, not 'svc'"},
        {"pack --to s@h --from @h", "", 2, "--from must be NAME@HOST, not '@h'"},
        {"pack --to s@h --from a@", "", 2, "--from must be NAME@HOST, not 'a@'"},
        {pack + "--qtype 2147483648", "", 2, outside("--qtype", "-2147483648 to 2147483647", "2147483648")},
        {pack + "--user-value -1", "", 2, outside("--user-value", "0 to 4294967295", "-1")},
        // send, up to its connection
        {"send h", "", 2, "send needs HOST and PORT"},
        {"send h 0", "", 2, "PORT must be 1 to 65535"},
        {"send h 65536", "", 2, outside("PORT", "0 to 65535", "65536")},
        {"send h 1 --type 1", "", 2, "send needs --type T and --subtype S"},
        {"send h 1 --type -32769 --subtype 1", "", 2, outside("--type", "-32768 to 32767", "-32769")},
        {send + "--subtype 32768", "", 2, outside("--subtype", "-32768 to 32767", "32768")},
        {send + "--subtype 1x", "", 2, outside("--subtype", "-32768 to 32767", "1x")},
        {send.substr(0, send.size() - 1), "", 2, "send needs key=value pairs or --raw FILE"},
        {send + "--raw /nonexistent k=v", "", 2, "--raw FILE and key=value pairs exclude each other"},
        {send + "--raw /nonexistent", "", 1, "cannot open /nonexistent: No such file or directory"},
        {send + "--count 0 k=v", "", 2, outside("--count", "1 to 1099511627776", "0")},
        {send + "--batch 1048577 k=v", "", 2, outside("--batch", "1 to 1048576", "1048577")},
        {send + "k=v", "", 1, "connect to 127.0.0.1 port 1: Connection refused (errno 111)"},
        // the other commands' command lines
        {"listen", "", 2, "listen needs PORT"},
        {"listen 65536", "", 2, outside("PORT", "0 to 65535", "65536")},
        {"listen 0 --count -1", "", 2, outside("--count", "0 to 1099511627776", "-1")},
        {"listen 0 --max-size 2147483648", "", 2, outside("--max-size", "0 to 2147483647", "2147483648")},
        {"listen 0 --timeout 0", "", 2, outside("--timeout", "1 to 86400", "0")},
        {"listen 0 --max-connections 1001", "", 2, outside("--max-connections", "1 to 1000", "1001")},
        {"tap 0 h", "", 2, "tap needs LISTEN_PORT HOST PORT"},
        {"tap 65536 h 1", "", 2, outside("LISTEN_PORT", "0 to 65535", "65536")},
        {"tap 0 h 0", "", 2, outside("PORT", "1 to 65535", "0")},
        {"tap 0 h 1 --max-size -1", "", 2, outside("--max-size", "0 to 2147483647", "-1")},
        {"tap 0 h 1 --connections -1", "", 2, outside("--connections", "0 to 1099511627776", "-1")},
        {"bench x", "", 2, "bench takes only --size, --count and --batch"},
        {"bench --size 67108865", "", 2, outside("--size", "0 to 67108864", "67108865")},
        {"bench --count 0", "", 2, outside("--count", "1 to 10000000", "0")},
        {"bench --batch 0", "", 2, outside("--batch", "1 to 1048576", "0")},
        {"report x", "", 2, "report takes no arguments besides --output FILE"},
        {"report --output /nonexistent/r", "", 1, "cannot create /nonexistent/r: No such file or directory"},
        {"report --output /dev/full", "", 1, "cannot write /dev/full"},
        {"demo x", "", 2, "demo takes no arguments"},
    };
    for (auto const& [args, input, status, expected] : cases) {
        SCOPED_TRACE(args + " | " + input.substr(0, 40));
        std::string const err = "colloquy " + args.substr(0, args.find(' ')) + ": " + expected + "\n";
        expectResult(tool(words(args), input), status, status ? "" : expected, status ? err : "");
    }
    // An unknown command: the error line is escaped and cut after 300 bytes (253 c's make 300).
    std::string const c253(253, 'c'), usage = "' (colloquy --help lists them";
    for (auto const& [name, err] : {std::pair{"fro\nb\x1b"s, "fro\\x0ab\\x1b" + usage + ")"},
                                    {c253, c253 + usage + ")"},
                                    {c253 + "c", c253 + "c" + usage + "..."}})
        expectResult(tool({name}), 2, "", "colloquy: unknown command '" + err + "\n");
    Result const help = tool({"help"}), sendHelp = tool({"send", "k=v", "-h"});
    EXPECT_EQ(help.out.rfind("usage: colloquy COMMAND [options]\n\ncommands:\n  demo\n", 0), 0u) << help.out;
    expectResult(tool({}), 2, "", help.out);
    expectResult(tool({"-h"}), 0, help.out, "");
    EXPECT_EQ(std::to_string(sendHelp.status) + sendHelp.out.substr(0, 53),
              "0usage: colloquy send HOST PORT --type T --subtype S [");
}

// send to a raw peer: exact bytes, one report line; a peer that resets fails it in one line.
TEST(Tool, SendWritesEachMessageWholeAndFailsWhenThePeerGoesAway) {
    ScratchScope const scratch("colloquy_tool");
    std::string const raw = scratch.path + "/raw";
    gWriteFile(raw, "a\0\xff"s);
    std::tuple<std::string, int, std::string> const cases[] = {
        // arguments, messages (-1: until it fails), body
        {"--count 3 k=v", 3, kv},
        {"--count 3 --batch 2 k=v", 3, kv},  // a batch of 2, then one of 1
        {"--batch 1048576 --raw " + raw, 1, "a\0\xff"s},
        {"--to svc@hostB --from agent@hostA k=v", 1, packed(kv, 0, 0)},
        {"--count 100000000 k=v", -1, kv},
        {"--count 100000000 --batch 100 k=v", -1, kv},
    };
    for (auto const& [args, count, body] : cases) {
        unsigned short port = 0;
        RawFd const listener = rawListener(port);
        Tool sender(words("send 127.0.0.1 " + std::to_string(port) + " --type -32768 --subtype 32767 " + args));
        std::string wire;
        for (int i = 0; i < count; ++i) wire += framed(body, -32768, 32767);
        RawFd peer = rawAccept(listener);
        if (count < 0)
            rawReceive(peer, 20), peer.abort();  // once the sender is past its connection
        else
            EXPECT_EQ(rawReceive(peer, wire.size() + 1), bytesOf(wire));  // then the end
        Result r = sender.finish();
        if (count < 0) r.err.erase(33, r.err.size() - 43);  // "send failed after N messages": N varies
        std::string const sent = "sent " + std::to_string(count) + " message(s) of " + std::to_string(body.size()) +
                                 " bytes to 127.0.0.1:" + std::to_string(port) + "\n";
        expectResult(r, count < 0, "", count < 0 ? "colloquy send: send failed after  messages\n" : sent);
    }
}

// Bodies of every kind and how listen shows them: the text after "message N", the JSON members after "n".
struct Shown {
    std::string wire, text, json;
};
std::vector<Shown> shownMessages() {
    std::vector<Shown> out;
    auto add = [&](std::string const& body, short type, short sub, std::string const& text, std::string const& json) {
        std::string const h = header(static_cast<long>(body.size()), type, sub), n = std::to_string(body.size()),
                          t = std::to_string(type), s = std::to_string(sub);
        char hex[3 * 8 + 1];  // the header bytes in hex between blanks: "00 01 ... 02"
        for (int i = 0; i < 8; ++i) std::snprintf(hex + 3 * i, 4, "%02x%c", h[i] & 0xff, i < 7 ? ' ' : 0);
        out.push_back({h + body, ": " + n + " bytes, type " + t + ", subtype " + s + "\n  header: " + hex + "\n" + text,
                       ",\"length\":" + n + ",\"type\":" + t + ",\"subType\":" + s + ",\"header\":\"" + hex + "\"" +
                           json + "}\n"});
    };
    std::string const wide(257, 'y'), x255(255, 'x'),
        envelopeLine = "  envelope: from agent@hostA to svc@hostB, qtype -3, user value 7, format 352, body ",
        envelope = "," + envelopeJson + "-3,\"userValue\":7,\"formatStamp\":352,\"bodyLength\":";
    add(kv, 1, 2, "  pairs: 1\n    k\tv\n", ",\"pairs\":{\"k\":\"v\"}");
    add("", 3, -4, "", ",\"body\":\"\"");
    add(packed("2 '1 a '1 \x01 '1 b '0  "), 5, 6, envelopeLine + "21 bytes\n  pairs: 2\n    a\t\\x01\n    b\t\n",
        envelope + "21},\"pairs\":{\"a\":\"\\u0001\",\"b\":\"\"}");
    add(x255 + "\xff", 7, 8, "  body: " + x255 + "\\xff\n", ",\"body\":\"" + x255 + "\\u00ff\"");
    add(wide, 7, 8, "  body: " + wide.substr(0, 256) + "...\n", ",\"body\":\"" + wide + "\"");
    add(packed("raw"), 9, 9, envelopeLine + "3 bytes\n  body: raw\n", envelope + "3},\"body\":\"raw\"");
    return out;
}

TEST(Tool, ListenAndTapPrintEveryMessageExactlyAndListenRefusesOverMaxConnections) {
    std::vector<Shown> const shown = shownMessages();
    // The tap keeps bodies up to 256 bytes: it shows all but the 257-byte one.
    std::string wire, expected, heard, tapped;
    for (size_t i = 0; i < shown.size(); ++i) {
        std::string const n = std::to_string(i + 1), body = shown[i].json;
        wire += shown[i].wire;
        expected += "message " + n + shown[i].text;
        heard += "{\"n\":" + n + body;
        tapped += "{\"connection\":1,\"direction\":\"client->server\",\"n\":" + n +
                  (i == 4 ? body.substr(0, body.find(",\"body\"")) + ",\"bodyShown\":false}\n" : body);
    }
    // Text, one peer: the first header comes in two pieces; a second peer, over --max-connections,
    // is refused in one line; a peer that ends its stream between messages is closed and not
    // reported; the next peer is served.
    Tool listener(words("listen 0 --count 7 --max-size 257 --max-connections 1"));
    std::string const port = listener.port();
    RawFd peer = connectTo(port), refused = connectTo(port);  // accepted in this order
    EXPECT_TRUE(readable(refused.get()) && rawReceive(refused, 1).empty());
    rawSend(peer, bytesOf(wire.substr(0, 3)));
    rawSend(peer, bytesOf(wire.substr(3)));
    ::shutdown(peer.get(), SHUT_WR);
    EXPECT_TRUE(readable(peer.get()) && rawReceive(peer, 1).empty()) << "the listener kept it open";
    rawSend(connectTo(port), bytesOf(shown[0].wire));
    expectResult(listener.finish(), 0, expected + "message 7" + shown[0].text,
                 "colloquy listen: " + nameOf(refused) + ": refused, --max-connections 1 are open\n");

    // JSON, through the tap: listen prints every body.
    Tool json(words("listen 0 --count 6 --max-size 257 --json"));
    Tool tap(words("tap 0 127.0.0.1 " + json.port() + " --connections 1 --max-size 256 --json"));
    peer = connectTo(tap.port());
    std::string const from = nameOf(peer);
    rawSend(peer, bytesOf(wire));
    peer.reset();
    expectResult(json.finish(), 0, heard, "");
    expectResult(tap.finish(), 0, tapped,
                 "connection 1 from " + from + "\nconnection 1 closed: " + std::to_string(wire.size()) +
                     " bytes to the server, 0 to the client\n");
}

TEST(Tool, ListenDropsABadConnectionInOneLineAndServesTheOthers) {
    std::string const body = header(40) + "0123456789";  // a 40-byte message that stops after 10
    enum End { kStay, kClose, kReset };
    // What the peer sends, how it ends, what is reported after "colloquy listen: 127.0.0.1:PORT: ".
    std::tuple<std::string, End, std::string> const cases[] = {
        {header(101), kStay, "peer announced a 101-byte message, over --max-size 100"},
        {header(-1), kStay, "peer announced a 4294967295-byte message, over --max-size 100"},
        {header(40).substr(0, 3), kClose, "closed inside a header after 3 of 8 bytes"},
        {body, kClose, "closed inside a 40-byte body after 10 bytes"},
        {body, kReset, "Connection reset by peer inside a 40-byte body after 10 bytes"},
        {"", kReset, "Connection reset by peer"},
        {body, kStay, "no byte for 1 s inside a 40-byte body after 10 bytes"},
    };
    Tool listener(words("listen 0 --count 8 --max-size 100 --timeout 1"));
    std::string const port = listener.port();
    std::string expected;
    for (size_t i = 0; i <= std::size(cases); ++i) {
        // Another peer is served while this one is connected (and so was accepted before).
        RawFd bad = connectTo(port);
        rawSend(connectTo(port), bytesOf(framed(kv)));
        EXPECT_TRUE(listener.awaits("message " + std::to_string(i + 1) + ": 12 bytes"));
        if (i == std::size(cases)) break;
        auto const& [bytes, end, reported] = cases[i];
        expected += "colloquy listen: " + nameOf(bad) + ": " + reported + "; connection dropped\n";
        rawSend(bad, bytesOf(bytes));
        if (end == kClose) bad.reset();
        if (end == kReset) bad.abort();
        EXPECT_TRUE(listener.awaits(expected, true)) << reported;
        EXPECT_TRUE(end != kStay || (readable(bad.get()) && rawReceive(bad, 1).empty()));
    }
    Result const heard = listener.finish();
    EXPECT_EQ(std::to_string(heard.status) + heard.err, "0" + expected);
}

// Peers sending at the same time, while another stays silent: whole messages, numbered in one
// sequence, none lost.
TEST(Tool, ListenTakesPeersSendingAtOnce) {
    Tool busy(words("listen 0 --count 120 --json"));
    std::string const port = busy.port();
    // A silent peer, and one announcing a message over the default --max-size.
    RawFd const silent = connectTo(port), big = connectTo(port);
    rawSend(big, bytesOf(header((64 << 20) + 1)));
    EXPECT_TRUE(busy.awaits(nameOf(big) + ": peer announced a 67108865-byte message, over --max-size 67108864", true));
    std::string const send = "send 127.0.0.1 " + port + " --type 1 --subtype 2 --count 40 k=";
    Tool senders[] = {Tool(words(send + "a")), Tool(words(send + "b")), Tool(words(send + "c"))};
    for (Tool& sender : senders) EXPECT_EQ(sender.finish().status, 0);
    std::string const heard = busy.finish().out, json = shownMessages()[0].json;
    std::map<char, int> perValue;
    for (size_t start = 0, end, n = 1; (end = heard.find('\n', start)) != std::string::npos; start = end + 1, ++n) {
        std::string line = heard.substr(start, end - start + 1);
        ++perValue[line.end()[-5]];
        EXPECT_EQ(line.replace(line.size() - 5, 1, "v"), "{\"n\":" + std::to_string(n) + json);
    }
    EXPECT_EQ(perValue, (std::map<char, int>{{'a', 40}, {'b', 40}, {'c', 40}}));
}

// A tap between a raw client and a raw server: every byte forwarded both ways, either side's end
// passed on, reports of what cannot be framed, and a client turned away when the server is gone.
TEST(Tool, TapForwardsEveryByteBothWaysAndReportsWhatItCannotFrame) {
    unsigned short serverPort = 0;
    RawFd const listener = rawListener(serverPort);
    Tool tap(words("tap 0 127.0.0.1 " + std::to_string(serverPort) + " --connections 3 --max-size 64"));
    std::string const tapPort = tap.port();
    std::vector<std::string> lines;  // expected on standard error
    std::tuple<std::string, std::string, bool> const cases[] = {
        // request, reply, whether the server closes
        {header(12, 7, 9) + kv + header(100, 1, 1) + std::string(100, 'x'), header(4, 2, -1) + "raw\xff", true},
        {header(-5, 1, 1) + "\0junk"s + framed(kv) + "\0\xff"s, "", false},
        {header(40) + "0123456789", header(40).substr(0, 3), false},
    };
    for (size_t i = 0; i < std::size(cases); ++i) {
        auto const& [request, reply, serverCloses] = cases[i];
        RawFd client = connectTo(tapPort), server = rawAccept(listener);
        size_t const cuts[] = {0, 5, 13, request.size()};  // in pieces, each forwarded before the next
        for (size_t k = 0; k < 3; ++k) {
            std::string const piece = request.substr(cuts[k], cuts[k + 1] - cuts[k]);
            rawSend(client, bytesOf(piece));
            EXPECT_EQ(rawReceive(server, piece.size()), bytesOf(piece));
        }
        if (!reply.empty()) rawSend(server, bytesOf(reply));
        EXPECT_EQ(rawReceive(client, reply.size()), bytesOf(reply));
        std::string const number = std::to_string(i + 1), from = nameOf(client);
        (serverCloses ? server : client).reset();
        RawFd const& other = serverCloses ? client : server;
        EXPECT_TRUE(readable(other.get()) && rawReceive(other, 1).empty()) << "the end was not passed on";
        lines.push_back("connection " + number + " from " + from + "\n");
        lines.push_back("connection " + number + " closed: " + std::to_string(request.size()) +
                        " bytes to the server, " + std::to_string(reply.size()) + " to the client\n");
    }
    Result const tapped = tap.finish();
    EXPECT_EQ(tapped.status, 0);
    // A server that cannot be reached: the client is turned away in one line.
    Tool unreachable(words("tap 0 127.0.0.1 1 --connections 1"));
    RawFd const client = connectTo(unreachable.port());
    EXPECT_TRUE(readable(client.get()) && rawReceive(client, 1).empty());
    expectResult(unreachable.finish(), 0, "",
                 "colloquy tap: connection 1 from " + nameOf(client) +
                     ": connect to 127.0.0.1 port 1: Connection refused (errno 111)\n");
    // The directions and connections print independently: each report is checked on its own.
    std::vector<std::string> const reports = {
        "connection 1 client->server message 1: 12 bytes, type 7, subtype 9\n"
        "  header: 00 00 00 0c 00 07 00 09\n  pairs: 1\n    k\tv\n",
        "connection 1 client->server message 2: 100 bytes, type 1, subtype 1\n"
        "  header: 00 00 00 64 00 01 00 01\n  body: not shown (over --max-size)\n",
        "connection 1 server->client message 1: 4 bytes, type 2, subtype -1\n"
        "  header: 00 00 00 04 00 02 ff ff\n  body: raw\\xff\n",
        "connection 2 client->server: header ff ff ff fb 00 01 00 01 announces a body of -5 bytes: the rest of "
        "this direction is forwarded unframed\n",
        "connection 3 client->server: the stream ended inside message 1 (10 of 40 body bytes)\n",
        "connection 3 server->client: the stream ended inside a header (3 of 8 bytes)\n"};
    for (auto [all, expected] : {std::pair{tapped.out, reports}, std::pair{tapped.err, lines}}) {
        for (auto const& report : expected)  // each found once marks its place with a '#'
            if (size_t const at = all.find(report); at != std::string::npos) all.replace(at, report.size(), "#");
        EXPECT_EQ(all, std::string(expected.size(), '#'));
    }
}

TEST(Tool, DemoBenchAndReportRun) {
    Result const demo = tool({"demo"});
    EXPECT_EQ(demo.status, 0) << demo.err;
    for (char const* part :
         {"\n3. message packed into 165 bytes: from agent@hostA to svc@hostB, qtype 3, user value 7\n"
          "4. sent 173 bytes, header 00 00 00 a5 00 01 00 02\n5. received type 1, subtype 2, body 165 bytes\n",
          "\n7. read back 6 pairs:\n     $FROM\tagent\n     binary\ta\\x00b\n     city\tZ\\xc3\\xbcrich\n"
          "     count\t42\n     empty\t\n     note\tit's 'quoted' text\n8. what arrived equals what was sent\n"})
        EXPECT_NE(demo.out.find(part), std::string::npos) << demo.out;
    // One send per message, or 25 batches of 8 messages (of the default 100 bytes), each in one system call.
    for (auto const& [args, size, calls] :
         {std::tuple{"--size 0", "0", "one send per message: system calls per message: sender 1.0000,"},
          {"--batch 8", "100", "in batches of 8: system calls per message: sender 0.1250,"}}) {
        Result const bench = tool(words("bench --count 200 "s + args));
        EXPECT_EQ(std::to_string(bench.status) + bench.err, "0");  // no progress unless standard error is a terminal
        EXPECT_EQ(bench.out.rfind("one-way: 200 messages of "s + size + " bytes in ", 0), 0u) << bench.out;
        EXPECT_NE(bench.out.find("\none-way " + std::string(calls)), std::string::npos) << bench.out;
        EXPECT_NE(bench.out.find(" us (200 round trips)\n"), std::string::npos) << bench.out;
    }
    // The report leaves no scratch files beside its output, and its $TMPDIR as it found it.
    ScratchScope const scratch("colloquy_tool");
    std::string const path = scratch.path + "/report.txt", gathering = scratch.path + "/tmp";
    mkdir(gathering.c_str(), 0700);
    EnvScope const temporary("TMPDIR", gathering.c_str());
    expectResult(tool({"report", "--output", path}), 0, "", "report written to " + path + "\n");
    EXPECT_EQ(gReadFile(path).rfind("\n" + std::string(79, '=') + "\nComplete Report For Host: ", 0), 0u);
    std::remove(path.c_str());
    EXPECT_EQ(rmdir(gathering.c_str()) + rmdir(scratch.path.c_str()), 0) << "the report left files or took $TMPDIR";
}

}  // namespace
