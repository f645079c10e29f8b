// Any bytes as a logged argument: the line the stderr log shows keeps the
// format's own text, and the argument can neither break the line nor carry a
// control character, nor stop being valid UTF-8.

#include <cstdint>
#include <string>
#include <vector>

#include "Log.h"
#include "PFFuzzCheck.h"
#include "Text.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    using namespace orven;
    const std::string argument(fuzz::asText(data, size));
    const std::string format = "before %{public}s after";
    const logformat::Arg args[] = {logformat::makeArg(argument)};
    std::vector<LogRecord::Span> spans;
    LogRecord record{"s", "c", LogLevel::error, logformat::render(format, args, 1, &spans), {}};
    record.argumentSpans = spans;
    const std::string line = StderrLogSink::lineText(record);

    fuzz::check(line.rfind("before ", 0) == 0 && line.size() >= 13 && line.substr(line.size() - 6) == " after",
                "the format's own text is kept");
    const auto scalars = text::decodeUTF8(line);
    fuzz::check(scalars.has_value(), "the line is valid UTF-8");
    for (const char32_t scalar : *scalars)
        fuzz::check(!text::isControl(scalar) && !text::isNewline(scalar), "no control or newline character is left");
    return 0;
}
