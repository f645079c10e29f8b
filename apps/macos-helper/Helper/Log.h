#pragma once
// Loggers of the daemon: os_log-style format strings, checked against their
// arguments at compile time and rendered the same way on every platform.

#include <array>
#include <cstdint>
#include <cstdio>
#include <mutex>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace orven {

inline constexpr std::string_view kLogSubsystem = "test.orven.app.helper";

enum class LogLevel { debug, info, defaultLevel, error };

std::string_view logLevelName(LogLevel level);

struct LogRecord {
    std::string subsystem;
    std::string category;
    LogLevel level;
    std::string message;
    // Where each argument's rendering lies in `message`, so a sink can tell
    // the caller's text from the daemon's own format.
    struct Span {
        std::size_t begin = 0;
        std::size_t length = 0;
    };
    std::vector<Span> argumentSpans = {};
};

class LogSink {
public:
    virtual ~LogSink() = default;
    virtual void write(const LogRecord& record) = 0;
};

// Writes one line per record to standard error (the Linux host's log).
// Control and newline characters in arguments are escaped, so a value from
// a client can neither cut a line nor forge one.
class StderrLogSink final : public LogSink {
public:
    explicit StderrLogSink(std::FILE* stream = stderr) : stream_(stream) {}
    void write(const LogRecord& record) override;
    // The message as the line shows it.
    static std::string lineText(const LogRecord& record);

private:
    std::FILE* stream_;
    std::mutex mutex_;
};

// Keeps every record so tests can assert the lines that matter.
class RecordingLogSink final : public LogSink {
public:
    void write(const LogRecord& record) override;
    std::vector<LogRecord> records() const;
    std::vector<std::string> messages() const;
    // True when some record's message equals `message` exactly.
    bool contains(std::string_view message) const;
    // True when some record's message contains `fragment`.
    bool containsFragment(std::string_view fragment) const;
    void clear();

private:
    mutable std::mutex mutex_;
    std::vector<LogRecord> records_;
};

namespace logformat {

enum class ArgKind { string, signedInt, unsignedInt, floating, boolean, unsupported };

template <class T>
consteval ArgKind kindOf()
{
    using U = std::remove_cvref_t<T>;
    if constexpr (std::is_same_v<U, bool>) return ArgKind::boolean;
    else if constexpr (std::is_integral_v<U>) return std::is_signed_v<U> ? ArgKind::signedInt : ArgKind::unsignedInt;
    else if constexpr (std::is_floating_point_v<U>) return ArgKind::floating;
    else if constexpr (std::is_convertible_v<const U&, std::string_view>) return ArgKind::string;
    else return ArgKind::unsupported;
}

enum class Conversion { string, signedInt, unsignedInt, floating, boolean };

// One conversion of a format string: where it starts, how long it is, what it takes.
struct Directive {
    std::size_t begin = 0;
    std::size_t length = 0;
    Conversion conversion = Conversion::string;
};

// Parses the next conversion at or after `from`; returns false at the end.
// Throws (so fails compilation when evaluated in a constant expression) on
// a malformed or unsupported conversion.
constexpr bool nextDirective(std::string_view format, std::size_t from, Directive& directive)
{
    for (std::size_t i = from; i < format.size(); ++i) {
        if (format[i] != '%') continue;
        if (i + 1 >= format.size()) throw "log format ends with a lone %";
        if (format[i + 1] == '%') { ++i; continue; }
        std::size_t j = i + 1;
        bool isBool = false;
        if (format[j] == '{') {
            const std::size_t close = format.find('}', j);
            if (close == std::string_view::npos) throw "unterminated {annotation} in log format";
            const std::string_view annotation = format.substr(j + 1, close - j - 1);
            if (annotation == "bool") isBool = true;
            else if (annotation != "public" && annotation != "private") throw "unknown {annotation} in log format";
            j = close + 1;
        }
        while (j < format.size() && format[j] == 'l') ++j;
        if (j >= format.size()) throw "log format ends inside a conversion";
        directive.begin = i;
        directive.length = j + 1 - i;
        switch (format[j]) {
        case 's': directive.conversion = Conversion::string; break;
        case 'd': directive.conversion = isBool ? Conversion::boolean : Conversion::signedInt; break;
        case 'u': directive.conversion = Conversion::unsignedInt; break;
        case 'f': directive.conversion = Conversion::floating; break;
        default: throw "unsupported conversion in log format";
        }
        if (isBool && format[j] != 'd') throw "{bool} applies to %d only";
        return true;
    }
    return false;
}

constexpr bool accepts(Conversion conversion, ArgKind kind)
{
    switch (conversion) {
    case Conversion::string: return kind == ArgKind::string;
    case Conversion::signedInt:
    case Conversion::unsignedInt: return kind == ArgKind::signedInt || kind == ArgKind::unsignedInt;
    case Conversion::floating: return kind == ArgKind::floating || kind == ArgKind::signedInt || kind == ArgKind::unsignedInt;
    case Conversion::boolean: return kind == ArgKind::boolean;
    }
    return false;
}

template <std::size_t N>
constexpr void check(std::string_view format, const std::array<ArgKind, N>& kinds)
{
    Directive directive;
    std::size_t from = 0;
    std::size_t index = 0;
    while (nextDirective(format, from, directive)) {
        if (index >= N) throw "log format has more conversions than arguments";
        if (!accepts(directive.conversion, kinds[index])) throw "log argument does not match its conversion";
        from = directive.begin + directive.length;
        ++index;
    }
    if (index != N) throw "log format has fewer conversions than arguments";
}

// A value ready for rendering; made from each argument at the call.
struct Arg {
    ArgKind kind;
    std::string_view text;
    std::int64_t signedValue = 0;
    std::uint64_t unsignedValue = 0;
    double floatValue = 0;
    bool boolValue = false;
};

template <class T>
Arg makeArg(const T& value)
{
    constexpr ArgKind kind = kindOf<T>();
    Arg arg{kind, {}};
    if constexpr (kind == ArgKind::string) arg.text = std::string_view(value);
    else if constexpr (kind == ArgKind::signedInt) arg.signedValue = static_cast<std::int64_t>(value);
    else if constexpr (kind == ArgKind::unsignedInt) arg.unsignedValue = static_cast<std::uint64_t>(value);
    else if constexpr (kind == ArgKind::floating) arg.floatValue = static_cast<double>(value);
    else if constexpr (kind == ArgKind::boolean) arg.boolValue = value;
    return arg;
}

// Renders a format string whose conversions were checked at compile time;
// `spans`, when given, receives where each argument went.
std::string render(std::string_view format, const Arg* args, std::size_t count,
                   std::vector<LogRecord::Span>* spans = nullptr);

} // namespace logformat

// A format string checked against the argument types of the call it is used in.
template <class... Args>
class LogFormat {
public:
    template <class S>
        requires std::is_convertible_v<const S&, std::string_view>
    consteval LogFormat(const S& format) : text_(format)
    {
        logformat::check(text_, std::array<logformat::ArgKind, sizeof...(Args)>{logformat::kindOf<Args>()...});
    }
    constexpr std::string_view text() const { return text_; }

private:
    std::string_view text_;
};

template <class... Args>
std::string renderLog(LogFormat<std::type_identity_t<Args>...> format, const Args&... args)
{
    const std::array<logformat::Arg, sizeof...(Args)> rendered{logformat::makeArg(args)...};
    return logformat::render(format.text(), rendered.data(), rendered.size());
}

// A logger of subsystem "test.orven.app.helper" with one category.
class Logger {
public:
    Logger(LogSink& sink, std::string category) : sink_(&sink), category_(std::move(category)) {}

    const std::string& category() const { return category_; }
    LogSink& sink() const { return *sink_; }

    template <class... Args>
    void debug(LogFormat<std::type_identity_t<Args>...> format, const Args&... args) const
    {
        emit<Args...>(LogLevel::debug, format, args...);
    }
    template <class... Args>
    void info(LogFormat<std::type_identity_t<Args>...> format, const Args&... args) const
    {
        emit<Args...>(LogLevel::info, format, args...);
    }
    // The default level (os_log's OS_LOG_TYPE_DEFAULT).
    template <class... Args>
    void notice(LogFormat<std::type_identity_t<Args>...> format, const Args&... args) const
    {
        emit<Args...>(LogLevel::defaultLevel, format, args...);
    }
    template <class... Args>
    void error(LogFormat<std::type_identity_t<Args>...> format, const Args&... args) const
    {
        emit<Args...>(LogLevel::error, format, args...);
    }

private:
    template <class... Args>
    void emit(LogLevel level, LogFormat<std::type_identity_t<Args>...> format, const Args&... args) const
    {
        const std::array<logformat::Arg, sizeof...(Args)> rendered{logformat::makeArg(args)...};
        std::vector<LogRecord::Span> spans;
        std::string message = logformat::render(format.text(), rendered.data(), rendered.size(), &spans);
        write(level, std::move(message), std::move(spans));
    }
    void write(LogLevel level, std::string message, std::vector<LogRecord::Span> spans) const;

    LogSink* sink_;
    std::string category_;
};

} // namespace orven
