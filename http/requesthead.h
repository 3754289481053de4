#pragma once

#include <optional>
#include <QByteArray>
#include <string_view>
#include <vector>

/// Why a request is not served: the status it is answered with, and the reason for the log.
struct Refusal {
    int status = 400;
    const char* reason = "";
};

struct HeaderField {
    std::string_view name;
    std::string_view value;
};

/// What the head says of the body that follows.
struct BodyLength {
    bool chunked = false;
    qint64 length = 0; ///< bytes; 0 when there is no body, meaningless when chunked
    bool present() const { return chunked || length > 0; }
};

/// Checks what decides where a request ends and to whom it belongs (RFC 9112, sections 3, 5 and 6):
/// anything that two programs on the way could read differently is refused, whatever the library
/// underneath would make of it. Fills `body` when it returns nullopt.
std::optional<Refusal> checkHead(std::string_view method, std::string_view version,
                                 const std::vector<HeaderField>& fields, BodyLength* body);

/// What is wrong with the value of a Content-Length: it takes digits only, no sign, no list.
std::optional<Refusal> checkLength(std::string_view text);

/// Where a request head lies in memory: what was read, with each separator overwritten by NUL bytes.
struct HeadLayout {
    std::string_view method;
    std::string_view version;
    std::size_t targetSize = 0; ///< bytes of the request target as received
    std::size_t size = 0;       ///< bytes of the whole head, from the method on, its blank line included
};

/// Whether the head consists of nothing but the pieces that the parser found, one space between the
/// words of its first line and CRLF at the end of each line. A lone LF, a folded line, a NUL or a
/// nameless header that another program would read differently shows as a gap.
bool isVerbatim(const HeadLayout& head, const std::vector<HeaderField>& fields);

/// Path and query of a request target, both still encoded; absolute form ("http://host/path") loses
/// its scheme and host. nullopt for anything that is not a path, or that holds a space, a control
/// byte or a fragment.
struct Target {
    QByteArray path;
    QByteArray query;
};
std::optional<Target> splitTarget(const QByteArray& target);
