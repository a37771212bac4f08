// The colloquy tool end to end: real processes, files on its standard streams, loopback sockets.
#include "files.h"

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>
#include <csignal>
#include <cstdio>
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

// A failure is the given status and exactly one line on standard error, naming the tool.
void expectOneLineFailure(Result const& r, int status) {
    EXPECT_EQ(r.status, status) << r.err;
    ASSERT_FALSE(r.err.empty());
    EXPECT_EQ(r.err.find('\n'), r.err.size() - 1) << r.err;
    EXPECT_EQ(r.err.rfind("colloquy", 0), 0u) << r.err;
}

TEST(Tool, EncodeThenDecodeKeepsEveryByte) {
    Result const encoded = tool({"encode", "bin=a\\x00b\\xff\\x0a", "blank= x ", "empty=", "quote='5 x"});
    ASSERT_EQ(encoded.status, 0) << encoded.err;
    EXPECT_EQ(encoded.out.substr(0, 2), "4 ");
    EXPECT_EQ(encoded.out.back(), ' ');
    Result const decoded = tool({"decode"}, encoded.out);
    ASSERT_EQ(decoded.status, 0) << decoded.err;
    EXPECT_EQ(decoded.out, "bin\ta\\x00b\\xff\\x0a\nblank\t x \nempty\t\nquote\t'5 x\n");
    // Pairs on standard input, one per line, give the same text form.
    EXPECT_EQ(tool({"encode"}, "bin=a\\x00b\\xff\\x0a\nblank= x \nempty=\nquote='5 x\n").out, encoded.out);

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

    // A message over --max-size ends the listener with one line.
    Tool small({"listen", "0", "--max-size", "10"});
    tool({"send", "127.0.0.1", small.port(), "--type", "1", "--subtype", "1", "key=a value longer than ten"});
    Result const refused = small.finish();
    expectOneLineFailure(refused, 1);
    EXPECT_NE(refused.err.find("--max-size 10"), std::string::npos);
}

TEST(Tool, DemoBenchAndReportRun) {
    Result const demo = tool({"demo"});
    EXPECT_EQ(demo.status, 0) << demo.out << demo.err;
    EXPECT_NE(demo.out.find("what arrived equals what was sent"), std::string::npos) << demo.out;
    Result const bench = tool({"bench", "--size", "100", "--count", "200"});
    ASSERT_EQ(bench.status, 0) << bench.err;
    EXPECT_NE(bench.out.find("messages/s"), std::string::npos) << bench.out;
    EXPECT_NE(bench.out.find("p99"), std::string::npos) << bench.out;

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
        {{"unpack"}, "8 6 4 6 6 2 2 2 4 hostB", 1},
        {{"convert", "--from", "99999", "--to", "65001"}, "1 '1 k '1 v ", 1},
        {{"send", "127.0.0.1", "1", "--type", "1", "--subtype", "1", "k=v"}, "", 1},
        {{"report", "--output", "/nonexistent-dir/report.txt"}, "", 1},
        {{"encode", "k=\\q"}, "", 2},
        {{"pack", "--to", "svc"}, "", 2},
        {{"listen", "70000"}, "", 2},
        {{"frobnicate"}, "", 2},
    };
    for (Case const& c : cases) {
        SCOPED_TRACE(c.args.back());
        expectOneLineFailure(tool(c.args, c.input), c.status);
    }
    EXPECT_EQ(tool({"--help"}).status, 0);
    EXPECT_EQ(tool({"send", "--help"}).status, 0);
}

}  // namespace
