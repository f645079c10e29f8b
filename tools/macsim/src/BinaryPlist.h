#pragma once
// A small writer of Apple's binary property lists ("bplist00"), enough for
// the files the simulated Mac keeps in that format.

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace orven::macsim {

struct PlistValue {
    enum class Kind { string, data, date, integer, boolean, dictionary, array };
    Kind kind = Kind::string;
    std::string bytes;          // string (UTF-8) or data
    double date = 0;            // seconds since 2001-01-01 00:00:00 UTC
    std::int64_t integer = 0;
    bool boolean = false;
    std::vector<std::pair<std::string, PlistValue>> entries; // dictionary, in key order given
    std::vector<PlistValue> items;                           // array

    static PlistValue string(std::string text);
    static PlistValue data(std::string bytes);
    // From seconds since 1970.
    static PlistValue dateFromUnix(std::int64_t seconds);
    static PlistValue number(std::int64_t value);
    static PlistValue dictionary(std::vector<std::pair<std::string, PlistValue>> entries);
};

std::string encodeBinaryPlist(const PlistValue& root);

} // namespace orven::macsim
