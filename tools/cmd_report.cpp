// report: the host's support report, written to a file.
#include "cli.h"
#include "commands.h"
#include "supportinformationgenerator.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>

namespace colloquy {

namespace {

// Gathering writes its temporary files into the working directory (and leaves them there when
// a command fails), so the tool gathers inside a scratch directory (under $TMPDIR, or /tmp) and
// removes it afterwards.
class ScratchDirectory {
  public:
    ScratchDirectory() {
        char const* const temporary = std::getenv("TMPDIR");
        std::string pattern = std::string(temporary && *temporary ? temporary : "/tmp") + "/colloquy-report-XXXXXX";
        if (!::mkdtemp(pattern.data()))
            throw Failure("cannot make a scratch directory in " + pattern.substr(0, pattern.rfind('/')) + ": " +
                          std::strerror(errno));
        mPath = pattern;
        mHome = ::open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (mHome < 0 || ::chdir(mPath.c_str()) != 0) {
            ::rmdir(mPath.c_str());
            throw Failure("cannot enter the scratch directory " + mPath);
        }
    }
    ~ScratchDirectory() {
        if (mHome >= 0) {
            [[maybe_unused]] int back = ::fchdir(mHome);
            ::close(mHome);
        }
        if (DIR* dir = ::opendir(mPath.c_str())) {
            while (dirent* entry = ::readdir(dir))
                if (std::strcmp(entry->d_name, ".") && std::strcmp(entry->d_name, ".."))
                    std::remove((mPath + "/" + entry->d_name).c_str());
            ::closedir(dir);
        }
        ::rmdir(mPath.c_str());
    }
    ScratchDirectory(ScratchDirectory const&) = delete;
    ScratchDirectory& operator=(ScratchDirectory const&) = delete;

  private:
    std::string mPath;
    int mHome = -1;
};

}  // namespace

int cmdReport(Words const& words) {
    Args const args(words, {"--output"}, {});
    if (!args.positional().empty()) throw UsageError("report takes no arguments besides --output FILE");
    std::string const path = args.option("--output").value_or("colloquy-report.txt");
    std::ofstream out(path, std::ios::binary | std::ios::trunc);  // opened here, before moving away
    if (!out) throw Failure("cannot create " + path + ": " + std::strerror(errno));

    CAssociativeArray db(32);
    CSupportInformationGenerator generator;
    {
        ScratchDirectory scratch;
        generator.CreateInformationDB(db);
    }
    if (!generator.GenerateReportFile(out, db)) throw Failure("the report has no host name");
    out.close();
    if (!out) throw Failure("cannot write " + path);
    std::fprintf(stderr, "report written to %s\n", path.c_str());
    return 0;
}

}  // namespace colloquy
