#include "ics/contentlines.h"

void forEachContentLine(const QByteArray& text, const std::function<bool(const QByteArray& line)>& take) {
    QByteArray line;
    for (int at = text.startsWith("\xef\xbb\xbf") ? 3 : 0; at < text.size();) {
        int end = text.indexOf('\n', at);
        if (end < 0)
            end = text.size();
        const int length = end - at - (end > at && text.at(end - 1) == '\r' ? 1 : 0);
        const bool isFolded = length > 0 && (text.at(at) == ' ' || text.at(at) == '\t');
        if (!isFolded && !line.isEmpty()) {
            if (!take(line))
                return;
            line.clear();
        }
        line.append(text.constData() + at + (isFolded ? 1 : 0), length - (isFolded ? 1 : 0));
        at = end + 1;
    }
    if (!line.isEmpty())
        take(line);
}

QByteArray nameOf(const QByteArray& line) {
    int end = 0;
    while (end < line.size() && line.at(end) != ';' && line.at(end) != ':')
        ++end;
    return line.left(end).trimmed().toUpper();
}
