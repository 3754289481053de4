#include "http/filerange.h"

#include "http/httpdate.h"

#include <algorithm>
#include <optional>
#include <QList>

namespace {

/// Ranges in one header that are looked at; players ask for one.
constexpr int MaxRanges = 16;

struct Range {
    qint64 first = 0; ///< -1: the last `last` bytes
    qint64 last = 0;  ///< -1: to the end
};

std::optional<qint64> position(const QByteArray& text) {
    if (text.isEmpty() || text.size() > 18 ||
        !std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; }))
        return std::nullopt;
    return text.toLongLong();
}

std::optional<Range> parseRange(const QByteArray& text) {
    const int dash = text.indexOf('-');
    if (dash < 0)
        return std::nullopt;
    const QByteArray before = text.left(dash);
    const QByteArray after = text.mid(dash + 1);
    const auto first = position(before);
    const auto last = position(after);
    if (before.isEmpty() && last)
        return Range{-1, *last};
    if (!first || (!after.isEmpty() && (!last || *last < *first)))
        return std::nullopt;
    return Range{*first, last.value_or(-1)};
}

/// The part of the file that a range stands for; length 0 when it lies outside.
FilePart resolve(const Range& range, qint64 size) {
    if (range.first < 0) {
        const qint64 length = std::min(range.last, size);
        return {206, size - length, length};
    }
    if (range.first >= size)
        return {206, 0, 0};
    const qint64 last = range.last < 0 ? size - 1 : std::min(range.last, size - 1);
    return {206, range.first, last - range.first + 1};
}

FilePart applyRange(const QByteArray& header, qint64 size) {
    const FilePart whole{200, 0, size};
    if (!header.toLower().startsWith("bytes="))
        return whole;
    const QList<QByteArray> parts = header.mid(6).split(',');
    if (parts.size() > MaxRanges)
        return whole;
    FilePart part{416, 0, 0};
    for (const QByteArray& text : parts) {
        const auto range = parseRange(text.trimmed());
        if (!range)
            return whole;
        const FilePart resolved = resolve(*range, size);
        if (resolved.length > 0)
            part = resolved;
    }
    return parts.size() > 1 && part.status == 206 ? whole : part;
}

bool matches(const QByteArray& list, const QByteArray& etag) {
    for (const QByteArray& entry : list.split(',')) {
        QByteArray tag = entry.trimmed();
        if (tag.startsWith("W/"))
            tag.remove(0, 2);
        if (tag == "*" || tag == etag)
            return true;
    }
    return false;
}

bool isUnchanged(const FileQuery& query, const FileVersion& version) {
    if (!query.ifNoneMatch.isEmpty())
        return matches(query.ifNoneMatch, version.etag);
    const auto since = parseHttpDate(query.ifModifiedSince);
    return since && version.modified <= *since;
}

bool rangeStillHolds(const QByteArray& ifRange, const FileVersion& version) {
    if (ifRange.isEmpty() || ifRange == version.etag)
        return true;
    const auto date = parseHttpDate(ifRange);
    return date && *date == version.modified;
}

} // namespace

FilePart choosePart(const FileQuery& query, const FileVersion& version) {
    if (isUnchanged(query, version))
        return {304, 0, 0};
    if (query.range.isEmpty() || !rangeStillHolds(query.ifRange, version))
        return {200, 0, version.size};
    return applyRange(query.range, version.size);
}
