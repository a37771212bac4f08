#include "supportinformationgenerator.h"

#include "Log.h"
#include "envsettings.h"
#include "log_records.h"
#include "nsocket.h"

#include <fcntl.h>
#include <unistd.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

namespace nLine = nLogRecords::nSupport;

char const kModule[] = "supportinformationgenerator";

constexpr int kPathSize = 260;  // room of each temporary path, terminating zero included
char const kNotAvailable[] = "Not Available - failed on creation";
char const kNotFound[] = "Not Found";
char const kInterfaceFile[] = "IpConfig.txt";
char const kConfigurationFile[] = "#(QR_BIN)/vantage.ini";
char const kHostKey[] = "$HOSTNAME";
char const kSystemKey[] = "$SYSTEMREPORT";
char const kInterfaceKey[] = "$IPCONFIG";
char const kConfigurationKey[] = "$VANTAGEINI";
char const kProductKey[] = "$QRCTIDLL";

// Runs `command` through the shell. The sense is inverted on purpose: status 0 counts as
// failure, anything else (the status is not decoded) as success.
bool commandFailed(std::string const& command) { return std::system(command.c_str()) == 0; }

// The steps of the system facts: command prefix, failure message and the line of its record.
struct cLinuxStep {
    char const* prefix;
    char const* failure;
    int line;
};
constexpr cLinuxStep kLinuxSteps[] = {
    {"uname -a >> ", "failed to get kernel output with command: ", nLine::kKernelFailed},
    {"lscpu >> ", "failed to get cpu output with command: ", nLine::kCpuFailed},
    {"lsblk >> ", "failed to get disk output with command: ", nLine::kDiskFailed},
    {"cat /proc/meminfo >> ", "failed to get memory output with command: ", nLine::kMemoryFailed},
};

// `path` as one shell word: inside double quotes, with the characters the shell still
// interprets there (double quote, "$", backquote, backslash) escaped, so a directory or host
// name cannot run anything. An ordinary path only gains the quotes.
std::string shellQuoted(std::string const& path) {
    std::string quoted = "\"";
    for (char const c : path) {
        if (c == '"' || c == '$' || c == '`' || c == '\\') quoted += '\\';
        quoted += c;
    }
    quoted += '"';
    return quoted;
}

// The working directory with its "/", or "" (paths then stay relative to it) when it cannot
// be had in the path room.
std::string workingDirectory(CSupportInformationGenerator& generator) {
    char buffer[kPathSize];
    return generator.GetKZDirectoryPath(buffer, kPathSize) ? std::string(buffer) : std::string();
}

// The rule around titles: a line feed, 79 "=", a line feed.
std::string const& ruleLine() {
    static std::string const line = "\n" + std::string(79, '=') + "\n";
    return line;
}

// A line feed followed by a flush.
void endOfLine(std::ostream& out) { out << '\n' << std::flush; }

void writeSection(std::ostream& out, char const* title, CAssociativeArray& db, char const* key) {
    out << ruleLine() << title << ruleLine();
    endOfLine(out);
    out << db.GetValueOfParameter(key);
}

}  // namespace

CSupportInformationGenerator::CSupportInformationGenerator() = default;

CSupportInformationGenerator::~CSupportInformationGenerator() = default;

bool CSupportInformationGenerator::CheckGenerateError(int status) {
    if (status < 0) return false;
    if (status > 0) return true;
    return errno != ENOENT;
}

bool CSupportInformationGenerator::GetKZDirectoryPath(char* buffer, int size) {
    if (buffer == nullptr || size <= 0) return false;
    if (getcwd(buffer, static_cast<size_t>(size)) == nullptr) return false;
    size_t const length = std::strlen(buffer);
    if (length + 2 > static_cast<size_t>(size)) return false;  // no room for the "/"
    buffer[length] = '/';
    buffer[length + 1] = '\0';
    return true;
}

bool CSupportInformationGenerator::AddFileToDB(char const* key, char const* path, CAssociativeArray& db) {
    int const file = open(path, O_RDONLY | O_CLOEXEC);
    if (file < 0) return false;
    std::string text;
    char chunk[4096];
    ssize_t n;
    while ((n = read(file, chunk, sizeof chunk)) > 0) text.append(chunk, static_cast<size_t>(n));
    close(file);
    if (n < 0) return false;  // e.g. a directory
    db.AddCouple(key, text.data(), static_cast<int>(text.size()));
    return true;
}

bool CSupportInformationGenerator::GenerateLinuxInfo(char const* file) {
    COLLOQUY_LOG_AT(nLog::nBasic::sWarningTag_, kModule, nLine::kDoingLinuxInfo, "doing GenerateLinuxInfo()");
    for (cLinuxStep const& step : kLinuxSteps) {
        std::string const command = std::string(step.prefix) + file;
        if (commandFailed(command)) {
            COLLOQUY_LOG_AT(nLog::nBasic::sWarningTag_, kModule, step.line, step.failure, command);
            return false;
        }
    }
    return true;
}

bool CSupportInformationGenerator::GenerateIPConfigInfo(char const* file) {
    std::string const command = std::string("ifconfig ") + "-a -v >> " + file;
    if (commandFailed(command)) {
        COLLOQUY_LOG_AT(nLog::nBasic::sWarningTag_, kModule, nLine::kInterfacesFailed,
                        "failed to get ifconfig output with command: ", command);
        return false;
    }
    COLLOQUY_LOG_AT(nLog::nBasic::sWarningTag_, kModule, nLine::kInterfacesDone,
                    "success to get ifconfig output with command: ", command, " into file ", file);
    return true;
}

bool CSupportInformationGenerator::GenerateSystemInfo(char const* ipFile, char const* systemFile) {
    if (!GenerateIPConfigInfo(ipFile) || !GenerateLinuxInfo(systemFile)) return false;
    COLLOQUY_LOG_AT(nLog::nBasic::sWarningTag_, kModule, nLine::kSystemInfoDone, "grabbed linux info into files ",
                    ipFile, " and ", systemFile);
    return true;
}

bool CSupportInformationGenerator::CreateInformationDB(CAssociativeArray& db) {
    RWCString const host = nCommunication::nSocket::gGetLocalHostName();
    db.AddCouple(kHostKey, host.data(), static_cast<int>(host.length()));

    std::string const systemPath = workingDirectory(*this) + host.stdString() + ".txt";
    std::string const interfacePath = workingDirectory(*this) + kInterfaceFile;
    if (GenerateSystemInfo(shellQuoted(interfacePath).c_str(), shellQuoted(systemPath).c_str())) {
        AddFileToDB(kSystemKey, systemPath.c_str(), db);
        AddFileToDB(kInterfaceKey, interfacePath.c_str(), db);
        std::remove(systemPath.c_str());
        std::remove(interfacePath.c_str());
    } else {
        // The temporary files stay as far as they were written.
        db.AddCouple(kInterfaceKey, kNotAvailable);
        db.AddCouple(kSystemKey, kNotAvailable);
    }

    QREnvContainerClass settings;
    RWCString const configuration = settings.QRERuntimeResolve(kConfigurationFile);
    if (!AddFileToDB(kConfigurationKey, configuration.data(), db)) db.AddCouple(kConfigurationKey, kNotFound);
    return true;
}

bool CSupportInformationGenerator::GenerateReportFile(std::ofstream& out, CAssociativeArray& db) {
    if (!db.KeyExists(kHostKey)) return false;
    try {
        out << ruleLine() << "Complete Report For Host: " << db.GetValueOfParameter(kHostKey);
        endOfLine(out);
        out << ruleLine();
        writeSection(out, "IP Configuration: ", db, kInterfaceKey);
        writeSection(out, "System And Hardware Configuration: ", db, kSystemKey);
        if (db.KeyExists(kProductKey)) writeSection(out, "Vantage Product Information(qrcti.dll): ", db, kProductKey);
        writeSection(out, "Vantage.ini File: ", db, kConfigurationKey);
    } catch (std::exception const& error) {
        COLLOQUY_LOG_AT(nLog::nBasic::sErrorTag_, kModule, nLine::kReportFailed, error.what());
    } catch (...) {
        COLLOQUY_LOG_AT(nLog::nBasic::sErrorTag_, kModule, nLine::kReportFailedUnknown, "");
    }
    return true;
}
