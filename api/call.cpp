#include "api/call.h"

#include "api/requestmapper.h"

#include <QJsonDocument>

QByteArray reply(const QJsonObject& object) {
    return QJsonDocument(object).toJson(QJsonDocument::Indented);
}

QByteArray refusal(const QString& word, int code) {
    QJsonObject object{{QStringLiteral("res"), false}, {QStringLiteral("info"), word}};
    if (code != 0)
        object.insert(QStringLiteral("code"), code);
    return reply(object);
}

bool Call::require(std::initializer_list<const char*> names, const char* word) {
    bool complete = has("id") && has("token");
    for (const char* name : names)
        complete = complete && has(name);
    if (!complete)
        m_refused = refusal(QLatin1String(word));
    return complete;
}

bool Call::authenticate(const char* unknownWord) {
    if (m_tokens.token(userid()))
        return authenticateLoosely();
    m_refused = refusal(QLatin1String(unknownWord), -1);
    return false;
}

bool Call::authenticateLoosely() {
    if (m_tokens.token(userid()).value_or(QString()) == text("token"))
        return true;
    m_refused = refusal(QStringLiteral("_FALSE6"), -2);
    return false;
}

bool Call::has(const char* name) const {
    return m_params.contains(name);
}

QString Call::text(const char* name) const {
    return QString::fromUtf8(m_params.value(name)).trimmed();
}

int Call::number(const char* name) const {
    return m_params.value(name).trimmed().toInt();
}

QStringList Call::list(const char* name) const {
    const QString value = text(name);
    return value.isEmpty() ? QStringList() : value.split(QLatin1Char('|'));
}
