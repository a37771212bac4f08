// The support report: facts about the host (kernel, processor, disks, memory, network
// interfaces, the product's configuration file, the host name) gathered into a key/value
// record and written out as a plain-text report with one titled section per fact.
//
// Calling order: CreateInformationDB(db); optionally db.AddCouple("$QRCTIDLL", productInfo);
// open the output file; GenerateReportFile(out, db).
//
// Gathering runs shell commands that append to two temporary files in the current working
// directory ("IpConfig.txt" and "<host name>.txt"); their text goes into the record and the
// files are removed. A command counts as failed when the shell answers status 0 and as
// succeeded otherwise; this inverted sense is kept on purpose, so on a host where the first
// command runs cleanly the record gets the "not available" texts and the files stay.
#ifndef COLLOQUY_SUPPORTINFORMATIONGENERATOR_H
#define COLLOQUY_SUPPORTINFORMATIONGENERATOR_H

#include "associativearray.h"
#include "cplatformdefs.h"

#include <fstream>

class COLLOQUY_EXPORT CSupportInformationGenerator {
  public:
    CSupportInformationGenerator();
    virtual ~CSupportInformationGenerator();

    // Negative: false; positive: true; zero: true unless the last error number is ENOENT.
    bool CheckGenerateError(int status);
    // The current working directory followed by "/", in at most `size` bytes; false when the
    // directory cannot be obtained or does not fit.
    bool GetKZDirectoryPath(char* buffer, int size);
    // Adds the whole file at `path` under `key`; false, leaving `db` alone, when it cannot
    // be read.
    bool AddFileToDB(char const* key, char const* path, CAssociativeArray& db);
    // Append kernel, processor, disk and memory facts to `file` (a path already wrapped in
    // double quotes for the shell); false at the first failed command.
    bool GenerateLinuxInfo(char const* file);
    // Appends the network interface listing to `file` (quoted as above).
    bool GenerateIPConfigInfo(char const* file);
    // The interface listing, then (only if that worked) the system facts; true when both did.
    bool GenerateSystemInfo(char const* ipFile, char const* systemFile);
    // Fills "$HOSTNAME", "$SYSTEMREPORT", "$IPCONFIG" and "$VANTAGEINI"; always true.
    bool CreateInformationDB(CAssociativeArray& db);
    // Writes the report; false, writing nothing, when `db` has no "$HOSTNAME". Errors while
    // writing are logged and end the report early; the answer is still true.
    bool GenerateReportFile(std::ofstream& out, CAssociativeArray& db);
};

#endif
