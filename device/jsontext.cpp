#include "device/jsontext.h"

#include <algorithm>

namespace {

bool isPlain(QChar c) {
    return c.unicode() >= 0x20 && c.unicode() < 0x7f && c != QLatin1Char('"') && c != QLatin1Char('\\');
}

void appendEscaped(QByteArray& json, char c) {
    const auto code = static_cast<unsigned char>(c);
    if (c == '"' || c == '\\') {
        json += '\\';
        json += c;
    } else if (code < 0x20) {
        json += "\\u00";
        json += QByteArray::number(code, 16).rightJustified(2, '0');
    } else {
        json += c;
    }
}

} // namespace

void appendJsonText(QByteArray& json, const QString& text) {
    json += '"';
    if (std::all_of(text.begin(), text.end(), isPlain)) {
        for (const QChar c : text)
            json += static_cast<char>(c.unicode());
    } else {
        const QByteArray utf8 = text.toUtf8();
        for (const char c : utf8)
            appendEscaped(json, c);
    }
    json += '"';
}
