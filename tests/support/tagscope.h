// Test helpers for log records: switching a tag for one test, records in short form, and the
// Error records written during one scope.
#ifndef COLLOQUY_TESTS_TAGSCOPE_H
#define COLLOQUY_TESTS_TAGSCOPE_H

#include "nlog.h"
#include "testing.h"

// Switches a log tag for one scope and restores its previous state.
struct TagScope {
    TagScope(char const* tag, bool on) : mTag(tag), mWas(nLog::gIsEnabled(tag)) { nLog::gEnable(tag, on); }
    ~TagScope() { nLog::gEnable(mTag, mWas); }
    TagScope(TagScope const&) = delete;
    TagScope& operator=(TagScope const&) = delete;
    char const* mTag;
    bool mWas;
};

namespace nTagScope {

// A record's tag, line and text.
using Line = std::tuple<std::string, int, std::string>;
using Lines = std::vector<Line>;

// The captured records in short form, which the capture then forgets; each must come from the
// library's source `module`.
inline Lines gLines(nLog::cCapture& capture, std::string const& module) {
    Lines lines;
    for (nLog::cRecord const& r : capture.records()) {
        EXPECT_EQ(r.module + r.file, "ColloquyUtil../src/" + module);
        lines.emplace_back(r.tag, r.line, r.text);
    }
    capture.clear();
    return lines;
}

// Switches the Error tag on for one scope and captures the records written meanwhile.
struct ErrorRecords {
    // Number of Error records written from the library's source `module`.
    std::size_t count(std::string const& module) const {
        std::size_t n = 0;
        for (nLog::cRecord const& r : mCapture.records())
            n += r.tag == "Error" && r.module == "ColloquyUtil" && r.file == "../src/" + module;
        return n;
    }
    std::size_t total() const { return mCapture.records().size(); }
    std::vector<nLog::cRecord> const& records() const { return mCapture.records(); }
    void clear() { mCapture.clear(); }
    TagScope mTag{"Error", true};
    nLog::cCapture mCapture;
};

}  // namespace nTagScope

#endif
