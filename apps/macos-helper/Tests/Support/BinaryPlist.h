#pragma once
// Test support: a reader of binary property lists ("bplist00"), written from
// the format's description, to check files the simulated Mac writes. Only
// what those files hold: dictionaries, arrays, strings, data, dates,
// integers and Booleans. Malformed input gives no value.

#include <bit>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace orven::testing::bplist {

struct Value;
using Dictionary = std::map<std::string, Value>;
using Array = std::vector<Value>;
struct Date {
    double secondsSince2001 = 0;
};
struct Data {
    std::string bytes;
};
struct Value {
    std::variant<std::string, Data, Date, std::int64_t, bool, std::shared_ptr<Dictionary>, std::shared_ptr<Array>> item;
};

class Reader {
public:
    explicit Reader(std::string_view bytes) : bytes_(bytes) {}

    std::optional<Value> read()
    {
        if (bytes_.size() < 8 + 32 || bytes_.substr(0, 8) != "bplist00") return std::nullopt;
        const std::size_t trailer = bytes_.size() - 32;
        offsetSize_ = byteAt(trailer + 6);
        refSize_ = byteAt(trailer + 7);
        count_ = number(trailer + 8, 8);
        const auto top = number(trailer + 16, 8);
        tableOffset_ = number(trailer + 24, 8);
        if (offsetSize_ < 1 || offsetSize_ > 8 || refSize_ < 1 || refSize_ > 8 || top >= count_ ||
            tableOffset_ + count_ * offsetSize_ > trailer)
            return std::nullopt;
        return object(top, 0);
    }

private:
    std::uint8_t byteAt(std::size_t at) const { return static_cast<std::uint8_t>(bytes_[at]); }
    std::uint64_t number(std::size_t at, std::size_t size) const
    {
        std::uint64_t value = 0;
        for (std::size_t i = 0; i < size; ++i) value = (value << 8) | byteAt(at + i);
        return value;
    }
    bool fits(std::size_t at, std::size_t size) const { return at <= bytes_.size() && size <= bytes_.size() - at; }

    std::optional<Value> object(std::uint64_t index, int depth)
    {
        if (index >= count_ || depth > 32) return std::nullopt;
        const std::uint64_t at = number(tableOffset_ + index * offsetSize_, offsetSize_);
        if (!fits(at, 1)) return std::nullopt;
        const int type = byteAt(at) >> 4;
        std::uint64_t length = byteAt(at) & 0xF;
        std::size_t body = at + 1;
        if (type == 0x0) {
            if (length == 0x8 || length == 0x9) return Value{length == 0x9};
            return std::nullopt;
        }
        if (type == 0x1) {
            const std::size_t size = std::size_t{1} << length;
            if (size > 8 || !fits(body, size)) return std::nullopt;
            return Value{static_cast<std::int64_t>(number(body, size))};
        }
        if (type == 0x3) {
            if (length != 3 || !fits(body, 8)) return std::nullopt;
            return Value{Date{std::bit_cast<double>(number(body, 8))}};
        }
        if (length == 0xF) {
            if (!fits(body, 1) || (byteAt(body) >> 4) != 0x1) return std::nullopt;
            const std::size_t size = std::size_t{1} << (byteAt(body) & 0xF);
            if (size > 8 || !fits(body + 1, size)) return std::nullopt;
            length = number(body + 1, size);
            body += 1 + size;
        }
        switch (type) {
        case 0x4:
            if (!fits(body, length)) return std::nullopt;
            return Value{Data{std::string(bytes_.substr(body, length))}};
        case 0x5:
            if (!fits(body, length)) return std::nullopt;
            return Value{std::string(bytes_.substr(body, length))};
        case 0x6: {
            if (length > bytes_.size() || !fits(body, 2 * length)) return std::nullopt;
            std::string text;
            for (std::uint64_t i = 0; i < length; ++i) {
                char32_t unit = static_cast<char32_t>(number(body + 2 * i, 2));
                if (unit >= 0xD800 && unit < 0xDC00 && i + 1 < length) {
                    const auto low = static_cast<char32_t>(number(body + 2 * (i + 1), 2));
                    unit = 0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00);
                    ++i;
                }
                appendUTF8(text, unit);
            }
            return Value{std::move(text)};
        }
        case 0xA: {
            if (length > bytes_.size() || !fits(body, length * refSize_)) return std::nullopt;
            auto array = std::make_shared<Array>();
            for (std::uint64_t i = 0; i < length; ++i) {
                auto item = object(number(body + i * refSize_, refSize_), depth + 1);
                if (!item) return std::nullopt;
                array->push_back(std::move(*item));
            }
            return Value{array};
        }
        case 0xD: {
            if (length > bytes_.size() || !fits(body, 2 * length * refSize_)) return std::nullopt;
            auto dictionary = std::make_shared<Dictionary>();
            for (std::uint64_t i = 0; i < length; ++i) {
                auto key = object(number(body + i * refSize_, refSize_), depth + 1);
                auto value = object(number(body + (length + i) * refSize_, refSize_), depth + 1);
                if (!key || !value || !std::holds_alternative<std::string>(key->item)) return std::nullopt;
                (*dictionary)[std::get<std::string>(key->item)] = std::move(*value);
            }
            return Value{dictionary};
        }
        default:
            return std::nullopt;
        }
    }

    static void appendUTF8(std::string& out, char32_t c)
    {
        if (c < 0x80) {
            out += static_cast<char>(c);
        } else if (c < 0x800) {
            out += static_cast<char>(0xC0 | (c >> 6));
            out += static_cast<char>(0x80 | (c & 0x3F));
        } else if (c < 0x10000) {
            out += static_cast<char>(0xE0 | (c >> 12));
            out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (c & 0x3F));
        } else {
            out += static_cast<char>(0xF0 | (c >> 18));
            out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
            out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (c & 0x3F));
        }
    }

    std::string_view bytes_;
    std::uint64_t offsetSize_ = 0, refSize_ = 0, count_ = 0, tableOffset_ = 0;
};

inline std::optional<Value> read(std::string_view bytes) { return Reader(bytes).read(); }

} // namespace orven::testing::bplist
