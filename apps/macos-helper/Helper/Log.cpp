#include "Log.h"

#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <ctime>

#include "Text.h"

namespace orven {

std::string_view logLevelName(LogLevel level)
{
    switch (level) {
    case LogLevel::debug: return "Debug";
    case LogLevel::info: return "Info";
    case LogLevel::defaultLevel: return "Default";
    case LogLevel::error: return "Error";
    }
    return "Default";
}

std::string StderrLogSink::lineText(const LogRecord& record)
{
    std::string line;
    line.reserve(record.message.size());
    std::size_t at = 0;
    for (const auto& span : record.argumentSpans) {
        if (span.begin < at || span.begin > record.message.size() ||
            span.length > record.message.size() - span.begin)
            continue;
        line.append(record.message, at, span.begin - at);
        line.append(text::escapeControlCharacters(std::string_view(record.message).substr(span.begin, span.length)));
        at = span.begin + span.length;
    }
    line.append(record.message, at);
    return line;
}

void StderrLogSink::write(const LogRecord& record)
{
    const auto now = std::chrono::system_clock::now();
    const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
    const auto millis = std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000;
    std::tm parts{};
    localtime_r(&seconds, &parts);
    char stamp[32];
    std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &parts);
    char prefix[128];
    std::snprintf(prefix, sizeof prefix, "%s.%03d %-7s ", stamp, static_cast<int>(millis),
                  std::string(logLevelName(record.level)).c_str());
    std::string line = prefix;
    line += "[" + record.subsystem + ":" + record.category + "] ";
    line += lineText(record);
    line.push_back('\n');
    // One write per line, so a NUL inside cannot end it early.
    const std::lock_guard lock(mutex_);
    std::fwrite(line.data(), 1, line.size(), stream_);
    std::fflush(stream_);
}

void RecordingLogSink::write(const LogRecord& record)
{
    const std::lock_guard lock(mutex_);
    records_.push_back(record);
}

std::vector<LogRecord> RecordingLogSink::records() const
{
    const std::lock_guard lock(mutex_);
    return records_;
}

std::vector<std::string> RecordingLogSink::messages() const
{
    const std::lock_guard lock(mutex_);
    std::vector<std::string> out;
    out.reserve(records_.size());
    for (const auto& record : records_) out.push_back(record.message);
    return out;
}

bool RecordingLogSink::contains(std::string_view message) const
{
    const std::lock_guard lock(mutex_);
    return std::any_of(records_.begin(), records_.end(), [&](const LogRecord& r) { return r.message == message; });
}

bool RecordingLogSink::containsFragment(std::string_view fragment) const
{
    const std::lock_guard lock(mutex_);
    return std::any_of(records_.begin(), records_.end(),
                       [&](const LogRecord& r) { return r.message.find(fragment) != std::string::npos; });
}

void RecordingLogSink::clear()
{
    const std::lock_guard lock(mutex_);
    records_.clear();
}

void Logger::write(LogLevel level, std::string message, std::vector<LogRecord::Span> spans) const
{
    sink_->write(LogRecord{std::string(kLogSubsystem), category_, level, std::move(message), std::move(spans)});
}

namespace logformat {

namespace {

void appendArg(std::string& out, Conversion conversion, const Arg& arg)
{
    char buffer[64];
    switch (conversion) {
    case Conversion::string:
        out.append(arg.text);
        return;
    case Conversion::boolean:
        out.append(arg.boolValue ? "true" : "false");
        return;
    case Conversion::floating: {
        double value = arg.floatValue;
        if (arg.kind == ArgKind::signedInt) value = static_cast<double>(arg.signedValue);
        if (arg.kind == ArgKind::unsignedInt) value = static_cast<double>(arg.unsignedValue);
        // "%f" prints every integer digit: up to 309 of them for a double,
        // more than the buffer holds, so measure first rather than truncate.
        const int length = std::snprintf(nullptr, 0, "%f", value);
        if (length <= 0) return;
        const std::size_t at = out.size();
        out.resize(at + static_cast<std::size_t>(length) + 1);
        std::snprintf(out.data() + at, static_cast<std::size_t>(length) + 1, "%f", value);
        out.resize(at + static_cast<std::size_t>(length));
        return;
    }
    case Conversion::signedInt:
    case Conversion::unsignedInt:
        if (arg.kind == ArgKind::signedInt) std::snprintf(buffer, sizeof buffer, "%" PRId64, arg.signedValue);
        else std::snprintf(buffer, sizeof buffer, "%" PRIu64, arg.unsignedValue);
        out.append(buffer);
        return;
    }
}

} // namespace

std::string render(std::string_view format, const Arg* args, std::size_t count, std::vector<LogRecord::Span>* spans)
{
    std::string out;
    out.reserve(format.size() + 32);
    std::size_t index = 0;
    for (std::size_t i = 0; i < format.size(); ++i) {
        if (format[i] != '%') {
            out.push_back(format[i]);
            continue;
        }
        if (i + 1 < format.size() && format[i + 1] == '%') {
            out.push_back('%');
            ++i;
            continue;
        }
        Directive directive;
        // The format was checked at compile time; a failure here cannot happen,
        // but a malformed one renders verbatim rather than crash.
        bool parsed = false;
        try {
            parsed = nextDirective(format, i, directive) && directive.begin == i;
        } catch (const char*) {
            parsed = false;
        }
        if (!parsed || index >= count) {
            out.push_back('%');
            continue;
        }
        const std::size_t begin = out.size();
        appendArg(out, directive.conversion, args[index++]);
        if (spans) spans->push_back({begin, out.size() - begin});
        i = directive.begin + directive.length - 1;
    }
    return out;
}

} // namespace logformat
} // namespace orven
