// Test helpers for log records: switching a tag for one test, records in short form, and the
// Error records written during one scope.
#ifndef COLLOQUY_TESTS_TAGSCOPE_H
#define COLLOQUY_TESTS_TAGSCOPE_H

#include "nlog.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <ostream>
#include <string>
#include <vector>

// Switches a log tag for one scope and restores its previous state.
class TagScope {
  public:
    TagScope(char const* tag, bool on) : mTag(tag), mWas(nLog::gIsEnabled(tag)) { nLog::gEnable(tag, on); }
    ~TagScope() { nLog::gEnable(mTag, mWas); }
    TagScope(TagScope const&) = delete;
    TagScope& operator=(TagScope const&) = delete;

  private:
    char const* mTag;
    bool mWas;
};

namespace nTagScope {

using ::TagScope;

// A record's tag, line and text.
struct Line {
    std::string tag;
    int line;
    std::string text;
    bool operator==(Line const& o) const { return tag == o.tag && line == o.line && text == o.text; }
};

inline std::ostream& operator<<(std::ostream& out, Line const& l) {
    return out << l.tag << ':' << l.line << ':' << l.text;
}

// The captured records in short form; each must come from the library's source `module`.
inline std::vector<Line> gLines(nLog::cCapture const& capture, std::string const& module) {
    std::vector<Line> lines;
    for (nLog::cRecord const& r : capture.records()) {
        EXPECT_EQ(r.module, "ColloquyUtil");
        EXPECT_EQ(r.file, "../src/" + module);
        lines.push_back({r.tag, r.line, r.text});
    }
    return lines;
}

// Switches the Error tag for one scope and captures the records written meanwhile.
class ErrorRecords {
  public:
    explicit ErrorRecords(bool on = true) : mTag("Error", on) {}
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

  private:
    TagScope mTag;
    nLog::cCapture mCapture;
};

}  // namespace nTagScope

#endif
