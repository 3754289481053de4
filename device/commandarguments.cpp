#include "device/commandrow.h"

#include <QJsonArray>

std::optional<int> Arguments::integer(const char* key) const {
    const QJsonValue value = m_request.value(QLatin1String(key));
    bool isInteger = false;
    int number = 0;
    if (value.isDouble()) {
        number = value.toVariant().toInt(&isInteger);
        isInteger = isInteger && number == value.toDouble();
    } else {
        number = value.toString().toInt(&isInteger);
    }
    return isInteger ? std::optional<int>(number) : std::nullopt;
}

std::optional<QString> Arguments::text(const char* key) const {
    const QJsonValue value = m_request.value(QLatin1String(key));
    if (value.isDouble()) {
        const auto number = integer(key);
        return number ? std::optional<QString>(QString::number(*number)) : std::nullopt;
    }
    if (!value.isString() || value.toString().toUtf8().size() > MaxBytes)
        return std::nullopt;
    return value.toString();
}

std::optional<QString> Arguments::filledText(const char* key) const {
    auto found = text(key);
    return found && !found->isEmpty() ? found : std::nullopt;
}

QStringList Arguments::files() const {
    QStringList found;
    for (const QJsonValue entry : m_request.value(QLatin1String("filelist")).toArray())
        found << entry.toString();
    return found.contains(QString()) ? QStringList() : found;
}
