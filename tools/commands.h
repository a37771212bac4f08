// The commands of the colloquy tool. Each takes the words after its name and returns the exit
// status; errors are thrown as colloquy::UsageError or colloquy::Failure.
#ifndef COLLOQUY_TOOLS_COMMANDS_H
#define COLLOQUY_TOOLS_COMMANDS_H

#include <string>
#include <vector>

namespace colloquy {

using Words = std::vector<std::string>;

int cmdEncode(Words const& words);
int cmdDecode(Words const& words);
int cmdConvert(Words const& words);
int cmdPack(Words const& words);
int cmdUnpack(Words const& words);
int cmdSend(Words const& words);
int cmdListen(Words const& words);
int cmdTap(Words const& words);
int cmdBench(Words const& words);
int cmdDemo(Words const& words);
int cmdReport(Words const& words);

}  // namespace colloquy

#endif
