// colloquy: records, messages and the stream transport from a shell.
#include "cli.h"
#include "commands.h"

#include "nlog.h"

#include <signal.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>

namespace {

struct Command {
    char const* name;
    int (*run)(colloquy::Words const&);
    char const* usage;
    char const* summary;
};

Command const kCommands[] = {
    {"demo", colloquy::cmdDemo, "demo",
     "send one record as a message over loopback and read it back, printing every stage"},
    {"encode", colloquy::cmdEncode, "encode [--hub FROM] [key=value ...]",
     "write the text form of the pairs (or, with --hub, a hub key dump); without pairs, read\n"
     "      key=value lines from standard input; \\xNN and \\\\ escapes for any byte"},
    {"decode", colloquy::cmdDecode, "decode [--json]",
     "read a text form on standard input and print key<TAB>value lines (escaped) or JSON"},
    {"pack", colloquy::cmdPack, "pack --to NAME@HOST --from NAME@HOST [--qtype N] [--user-value N]",
     "wrap standard input as the body of a message and write the packed message"},
    {"unpack", colloquy::cmdUnpack, "unpack [--json]",
     "print the fields of a packed message read on standard input (and its pairs)"},
    {"send", colloquy::cmdSend,
     "send HOST PORT --type T --subtype S [--to NAME@HOST --from NAME@HOST [--qtype N]\n"
     "      [--user-value N]] [key=value ...|--raw FILE] [--count N] [--batch N]",
     "connect and send typed messages (a record's text form, optionally in an envelope);\n"
     "      --batch N writes N messages at a time with as few system calls as possible"},
    {"listen", colloquy::cmdListen,
     "listen PORT [--count N] [--json] [--max-size BYTES] [--timeout SECONDS]\n"
     "      [--max-connections N]",
     "serve every connection at once and print each message as it arrives (PORT 0 picks a free\n"
     "      port); a connection that goes bad (over --max-size, closed or reset inside a message,\n"
     "      silent for --timeout inside a message) is reported in one line and dropped"},
    {"tap", colloquy::cmdTap, "tap LISTEN_PORT HOST PORT [--connections N] [--json] [--max-size BYTES]",
     "relay connections to HOST:PORT, printing every message in both directions as listen does"},
    {"convert", colloquy::cmdConvert, "convert --from CP --to CP",
     "convert a text form on standard input between code pages (e.g. 1252 to 65001)"},
    {"report", colloquy::cmdReport, "report [--output FILE]", "write the host's support report"},
    {"bench", colloquy::cmdBench, "bench [--size BYTES] [--count N] [--batch N]",
     "measure loopback throughput (one send per message, or --batch N messages at a time),\n"
     "      system calls per message and round-trip latency"},
};

void printHelp(std::FILE* out) {
    std::fprintf(out, "usage: colloquy COMMAND [options]\n\ncommands:\n");
    for (Command const& c : kCommands) std::fprintf(out, "  %s\n      %s\n", c.usage, c.summary);
    std::fprintf(out,
                 "\nexit status: 0 success, 1 failure, 2 usage error; `colloquy COMMAND --help` for one command\n");
}

void printError(std::string const& command, std::string const& what) {
    std::fputs(colloquy::errorLine(command, what).c_str(), stderr);
}

bool wantsHelp(colloquy::Words const& words) {
    for (auto const& w : words)
        if (w == "--help" || w == "-h") return true;
    return false;
}

}  // namespace

int main(int argc, char** argv) {
    // A peer that goes away must show up as a failed send, not kill the tool.
    ::signal(SIGPIPE, SIG_IGN);
    // The library's log records would mix with the tool's own output: they are shown only when
    // COLLOQUY_LOG asks for them.
    if (!std::getenv("COLLOQUY_LOG"))
        for (char const* tag : {"Error", "Warning", "Trace", "Execution", "ColloquyT"}) nLog::gEnable(tag, false);
    if (argc < 2 || !std::strcmp(argv[1], "--help") || !std::strcmp(argv[1], "-h") || !std::strcmp(argv[1], "help")) {
        printHelp(argc < 2 ? stderr : stdout);
        return argc < 2 ? 2 : 0;
    }
    colloquy::Words const words(argv + 2, argv + argc);
    for (Command const& c : kCommands) {
        if (std::strcmp(argv[1], c.name) != 0) continue;
        if (wantsHelp(words)) {
            std::printf("usage: colloquy %s\n  %s\n", c.usage, c.summary);
            return 0;
        }
        try {
            return c.run(words);
        } catch (colloquy::UsageError const& e) {
            printError(c.name, e.what());
            return 2;
        } catch (std::exception const& e) {
            // Failures of the command itself and the library's own exceptions alike: one line.
            printError(c.name, e.what());
            return 1;
        }
    }
    printError("", std::string("unknown command '") + argv[1] + "' (colloquy --help lists them)");
    return 2;
}
