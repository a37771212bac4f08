// The records every record benchmark measures: 16 short pairs ("key<i>" -> "value-<i*7919>")
// and one 1 MiB value under the key "body", with their text forms as the record writes them.
#ifndef COLLOQUY_BENCH_RECORD_WORKLOAD_H
#define COLLOQUY_BENCH_RECORD_WORKLOAD_H

#include "associativearray.h"

#include <string>
#include <vector>

namespace benchrecord {

struct cSmall {
    std::vector<std::string> keys, values;
    std::string text;
    cSmall() {
        CAssociativeArray record;
        for (int i = 0; i < 16; ++i) {
            keys.push_back("key" + std::to_string(i));
            values.push_back("value-" + std::to_string(i * 7919));
            record.AddCouple(keys.back().c_str(), values.back().c_str());
        }
        text = record.ToStringRef(false, false).stdString();
    }
};

inline cSmall const& small() {
    static cSmall const s;
    return s;
}

inline std::string const& bigValue() {
    static std::string const v(1 << 20, 'v');
    return v;
}

inline std::string const& bigText() {
    static std::string const t = [] {
        CAssociativeArray record;
        record.AddCouple("body", bigValue().data(), static_cast<int>(bigValue().size()));
        return record.ToStringRef(false, false).stdString();
    }();
    return t;
}

}  // namespace benchrecord

#endif
