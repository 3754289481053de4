#include "http/requesthead.h"

#include <algorithm>
#include <limits>
#include <strings.h>

namespace {

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
    return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

bool isToken(std::string_view text) {
    constexpr std::string_view marks = "!#$%&'*+-.^_`|~";
    return !text.empty() && std::all_of(text.begin(), text.end(), [marks](char c) {
        return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
               marks.find(c) != std::string_view::npos;
    });
}

bool isControl(char c) {
    return (static_cast<unsigned char>(c) < 0x20 && c != '\t') || c == 0x7f;
}

/// Digits only, no sign, no list; nullopt also when it does not fit.
std::optional<qint64> decimal(std::string_view text) {
    if (text.empty())
        return std::nullopt;
    qint64 value = 0;
    for (const char c : text) {
        if (c < '0' || c > '9' || value > (std::numeric_limits<qint64>::max() - 9) / 10)
            return std::nullopt;
        value = value * 10 + (c - '0');
    }
    return value;
}

/// The fields that may stand only once.
struct Singles {
    int hosts = 0;
    int lengths = 0;
    int codings = 0;
    std::string_view length;
    std::string_view coding;
};

std::optional<Refusal> collect(const std::vector<HeaderField>& fields, Singles* singles) {
    for (const HeaderField& field : fields) {
        if (!isToken(field.name))
            return Refusal{400, "header name with a character that is not allowed"};
        if (std::any_of(field.value.begin(), field.value.end(), isControl))
            return Refusal{400, "control character in a header"};
        if (equalsIgnoringCase(field.name, "host")) {
            ++singles->hosts;
        } else if (equalsIgnoringCase(field.name, "content-length")) {
            ++singles->lengths;
            singles->length = field.value;
        } else if (equalsIgnoringCase(field.name, "transfer-encoding")) {
            ++singles->codings;
            singles->coding = field.value;
        }
    }
    return std::nullopt;
}

} // namespace

std::optional<Refusal> checkLength(std::string_view text) {
    if (decimal(text))
        return std::nullopt;
    const bool isNumber = !text.empty() && text.find_first_not_of("0123456789") == std::string_view::npos;
    return isNumber ? Refusal{413, "body over the limit"} : Refusal{400, "malformed Content-Length"};
}

std::optional<Refusal> checkHead(std::string_view method, std::string_view version,
                                 const std::vector<HeaderField>& fields, BodyLength* body) {
    if (!isToken(method))
        return Refusal{400, "malformed method"};
    if (version != "HTTP/1.1" && version != "HTTP/1.0")
        return Refusal{505, "HTTP version that is not served"};
    Singles singles;
    if (const auto refusal = collect(fields, &singles))
        return refusal;
    if (singles.hosts > 1 || (singles.hosts == 0 && version == "HTTP/1.1"))
        return Refusal{400, "not exactly one Host"};
    if (singles.lengths > 1)
        return Refusal{400, "more than one Content-Length"};
    if (singles.lengths == 1 && singles.codings > 0)
        return Refusal{400, "Content-Length beside Transfer-Encoding"};
    if (singles.codings > 0 && (singles.codings > 1 || !equalsIgnoringCase(singles.coding, "chunked")))
        return Refusal{400, "Transfer-Encoding other than chunked"};
    if (singles.codings > 0 && version == "HTTP/1.0")
        return Refusal{400, "Transfer-Encoding in HTTP/1.0"};
    *body = {};
    body->chunked = singles.codings > 0;
    if (singles.lengths == 1) {
        if (auto refusal = checkLength(singles.length))
            return refusal;
        body->length = *decimal(singles.length);
    }
    return std::nullopt;
}

bool isVerbatim(const HeadLayout& head, const std::vector<HeaderField>& fields) {
    constexpr std::size_t lineEnd = 2; // CR and LF
    const auto end = [](std::string_view text) {
        return text.data() + text.size();
    };
    if (head.version.data() != end(head.method) + 1 + head.targetSize + 1)
        return false;
    const char* next = end(head.version) + lineEnd;
    for (const HeaderField& field : fields) {
        if (field.name.data() != next)
            return false;
        next = end(field.value) + lineEnd;
    }
    return next + lineEnd == head.method.data() + head.size;
}

std::optional<Target> splitTarget(const QByteArray& target) {
    const auto isBad = [](char c) {
        return static_cast<unsigned char>(c) <= 0x20 || c == 0x7f || c == '#';
    };
    if (std::any_of(target.begin(), target.end(), isBad))
        return std::nullopt;
    QByteArray rest = target;
    if (!rest.startsWith('/')) {
        const int hostBegin = rest.indexOf("://") + 3;
        if (hostBegin < 3 + 4 || !rest.toLower().startsWith("http"))
            return std::nullopt;
        const int pathBegin = rest.indexOf('/', hostBegin);
        rest = pathBegin < 0 ? QByteArrayLiteral("/") : rest.mid(pathBegin);
    }
    const int mark = rest.indexOf('?');
    return mark < 0 ? Target{rest, {}} : Target{rest.left(mark), rest.mid(mark + 1)};
}
