#include "api/call.h"

#include "api/requestmapper.h"

#include <QJsonDocument>
#include <QRegularExpression>

QByteArray reply(const QJsonObject& object) {
    return QJsonDocument(object).toJson(QJsonDocument::Indented);
}

QByteArray refusal(const QString& word, int code) {
    QJsonObject object{{QStringLiteral("res"), false}, {QStringLiteral("info"), word}};
    if (code != 0)
        object.insert(QStringLiteral("code"), code);
    return reply(object);
}

QList<qint64> numbersIn(const QString& list) {
    static const QRegularExpression separators(QStringLiteral("[|,]"));
    QList<qint64> numbers;
    const QStringList entries = list.split(separators);
    for (const QString& entry : entries) {
        bool isNumber = false;
        const qint64 number = entry.trimmed().toLongLong(&isNumber);
        if (isNumber)
            numbers.append(number);
    }
    return numbers;
}

bool Call::require(std::initializer_list<const char*> names, const char* word) {
    bool complete = has("id") && has("token");
    for (const char* name : names)
        complete = complete && has(name);
    return complete || refuse(refusal(QLatin1String(word)));
}

bool Call::authenticate(const char* unknownWord) {
    if (m_tokens.token(userid()))
        return authenticateLoosely();
    return refuse(refusal(QLatin1String(unknownWord), -1));
}

bool Call::authenticateLoosely() {
    const std::optional<QString> token = m_tokens.token(userid());
    if (token.value_or(QString()) != text("token"))
        return refuse(refusal(QStringLiteral("_FALSE6"), -2));
    m_isNobody = !token;
    return true;
}

bool Call::refuse(const QByteArray& answer) {
    m_refused = answer;
    return false;
}

bool Call::has(const char* name) const {
    return m_params.contains(name);
}

QString Call::raw(const char* name) const {
    return QString::fromUtf8(m_params.value(name));
}

QString Call::text(const char* name) const {
    return raw(name).trimmed();
}

int Call::number(const char* name) const {
    return m_params.value(name).trimmed().toInt();
}

QStringList Call::list(const char* name) const {
    const QString value = text(name);
    return value.isEmpty() ? QStringList() : value.split(QLatin1Char('|'));
}
