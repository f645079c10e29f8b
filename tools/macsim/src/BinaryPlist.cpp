#include "BinaryPlist.h"

#include <bit>
#include <memory>

namespace orven::macsim {

namespace {

constexpr std::int64_t kUnixToAppleEpoch = 978307200; // 2001-01-01 in seconds since 1970

void appendBigEndian(std::string& out, std::uint64_t value, int bytes) {
    for (int i = bytes - 1; i >= 0; --i)
        out += static_cast<char>((value >> (8 * i)) & 0xFF);
}

int bytesFor(std::uint64_t value) {
    if (value <= 0xFF)
        return 1;
    if (value <= 0xFFFF)
        return 2;
    if (value <= 0xFFFFFFFFu)
        return 4;
    return 8;
}

// UTF-16 code units of UTF-8 text (the callers hand in valid UTF-8; a
// truncated sequence at the end is taken byte by byte).
std::u16string utf16(const std::string& text) {
    std::u16string out;
    for (std::size_t i = 0; i < text.size();) {
        const auto lead = static_cast<unsigned char>(text[i]);
        std::size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : lead >= 0xC0 ? 2 : 1;
        if (i + length > text.size())
            length = 1;
        char32_t scalar = length == 1 ? lead : lead & (0x7F >> length);
        for (std::size_t k = 1; k < length; ++k)
            scalar = (scalar << 6) | (static_cast<unsigned char>(text[i + k]) & 0x3F);
        i += length;
        if (scalar >= 0x10000) {
            scalar -= 0x10000;
            out += static_cast<char16_t>(0xD800 + (scalar >> 10));
            out += static_cast<char16_t>(0xDC00 + (scalar & 0x3FF));
        } else {
            out += static_cast<char16_t>(scalar);
        }
    }
    return out;
}

class Writer {
public:
    std::string encode(const PlistValue& root) {
        flatten(root);
        refSize_ = bytesFor(objects_.size());
        std::string out = "bplist00";
        std::vector<std::uint64_t> offsets;
        for (std::size_t i = 0; i < objects_.size(); ++i) {
            offsets.push_back(out.size());
            writeObject(out, *objects_[i], refs_[i]);
        }
        const std::uint64_t tableOffset = out.size();
        const int offsetSize = bytesFor(tableOffset);
        for (auto offset : offsets)
            appendBigEndian(out, offset, offsetSize);
        out.append(6, '\0');
        out += static_cast<char>(offsetSize);
        out += static_cast<char>(refSize_);
        appendBigEndian(out, objects_.size(), 8);
        appendBigEndian(out, 0, 8);
        appendBigEndian(out, tableOffset, 8);
        return out;
    }

private:
    // Objects in depth-first order; a dictionary's keys are string objects.
    std::size_t flatten(const PlistValue& value) {
        const std::size_t index = objects_.size();
        objects_.push_back(&value);
        refs_.emplace_back();
        if (value.kind == PlistValue::Kind::dictionary) {
            // Keys first, then values, as Apple's writer lays them out.
            std::vector<std::size_t> refs;
            for (const auto& entry : value.entries) {
                keyStore_.push_back(std::make_unique<PlistValue>(PlistValue::string(entry.first)));
                refs.push_back(flatten(*keyStore_.back()));
            }
            for (const auto& entry : value.entries)
                refs.push_back(flatten(entry.second));
            refs_[index] = std::move(refs);
        } else if (value.kind == PlistValue::Kind::array) {
            std::vector<std::size_t> refs;
            for (const auto& item : value.items)
                refs.push_back(flatten(item));
            refs_[index] = std::move(refs);
        }
        return index;
    }

    static void writeMarker(std::string& out, int type, std::size_t count) {
        if (count < 15) {
            out += static_cast<char>((type << 4) | static_cast<int>(count));
            return;
        }
        out += static_cast<char>((type << 4) | 0xF);
        const int size = bytesFor(count);
        out += static_cast<char>(0x10 | std::countr_zero(static_cast<unsigned>(size)));
        appendBigEndian(out, count, size);
    }

    void writeObject(std::string& out, const PlistValue& value, const std::vector<std::size_t>& refs) const {
        switch (value.kind) {
        case PlistValue::Kind::boolean:
            out += static_cast<char>(value.boolean ? 0x09 : 0x08);
            break;
        case PlistValue::Kind::integer: {
            const auto raw = static_cast<std::uint64_t>(value.integer);
            const int size = value.integer < 0 ? 8 : bytesFor(raw);
            out += static_cast<char>(0x10 | std::countr_zero(static_cast<unsigned>(size)));
            appendBigEndian(out, raw, size);
            break;
        }
        case PlistValue::Kind::date:
            out += static_cast<char>(0x33);
            appendBigEndian(out, std::bit_cast<std::uint64_t>(value.date), 8);
            break;
        case PlistValue::Kind::data:
            writeMarker(out, 0x4, value.bytes.size());
            out += value.bytes;
            break;
        case PlistValue::Kind::string: {
            bool ascii = true;
            for (unsigned char ch : value.bytes)
                ascii = ascii && ch < 0x80;
            if (ascii) {
                writeMarker(out, 0x5, value.bytes.size());
                out += value.bytes;
            } else {
                const auto units = utf16(value.bytes);
                writeMarker(out, 0x6, units.size());
                for (char16_t unit : units)
                    appendBigEndian(out, unit, 2);
            }
            break;
        }
        case PlistValue::Kind::array:
            writeMarker(out, 0xA, refs.size());
            for (auto ref : refs)
                appendBigEndian(out, ref, refSize_);
            break;
        case PlistValue::Kind::dictionary:
            writeMarker(out, 0xD, refs.size() / 2);
            for (auto ref : refs)
                appendBigEndian(out, ref, refSize_);
            break;
        }
    }

    std::vector<const PlistValue*> objects_;
    std::vector<std::vector<std::size_t>> refs_;
    std::vector<std::unique_ptr<PlistValue>> keyStore_;
    int refSize_ = 1;
};

} // namespace

PlistValue PlistValue::string(std::string text) {
    PlistValue v;
    v.kind = Kind::string;
    v.bytes = std::move(text);
    return v;
}

PlistValue PlistValue::data(std::string bytes) {
    PlistValue v;
    v.kind = Kind::data;
    v.bytes = std::move(bytes);
    return v;
}

PlistValue PlistValue::dateFromUnix(std::int64_t seconds) {
    PlistValue v;
    v.kind = Kind::date;
    v.date = static_cast<double>(seconds - kUnixToAppleEpoch);
    return v;
}

PlistValue PlistValue::number(std::int64_t value) {
    PlistValue v;
    v.kind = Kind::integer;
    v.integer = value;
    return v;
}

PlistValue PlistValue::dictionary(std::vector<std::pair<std::string, PlistValue>> entries) {
    PlistValue v;
    v.kind = Kind::dictionary;
    v.entries = std::move(entries);
    return v;
}

std::string encodeBinaryPlist(const PlistValue& root) { return Writer().encode(root); }

} // namespace orven::macsim
