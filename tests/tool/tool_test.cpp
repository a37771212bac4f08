// The colloquy tool end to end: real processes, pipes and loopback sockets.
#include "files.h"
#include "process.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

std::string const kTool = COLLOQUY_TOOL_PATH;

ProcessResult tool(std::vector<std::string> args, std::string const& input = "") {
    args.insert(args.begin(), kTool);
    return runProcess(args, input);
}

// A failure is a non-zero status and exactly one line on standard error.
void expectOneLineFailure(ProcessResult const& r, int status) {
    EXPECT_EQ(r.status, status) << r.err;
    ASSERT_FALSE(r.err.empty());
    EXPECT_EQ(r.err.find('\n'), r.err.size() - 1) << r.err;
    EXPECT_EQ(r.err.rfind("colloquy", 0), 0u) << r.err;
}

TEST(Tool, EncodeThenDecodeKeepsEveryByte) {
    ProcessResult const encoded = tool({"encode", "bin=a\\x00b\\xff\\x0a", "blank= x ", "empty=", "quote='5 x"});
    ASSERT_EQ(encoded.status, 0) << encoded.err;
    EXPECT_EQ(encoded.out.substr(0, 2), "4 ");
    EXPECT_EQ(encoded.out.back(), ' ');
    ProcessResult const decoded = tool({"decode"}, encoded.out);
    ASSERT_EQ(decoded.status, 0) << decoded.err;
    EXPECT_EQ(decoded.out, "bin\ta\\x00b\\xff\\x0a\nblank\t x \nempty\t\nquote\t'5 x\n");

    // Pairs on standard input, one per line, give the same text form.
    ProcessResult const fromStdin = tool({"encode"}, "bin=a\\x00b\\xff\\x0a\nblank= x \nempty=\nquote='5 x\n");
    ASSERT_EQ(fromStdin.status, 0);
    EXPECT_EQ(tool({"decode"}, fromStdin.out).out, decoded.out);
}

TEST(Tool, EncodeHubDumpAndDecodeJson) {
    ProcessResult const hub = tool({"encode", "--hub", "agent", "mode=fast"});
    ASSERT_EQ(hub.status, 0) << hub.err;
    EXPECT_EQ(hub.out, "2 '5 $FROM '5 agent '4 mode '4 fast");
    ProcessResult const json = tool({"decode", "--json"}, hub.out);
    ASSERT_EQ(json.status, 0) << json.err;
    EXPECT_EQ(json.out, "{\"$FROM\":\"agent\",\"mode\":\"fast\"}\n");

    // UTF-8 stays readable; other bytes are escaped one by one.
    ProcessResult const mixed = tool({"decode", "--json"}, tool({"encode", "k=\\xc3\\xa9\\xff\\x00\"\\x5c"}).out);
    EXPECT_EQ(mixed.out, "{\"k\":\"\xc3\xa9\\u00ff\\u0000\\\"\\\\\"}\n");
}

TEST(Tool, PackThenUnpack) {
    ProcessResult const body = tool({"encode", "k=v"});
    ProcessResult const packed =
        tool({"pack", "--to", "svc@hostB", "--from", "agent@hostA", "--qtype", "3", "--user-value", "7"}, body.out);
    ASSERT_EQ(packed.status, 0) << packed.err;
    EXPECT_EQ(packed.out.substr(0, 2), "8 ");
    ProcessResult const shown = tool({"unpack"}, packed.out);
    ASSERT_EQ(shown.status, 0) << shown.err;
    EXPECT_EQ(shown.out,
              "to: svc@hostB\nfrom: agent@hostA\nqtype: 3\nuser value: 7\nformat: 352\nbody: 12 bytes\n"
              "pairs: 1\n  k\tv\n");
    ProcessResult const json = tool({"unpack", "--json"}, packed.out);
    EXPECT_NE(json.out.find("\"pairs\":{\"k\":\"v\"}"), std::string::npos) << json.out;
}

TEST(Tool, ConvertRecomputesLengths) {
    ProcessResult const r = tool({"convert", "--from", "1252", "--to", "65001"}, "1 '1 k '1 \xe9 ");
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "1 '1 k '2 \xc3\xa9 ");
}

TEST(Tool, SendInOneProcessListenInAnother) {
    BackgroundProcess listener({kTool, "listen", "0", "--count", "2", "--json"});
    std::string const line = listener.readErrLine(10);
    ASSERT_EQ(line.rfind("listening on port ", 0), 0u) << line;
    std::string const port = line.substr(18);
    ProcessResult const sent = tool({"send", "127.0.0.1", port, "--type", "7", "--subtype", "-1", "--to", "svc@b",
                                     "--from", "agent@a", "--count", "2", "city=Z\\xc3\\xbcrich"});
    ASSERT_EQ(sent.status, 0) << sent.err;
    ProcessResult const heard = listener.finish(10);
    ASSERT_EQ(heard.status, 0) << heard.err;
    EXPECT_NE(heard.out.find("{\"n\":1,"), std::string::npos);
    EXPECT_NE(heard.out.find("{\"n\":2,"), std::string::npos);
    EXPECT_NE(heard.out.find("\"type\":7,\"subType\":-1"), std::string::npos) << heard.out;
    EXPECT_NE(heard.out.find("\"from\":\"agent@a\""), std::string::npos) << heard.out;
    EXPECT_NE(heard.out.find("\"pairs\":{\"city\":\"Z\xc3\xbcrich\"}"), std::string::npos) << heard.out;
}

TEST(Tool, ListenRefusesAMessageOverMaxSize) {
    BackgroundProcess listener({kTool, "listen", "0", "--max-size", "10"});
    std::string const line = listener.readErrLine(10);
    ASSERT_EQ(line.rfind("listening on port ", 0), 0u) << line;
    tool({"send", "127.0.0.1", line.substr(18), "--type", "1", "--subtype", "1", "key=a value longer than ten"});
    ProcessResult const heard = listener.finish(10);
    expectOneLineFailure(heard, 1);
    EXPECT_NE(heard.err.find("--max-size 10"), std::string::npos);
}

TEST(Tool, DemoAndBenchRunTheirExchange) {
    ProcessResult const demo = tool({"demo"});
    EXPECT_EQ(demo.status, 0) << demo.out << demo.err;
    EXPECT_NE(demo.out.find("what arrived equals what was sent"), std::string::npos) << demo.out;
    ProcessResult const bench = tool({"bench", "--size", "100", "--count", "200"});
    ASSERT_EQ(bench.status, 0) << bench.err;
    EXPECT_NE(bench.out.find("messages/s"), std::string::npos) << bench.out;
    EXPECT_NE(bench.out.find("p99"), std::string::npos) << bench.out;
}

TEST(Tool, ReportIsWrittenWithoutLeavingScratchFiles) {
    char dir[] = "/tmp/colloquy_tool_XXXXXX";
    ASSERT_NE(::mkdtemp(dir), nullptr);
    std::string const path = std::string(dir) + "/report.txt";
    ProcessResult const r = tool({"report", "--output", path});
    ASSERT_EQ(r.status, 0) << r.err;
    std::string const report = gReadFile(path);
    EXPECT_EQ(report.find("\n" + std::string(79, '=') + "\nComplete Report For Host: "), 0u) << report;
    EXPECT_NE(report.find("Vantage.ini File: "), std::string::npos);
    std::remove(path.c_str());
    EXPECT_EQ(::rmdir(dir), 0) << "the report left files beside its output";
    expectOneLineFailure(tool({"report", "--output", "/nonexistent-dir/report.txt"}), 1);
}

TEST(Tool, BadInputGetsOneLineAndNonZeroStatus) {
    expectOneLineFailure(tool({"decode"}, "1 '2 ab 3 xyz "), 1);
    expectOneLineFailure(tool({"decode"}, ""), 1);
    expectOneLineFailure(tool({"decode"}, "1 '-5 ab '3 xyz "), 1);
    expectOneLineFailure(tool({"unpack"}, "8 6 4 6 6 2 2 2 4 hostB"), 1);
    expectOneLineFailure(tool({"unpack"}, std::string("\xff\x00\x01", 3)), 1);
    expectOneLineFailure(tool({"convert", "--from", "99999", "--to", "65001"}, "1 '1 k '1 v "), 1);
    expectOneLineFailure(tool({"send", "127.0.0.1", "1", "--type", "1", "--subtype", "1", "k=v"}), 1);
    expectOneLineFailure(tool({"encode", "k=\\q"}), 2);
    expectOneLineFailure(tool({"encode", "novalue"}), 2);
    expectOneLineFailure(tool({"pack", "--to", "svc"}), 2);
    expectOneLineFailure(tool({"listen", "70000"}), 2);
    expectOneLineFailure(tool({"bench", "--count", "0"}), 2);
    expectOneLineFailure(tool({"frobnicate"}), 2);
    EXPECT_EQ(tool({"--help"}).status, 0);
    EXPECT_EQ(tool({"send", "--help"}).status, 0);
}

}  // namespace
