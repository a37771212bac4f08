// report: the host's support report, written to a file.
#include "cli.h"
#include "commands.h"
#include "supportinformationgenerator.h"

#include <fstream>

namespace colloquy {

int cmdReport(Words const& words) {
    Args const args(words, {"--output"}, {});
    if (!args.positional().empty()) throw UsageError("report takes no arguments besides -o FILE");
    std::string const path = args.option("--output").value_or("colloquy-report.txt");
    CAssociativeArray db(32);
    CSupportInformationGenerator generator;
    generator.CreateInformationDB(db);
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    if (!out) throw Failure("cannot create " + path);
    if (!generator.GenerateReportFile(out, db)) throw Failure("the report has no host name");
    out.close();
    if (!out) throw Failure("cannot write " + path);
    std::fprintf(stderr, "report written to %s\n", path.c_str());
    return 0;
}

}  // namespace colloquy
