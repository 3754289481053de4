#include "http/httpdate.h"

#include <clocale>

namespace {

/// Day and month names are English whatever the process's locale is.
locale_t plainLocale() {
    static const locale_t locale = ::newlocale(LC_ALL_MASK, "C", nullptr);
    return locale;
}

constexpr const char* Forms[] = {
    "%a, %d %b %Y %H:%M:%S GMT", // as sent today
    "%A, %d-%b-%y %H:%M:%S GMT", // RFC 850
    "%a %b %e %H:%M:%S %Y",      // asctime
};

} // namespace

QByteArray httpDate(std::time_t time) {
    std::tm parts{};
    ::gmtime_r(&time, &parts);
    char text[64];
    const std::size_t size = ::strftime_l(text, sizeof text, Forms[0], &parts, plainLocale());
    return {text, static_cast<int>(size)};
}

std::optional<std::time_t> parseHttpDate(const QByteArray& text) {
    for (const char* form : Forms) {
        std::tm parts{};
        const char* end = ::strptime_l(text.constData(), form, &parts, plainLocale());
        if (end && *end == '\0')
            return ::timegm(&parts);
    }
    return std::nullopt;
}
