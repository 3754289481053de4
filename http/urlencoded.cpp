#include "http/urlencoded.h"

namespace {

int hexDigit(char c) {
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

} // namespace

std::optional<QByteArray> decodePercent(const QByteArray& text, bool plusIsSpace) {
    QByteArray result;
    result.reserve(text.size());
    for (int i = 0; i < text.size(); ++i) {
        const char c = text.at(i);
        if (c == '\0')
            return std::nullopt;
        if (c != '%') {
            result.append(plusIsSpace && c == '+' ? ' ' : c);
            continue;
        }
        if (i + 2 >= text.size())
            return std::nullopt;
        const int high = hexDigit(text.at(i + 1));
        const int low = hexDigit(text.at(i + 2));
        if (high < 0 || low < 0 || high + low == 0)
            return std::nullopt;
        result.append(static_cast<char>(high * 16 + low));
        i += 2;
    }
    return result;
}

bool decodeForm(const QByteArray& text, QMap<QByteArray, QByteArray>& parameters) {
    int fields = 0;
    for (int begin = 0; begin < text.size();) {
        int end = text.indexOf('&', begin);
        if (end < 0)
            end = text.size();
        if (end > begin) {
            const int equals = text.indexOf('=', begin);
            const int nameEnd = equals >= 0 && equals < end ? equals : end;
            const auto name = decodePercent(text.mid(begin, nameEnd - begin), true);
            const auto value =
                decodePercent(nameEnd < end ? text.mid(nameEnd + 1, end - nameEnd - 1) : QByteArray(), true);
            if (!name || !value || ++fields > MaxFormFields)
                return false;
            parameters.insert(*name, *value);
        }
        begin = end + 1;
    }
    return true;
}
