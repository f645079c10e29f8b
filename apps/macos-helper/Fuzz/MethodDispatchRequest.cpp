// A request line as a client may send it, any bytes at all: parsing never
// throws, an accepted request's arguments have the types of its table entry,
// and whatever is answered is one line of valid JSON. Base64 data decodes
// back to the bytes it was made from.

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <variant>

#include "MethodDispatch.h"

namespace {

void require(bool condition)
{
    if (!condition) std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    using namespace orven;
    namespace md = MethodDispatch;
    const std::string_view line(reinterpret_cast<const char*>(data), size);

    auto parsed = md::parseRequest(line);
    if (auto* error = std::get_if<nlohmann::json>(&parsed)) {
        require(error->is_object() && error->contains("error") && !error->contains("reply"));
        const auto text = md::dumpLine(*error);
        require(text.find('\n') == std::string::npos && nlohmann::json::accept(text));
    } else {
        const auto& request = std::get<md::Request>(parsed);
        require(request.method != nullptr);
        const auto arguments = md::argumentsFromJSON(*request.method, request.arguments);
        if (arguments) require(md::matchesAll(*arguments, request.method->arguments));
        const auto refusal = md::refusal(*request.method, md::invalidArgumentsMessage(*request.method));
        require(md::matchesAll(refusal, request.method->reply));
        const auto text = md::dumpLine(nlohmann::json{{"id", request.id}, {"reply", md::valuesToJSON(refusal)}});
        require(text.find('\n') == std::string::npos && nlohmann::json::accept(text));
    }

    const md::Bytes bytes(data, data + size);
    require(md::base64Decode(md::base64Encode(bytes)) == bytes);
    if (const auto decoded = md::base64Decode(line)) require(decoded->size() <= size);
    return 0;
}
