#include "core/logline.h"

#include <algorithm>

namespace {

bool isBetween(ushort c, ushort first, ushort last) {
    return c >= first && c <= last;
}

bool isControl(ushort c) {
    return c < 0x20 || isBetween(c, 0x7F, 0x9F);
}

// Direction marks, zero-width characters, line and paragraph separators.
bool isInvisible(ushort c) {
    return c == 0x061C || isBetween(c, 0x200B, 0x200F) || isBetween(c, 0x2028, 0x202E) ||
           isBetween(c, 0x2060, 0x206F) || c == 0xFEFF;
}

bool isUnsafe(QChar c) {
    return isControl(c.unicode()) || isInvisible(c.unicode());
}

QString writtenOut(ushort c) {
    if (c == '\n' || c == '\r')
        return QStringLiteral("\\n");
    if (c == '\t')
        return QStringLiteral("\\t");
    return isControl(c) ? QStringLiteral("\\x%1").arg(c, 2, 16, QLatin1Char('0'))
                        : QStringLiteral("\\u%1").arg(c, 4, 16, QLatin1Char('0'));
}

QString escaped(const QString& message) {
    QString text;
    text.reserve(message.size() + 16);
    for (int i = 0; i < message.size(); ++i) {
        const QChar c = message.at(i);
        const bool isPaired =
            c == QLatin1Char('\r') && i + 1 < message.size() && message.at(i + 1) == QLatin1Char('\n');
        if (isPaired)
            continue; // the pair is one break
        if (isUnsafe(c))
            text += writtenOut(c.unicode());
        else
            text += c;
    }
    return text;
}

} // namespace

QByteArray logLine(const QString& message, int longest) {
    const bool isPlain = std::none_of(message.begin(), message.end(), isUnsafe);
    QByteArray line = isPlain ? message.toUtf8() : escaped(message).toUtf8();
    if (line.size() <= longest)
        return line;
    const QByteArray mark = " ... (" + QByteArray::number(line.size()) + " bytes)";
    line.truncate(longest - mark.size());
    while (!line.isEmpty() && (static_cast<uchar>(line.back()) & 0xC0U) == 0x80U)
        line.chop(1);
    if (!line.isEmpty() && static_cast<uchar>(line.back()) >= 0xC0U)
        line.chop(1); // the first byte of the character that was cut
    return line + mark;
}
