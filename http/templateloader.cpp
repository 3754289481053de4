#include "http/templateloader.h"

#include <algorithm>
#include <QFile>
#include <QTextCodec>

namespace {

/// A page; what is larger was not meant as one.
constexpr qint64 MaxSize = 1'000'000;

bool isName(const QByteArray& name) {
    constexpr int longest = 64;
    return !name.isEmpty() && name.size() <= longest && std::all_of(name.begin(), name.end(), [](char c) {
        return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '-' ||
               c == '_';
    });
}

} // namespace

TemplateLoader::TemplateLoader(const TemplateSettings& settings)
    : m_directory(settings.directory)
    , m_suffix(settings.suffix)
    , m_codec(QTextCodec::codecForName(settings.encoding)) {
    if (!m_codec)
        m_codec = QTextCodec::codecForName("UTF-8");
}

Template TemplateLoader::load(const QByteArray& name) const {
    QFile file(m_directory + QLatin1Char('/') + QString::fromLatin1(name) + m_suffix);
    if (!isName(name) || !file.open(QIODevice::ReadOnly) || file.size() > MaxSize)
        return Template(QString());
    return Template(m_codec->toUnicode(file.readAll()));
}
