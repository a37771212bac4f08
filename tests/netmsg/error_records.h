// Helpers of the packing and message tests: Error-tag switching and record capture.
#ifndef NETMSG_TEST_ERROR_RECORDS_H
#define NETMSG_TEST_ERROR_RECORDS_H

#include "Log.h"

#include <cstddef>
#include <string>

// Switches the Error tag for one scope, captures the records written meanwhile, and restores
// the tag.
class ErrorRecords {
public:
    explicit ErrorRecords(bool on = true) : mWas(nLog::gIsEnabled("Error")) { nLog::gEnable("Error", on); }
    ~ErrorRecords() { nLog::gEnable("Error", mWas); }
    ErrorRecords(ErrorRecords const&) = delete;
    ErrorRecords& operator=(ErrorRecords const&) = delete;

    // Number of Error records written from the given source file ("../src/" + module).
    std::size_t count(std::string const& module) const {
        std::size_t n = 0;
        for (nLog::cRecord const& r : mCapture.records())
            if (r.tag == "Error" && r.module == "ColloquyUtil" && r.file == "../src/" + module) ++n;
        return n;
    }
    std::size_t total() const { return mCapture.records().size(); }
    nLog::cCapture const& capture() const { return mCapture; }
    void clear() { mCapture.clear(); }

private:
    bool mWas;
    nLog::cCapture mCapture;
};

#endif
