// The colloquy tool end to end: real processes, files on its standard streams, loopback sockets.
#include "files.h"
#include "msghdr.h"
#include "streamtest.h"

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace {

struct Result {
    int status;  // exit status, or 128 + signal
    std::string out, err;
};

std::string gContents(FILE* file) { return gReadFile("/proc/self/fd/" + std::to_string(fileno(file))); }

// The tool as a child process reading `input` and writing into temporary files; an alarm set
// before exec ends it should it hang.
class Tool {
  public:
    explicit Tool(std::vector<std::string> args, std::string const& input = "") {
        FILE* const in = std::tmpfile();
        std::fwrite(input.data(), 1, input.size(), in);
        std::rewind(in);
        args.insert(args.begin(), COLLOQUY_TOOL_PATH);
        std::vector<char*> argv;
        for (std::string& arg : args) argv.push_back(arg.data());
        argv.push_back(nullptr);
        mPid = fork();
        if (mPid == 0) {
            dup2(fileno(in), 0);
            dup2(fileno(mOut), 1);
            dup2(fileno(mErr), 2);
            alarm(30);
            execv(argv[0], argv.data());
            _exit(127);
        }
        std::fclose(in);
    }
    ~Tool() {
        if (mPid > 0 && kill(mPid, SIGKILL) == 0) waitpid(mPid, nullptr, 0);
        std::fclose(mOut);
        std::fclose(mErr);
    }
    // The port a listener announces on its first line, waited for a bounded while.
    std::string port() {
        std::string const prefix = "listening on port ";
        std::string err;
        for (int i = 0; i < 1000 && (mAnnounced = err.find('\n') + 1) == 0; ++i) {
            usleep(10 * 1000);
            err = gContents(mErr);
        }
        if (err.rfind(prefix, 0) == 0 && mAnnounced > prefix.size())
            return err.substr(prefix.size(), mAnnounced - 1 - prefix.size());
        ADD_FAILURE() << "no port announced: " << err;
        return "";
    }
    // Waits a bounded while for `text` on standard output (or standard error); true when it came.
    bool awaits(std::string const& text, bool onError = false) {
        for (int i = 0; i < 1000; ++i) {
            if (gContents(onError ? mErr : mOut).find(text) != std::string::npos) return true;
            usleep(10 * 1000);
        }
        return false;
    }
    // Waits for the end; standard error without the line port() has read.
    Result finish() {
        int status = 0;
        waitpid(std::exchange(mPid, -1), &status, 0);
        int const code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        return {code, gContents(mOut), gContents(mErr).substr(mAnnounced)};
    }

  private:
    FILE* mOut = std::tmpfile();
    FILE* mErr = std::tmpfile();
    pid_t mPid = -1;
    size_t mAnnounced = 0;
};

Result tool(std::vector<std::string> args, std::string const& input = "") {
    return Tool(std::move(args), input).finish();
}

// Every line of `err` names the tool and holds printable ASCII only.
void expectErrorLines(std::string const& err) {
    EXPECT_TRUE(err.empty() || err.back() == '\n') << err;
    for (size_t start = 0, end; start < err.size(); start = end + 1) {
        end = err.find('\n', start);
        std::string const line = err.substr(start, end - start);
        EXPECT_EQ(line.rfind("colloquy", 0), 0u) << line;
        for (unsigned char c : line) EXPECT_TRUE(c >= 0x20 && c < 0x7f) << "byte " << int(c) << " in " << line;
    }
}

// A failure is the given status and exactly one line on standard error, naming the tool.
void expectOneLineFailure(Result const& r, int status) {
    EXPECT_EQ(r.status, status) << r.err;
    ASSERT_FALSE(r.err.empty());
    EXPECT_EQ(r.err.find('\n'), r.err.size() - 1) << r.err;
    expectErrorLines(r.err);
}

// A raw loopback connection to a listener, for peers that misbehave.
int connectTo(std::string const& port) {
    int const fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(std::stoi(port)));
    EXPECT_EQ(::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0) << port;
    return fd;
}

// The 8 header bytes of a message, `length` stored as its low 32 bits.
std::string header(long length, short type = 1, short subType = 2) {
    c_MessageHeader h;
    SSMMakeMessageHeader(length, type, subType, &h);
    return std::string(reinterpret_cast<char const*>(&h), sizeof h);
}

TEST(Tool, EncodeThenDecodeKeepsEveryByte) {
    Result const encoded = tool({"encode", "bin=a\\x00b\\xff\\x0a", "blank= x ", "empty=", "quote='5 x"});
    ASSERT_EQ(encoded.status, 0) << encoded.err;
    EXPECT_EQ(encoded.out.substr(0, 2), "4 ");
    EXPECT_EQ(encoded.out.back(), ' ');
    Result const decoded = tool({"decode"}, encoded.out);
    ASSERT_EQ(decoded.status, 0) << decoded.err;
    EXPECT_EQ(decoded.out, "bin\ta\\x00b\\xff\\x0a\nblank\t x \nempty\t\nquote\t'5 x\n");
    // Pairs on standard input, one per line, give the same record (its text form may list the
    // pairs in another order: each process places keys by a hash keyed at random).
    EXPECT_EQ(tool({"decode"}, tool({"encode"}, "bin=a\\x00b\\xff\\x0a\nblank= x \nempty=\nquote='5 x\n").out).out,
              decoded.out);

    // A hub dump decoded as JSON.
    Result const json = tool({"decode", "--json"}, tool({"encode", "--hub", "agent", "mode=fast"}).out);
    ASSERT_EQ(json.status, 0) << json.err;
    EXPECT_EQ(json.out, "{\"$FROM\":\"agent\",\"mode\":\"fast\"}\n");
    // UTF-8 stays readable; other bytes are escaped one by one.
    Result const mixed = tool({"decode", "--json"}, tool({"encode", "k=\\xc3\\xa9\\xff\\x00\"\\x5c"}).out);
    EXPECT_EQ(mixed.out, "{\"k\":\"\xc3\xa9\\u00ff\\u0000\\\"\\\\\"}\n");
}

TEST(Tool, PackUnpackAndConvert) {
    Result const packed =
        tool({"pack", "--to", "svc@hostB", "--from", "agent@hostA", "--qtype", "3", "--user-value", "7"},
             tool({"encode", "k=v"}).out);
    ASSERT_EQ(packed.status, 0) << packed.err;
    Result const shown = tool({"unpack"}, packed.out);
    ASSERT_EQ(shown.status, 0) << shown.err;
    EXPECT_EQ(shown.out,
              "to: svc@hostB\nfrom: agent@hostA\nqtype: 3\nuser value: 7\nformat: 352\nbody: 12 bytes\n"
              "pairs: 1\n  k\tv\n");
    // A body with bytes after its text form shows no pairs.
    Result const junk =
        tool({"unpack"}, tool({"pack", "--to", "svc@hostB", "--from", "agent@hostA"}, "1 '1 k '1 v x").out);
    ASSERT_EQ(junk.status, 0) << junk.err;
    EXPECT_EQ(junk.out.find("pairs:"), std::string::npos) << junk.out;
    // Converting recomputes the lengths.
    Result const converted = tool({"convert", "--from", "1252", "--to", "65001"}, "1 '1 k '1 \xe9 ");
    ASSERT_EQ(converted.status, 0) << converted.err;
    EXPECT_EQ(converted.out, "1 '1 k '2 \xc3\xa9 ");
}

TEST(Tool, SendInOneProcessListenInAnother) {
    Tool listener({"listen", "0", "--count", "2", "--json"});
    Result const sent = tool({"send", "127.0.0.1", listener.port(), "--type", "7", "--subtype", "-1", "--to", "svc@b",
                              "--from", "agent@a", "--count", "2", "city=Z\\xc3\\xbcrich"});
    ASSERT_EQ(sent.status, 0) << sent.err;
    Result const heard = listener.finish();
    ASSERT_EQ(heard.status, 0) << heard.err;
    for (char const* part : {"{\"n\":1,", "{\"n\":2,", "\"type\":7,\"subType\":-1", "\"from\":\"agent@a\"",
                             "\"pairs\":{\"city\":\"Z\xc3\xbcrich\"}"})
        EXPECT_NE(heard.out.find(part), std::string::npos) << part << " in " << heard.out;

    // In batches: the same messages, written two at a time.
    Tool batched({"listen", "0", "--count", "3", "--json"});
    Result const sentBatched = tool(
        {"send", "127.0.0.1", batched.port(), "--type", "5", "--subtype", "6", "--count", "3", "--batch", "2", "k=v"});
    ASSERT_EQ(sentBatched.status, 0) << sentBatched.err;
    Result const heardBatched = batched.finish();
    ASSERT_EQ(heardBatched.status, 0) << heardBatched.err;
    for (char const* part : {"{\"n\":3,", "\"type\":5,\"subType\":6", "\"pairs\":{\"k\":\"v\"}"})
        EXPECT_NE(heardBatched.out.find(part), std::string::npos) << part << " in " << heardBatched.out;
}

TEST(Tool, ListenServesEveryPeerAtOnce) {
    // A peer that connects and stays silent holds up nobody: the next peer's message is printed
    // while it is still connected.
    Tool listener({"listen", "0", "--count", "1"});
    std::string port = listener.port();
    nStreamTest::RawFd silent(connectTo(port));
    ASSERT_EQ(tool({"send", "127.0.0.1", port, "--type", "1", "--subtype", "2", "k=v"}).status, 0);
    EXPECT_TRUE(listener.awaits("message 1: 12 bytes, type 1, subtype 2\n")) << "not while a silent peer is connected";
    EXPECT_EQ(listener.finish().status, 0);

    // Over --max-connections a connection is refused in one line; those open are still served.
    Tool full({"listen", "0", "--count", "1", "--max-connections", "1"});
    port = full.port();
    nStreamTest::RawFd first(connectTo(port));
    nStreamTest::RawFd second(connectTo(port));
    EXPECT_TRUE(full.awaits("refused, --max-connections 1 are open\n", true));
    EXPECT_TRUE(nStreamTest::rawReceive(second, 1).empty());
    nStreamTest::rawSend(first, nStreamTest::bytesOf(header(12) + "1 '1 k '1 v "));
    Result const served = full.finish();
    EXPECT_EQ(served.status, 0) << served.err;
    EXPECT_NE(served.out.find("message 1: 12 bytes"), std::string::npos) << served.out;

    // Messages of peers sending at the same time arrive whole, numbered in one sequence, none lost.
    Tool busy({"listen", "0", "--count", "200", "--json"});
    port = busy.port();
    std::vector<std::unique_ptr<Tool>> senders;
    for (char const* value : {"a", "b", "c", "d"})
        senders.push_back(std::make_unique<Tool>(std::vector<std::string>{
            "send", "127.0.0.1", port, "--type", "1", "--subtype", "2", "--count", "50", std::string("k=") + value}));
    for (auto& sender : senders) EXPECT_EQ(sender->finish().status, 0);
    Result const heard = busy.finish();
    ASSERT_EQ(heard.status, 0) << heard.err;
    std::map<std::string, int> perValue;
    size_t start = 0;
    for (int n = 1; n <= 200; ++n) {
        size_t const end = heard.out.find('\n', start);
        ASSERT_NE(end, std::string::npos) << "message " << n << " missing";
        std::string const line = heard.out.substr(start, end - start);
        start = end + 1;
        EXPECT_EQ(line.rfind("{\"n\":" + std::to_string(n) + ",\"length\":12,", 0), 0u) << line;
        size_t const pairs = line.find(",\"pairs\":{\"k\":\"");
        ASSERT_NE(pairs, std::string::npos) << line;
        EXPECT_EQ(line.substr(pairs + 16), "\"}}") << line;
        ++perValue[line.substr(pairs + 15, 1)];
    }
    EXPECT_EQ(start, heard.out.size());
    EXPECT_EQ(perValue, (std::map<std::string, int>{{"a", 50}, {"b", 50}, {"c", 50}, {"d", 50}}));
}

TEST(Tool, ListenDropsABadConnectionInOneLineAndGoesOn) {
    std::string const body = header(40) + "0123456789";  // a 40-byte message that stops after 10
    enum End { kStay, kClose, kReset };
    struct Case {
        std::string bytes;
        End end;
        std::string reported;  // after "colloquy listen: 127.0.0.1:PORT: "
    } const cases[] = {
        {header(101), kStay, "peer announced a 101-byte message, over --max-size 100; connection dropped\n"},
        {header(-1), kStay, "peer announced a 4294967295-byte message, over --max-size 100; connection dropped\n"},
        {header(40).substr(0, 3), kClose, "closed inside a header after 3 of 8 bytes; connection dropped\n"},
        {body, kClose, "closed inside a 40-byte body after 10 bytes; connection dropped\n"},
        {body, kReset, "Connection reset by peer"},
        {body, kStay, "no byte for 1 s inside a 40-byte body after 10 bytes; connection dropped\n"},
    };
    Tool listener({"listen", "0", "--count", std::to_string(std::size(cases)), "--max-size", "100", "--timeout", "1"});
    std::string const port = listener.port();
    std::string const good = header(12) + "1 '1 k '1 v ";
    int n = 0;
    for (Case const& c : cases) {
        SCOPED_TRACE(c.reported);
        nStreamTest::RawFd bad(connectTo(port));
        nStreamTest::rawSend(bad, nStreamTest::bytesOf(c.bytes));
        if (c.end == kClose) bad.reset();
        if (c.end == kReset) bad.abort();
        EXPECT_TRUE(listener.awaits(c.reported, true));
        if (c.end == kStay) {
            EXPECT_TRUE(nStreamTest::rawReceive(bad, 1).empty()) << "the listener kept the connection";
        }
        // The next peer is served.
        nStreamTest::RawFd next(connectTo(port));
        nStreamTest::rawSend(next, nStreamTest::bytesOf(good));
        EXPECT_TRUE(listener.awaits("message " + std::to_string(++n) + ": 12 bytes"));
    }
    Result const heard = listener.finish();
    EXPECT_EQ(heard.status, 0) << heard.err;
    expectErrorLines(heard.err);
    EXPECT_EQ(std::count(heard.err.begin(), heard.err.end(), '\n'), static_cast<long>(std::size(cases))) << heard.err;
}

TEST(Tool, TapRelaysSendToListenAndPrintsWhatPasses) {
    Tool listener({"listen", "0", "--count", "2", "--json"});
    Tool tap({"tap", "0", "127.0.0.1", listener.port(), "--connections", "1", "--json"});
    Result const sent = tool({"send", "127.0.0.1", tap.port(), "--type", "7", "--subtype", "-1", "--to", "svc@b",
                              "--from", "agent@a", "--count", "2", "city=Z\\xc3\\xbcrich", "bin=a\\x00\\xff"});
    ASSERT_EQ(sent.status, 0) << sent.err;
    // The sender closed, the tap passed the end on, the listener got its two messages and
    // closed in turn, and the tap, told to serve one connection, ended.
    Result const heard = listener.finish();
    Result const tapped = tap.finish();
    ASSERT_EQ(heard.status, 0) << heard.err;
    ASSERT_EQ(tapped.status, 0) << tapped.err;
    EXPECT_NE(heard.out.find("{\"n\":2,"), std::string::npos) << heard.out;
    EXPECT_NE(heard.out.find("\"pairs\":{\"bin\":\"a\\u0000\\u00ff\",\"city\":\"Z\xc3\xbcrich\"}"), std::string::npos)
        << heard.out;
    // The tap prints each message as listen does, behind the connection and the direction.
    std::string expected;
    std::istringstream lines(heard.out);
    for (std::string line; std::getline(lines, line);)
        expected += "{\"connection\":1,\"direction\":\"client->server\"," + line.substr(1) + "\n";
    EXPECT_EQ(tapped.out, expected);
}

// True when the peer of `fd` ends the stream (orderly) within the tests' patience.
bool endedByPeer(nStreamTest::RawFd const& fd) {
    char c;
    return nStreamTest::readable(fd.get()) && ::recv(fd.get(), &c, 1, 0) == 0;
}

TEST(Tool, TapForwardsEveryByteBothWaysAndPassesEitherCloseOn) {
    using nStreamTest::rawAccept;
    using nStreamTest::rawReceive;
    using nStreamTest::rawSend;
    unsigned short serverPort = 0;
    nStreamTest::RawFd const listener = nStreamTest::rawListener(serverPort);
    Tool tap({"tap", "0", "127.0.0.1", std::to_string(serverPort), "--connections", "2", "--max-size", "64"});
    std::string const tapPort = tap.port();

    // Connection 1: a message in two pieces and one over --max-size, a reply, then the server
    // closes first.
    nStreamTest::RawFd client(connectTo(tapPort));
    nStreamTest::RawFd server = rawAccept(listener);
    std::string const request = header(12, 7, 9) + "1 '1 k '1 v ";
    std::string const big = header(100, 1, 1) + std::string(100, 'x');
    rawSend(client, nStreamTest::bytesOf(request.substr(0, 5)));
    rawSend(client, nStreamTest::bytesOf(request.substr(5) + big));
    EXPECT_EQ(rawReceive(server, request.size() + big.size()), nStreamTest::bytesOf(request + big));
    std::string const reply = header(4, 2, -1) + "raw\xff";
    rawSend(server, nStreamTest::bytesOf(reply));
    EXPECT_EQ(rawReceive(client, reply.size()), nStreamTest::bytesOf(reply));
    server.reset();
    EXPECT_TRUE(endedByPeer(client));
    client.reset();

    // Connection 2: a header announcing a negative length, then anything; the client closes first.
    client.reset(connectTo(tapPort));
    server = rawAccept(listener);
    std::string const malformed = header(-5, 1, 1) + std::string("\0junk", 5) + request + std::string("\0\xff", 2);
    rawSend(client, nStreamTest::bytesOf(malformed));
    EXPECT_EQ(rawReceive(server, malformed.size()), nStreamTest::bytesOf(malformed));
    client.reset();
    EXPECT_TRUE(endedByPeer(server));
    server.reset();

    Result const tapped = tap.finish();
    ASSERT_EQ(tapped.status, 0) << tapped.err;
    // The directions of a connection print independently: each report is checked on its own.
    std::vector<std::string> const reports = {
        "connection 1 client->server message 1: 12 bytes, type 7, subtype 9\n"
        "  header: 00 00 00 0c 00 07 00 09\n  pairs: 1\n    k\tv\n",
        "connection 1 client->server message 2: 100 bytes, type 1, subtype 1\n"
        "  header: 00 00 00 64 00 01 00 01\n  body: not shown (over --max-size)\n",
        "connection 1 server->client message 1: 4 bytes, type 2, subtype -1\n"
        "  header: 00 00 00 04 00 02 ff ff\n  body: raw\\xff\n",
        "connection 2 client->server: header ff ff ff fb 00 01 00 01 announces a body of -5 bytes: the rest of "
        "this direction is forwarded unframed\n"};
    size_t total = 0;
    for (auto const& report : reports) {
        EXPECT_NE(tapped.out.find(report), std::string::npos) << report << "in\n" << tapped.out;
        total += report.size();
    }
    EXPECT_EQ(tapped.out.size(), total) << tapped.out;
}

TEST(Tool, DemoBenchAndReportRun) {
    Result const demo = tool({"demo"});
    EXPECT_EQ(demo.status, 0) << demo.out << demo.err;
    EXPECT_NE(demo.out.find("what arrived equals what was sent"), std::string::npos) << demo.out;
    Result const bench = tool({"bench", "--size", "100", "--count", "200"});
    ASSERT_EQ(bench.status, 0) << bench.err;
    EXPECT_NE(bench.out.find("messages/s"), std::string::npos) << bench.out;
    EXPECT_NE(bench.out.find("p99"), std::string::npos) << bench.out;
    // 25 batches of 8 messages, each in one system call.
    Result const batchedBench = tool({"bench", "--size", "100", "--count", "200", "--batch", "8"});
    ASSERT_EQ(batchedBench.status, 0) << batchedBench.err;
    EXPECT_NE(batchedBench.out.find("in batches of 8: system calls per message: sender 0.1250,"), std::string::npos)
        << batchedBench.out;

    // The report leaves no scratch files beside its output.
    std::string const dir = gScratchDirectory("colloquy_tool");
    ASSERT_FALSE(dir.empty());
    std::string const path = dir + "/report.txt";
    Result const r = tool({"report", "--output", path});
    ASSERT_EQ(r.status, 0) << r.err;
    std::string const report = gReadFile(path);
    EXPECT_EQ(report.find("\n" + std::string(79, '=') + "\nComplete Report For Host: "), 0u) << report;
    std::remove(path.c_str());
    EXPECT_EQ(rmdir(dir.c_str()), 0) << "the report left files beside its output";
}

TEST(Tool, BadInputGetsOneLineAndNonZeroStatus) {
    struct Case {
        std::vector<std::string> args;
        std::string input;
        int status;  // 1: the input or the network failed; 2: the command line is wrong
    } const cases[] = {
        {{"decode"}, "1 '2 ab 3 xyz ", 1},
        {{"decode"}, "1 '1 a '1 b TRAILING", 1},
        {{"decode"}, "0 ", 1},
        {{"decode"}, "-1 ", 1},
        {{"decode"}, "2 '1 a '1 b '1 a '1 c ", 1},
        {{"unpack"}, "8 6 4 6 6 2 2 2 4 hostB", 1},
        {{"convert", "--from", "99999", "--to", "65001"}, "1 '1 k '1 v ", 1},
        {{"convert", "--from", "1252", "--to", "65001", "extra"}, "", 2},
        {{"send", "127.0.0.1", "1", "--type", "1", "--subtype", "1", "k=v"}, "", 1},
        {{"send", "127.0.0.1", "1", "--type", "1", "--subtype", "1", "--batch", "0", "k=v"}, "", 2},
        {{"report", "--output", "/nonexistent-dir/report.txt"}, "", 1},
        {{"encode", "k=\\q"}, "", 2},
        {{"pack", "--to", "svc"}, "", 2},
        {{"listen", "70000"}, "", 2},
        {{"tap", "0", "127.0.0.1"}, "", 2},
        {{"tap", "0", "127.0.0.1", "0"}, "", 2},
        {{"frobnicate"}, "", 2},
        {{"fro\nb\x1b[2J"}, "", 2},
        {{"encode", "--k\nv"}, "", 2},
    };
    for (Case const& c : cases) {
        SCOPED_TRACE(c.args.back());
        expectOneLineFailure(tool(c.args, c.input), c.status);
    }
    EXPECT_EQ(tool({"--help"}).status, 0);
    EXPECT_EQ(tool({"send", "--help"}).status, 0);
}

}  // namespace
