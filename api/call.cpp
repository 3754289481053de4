#include "api/call.h"

#include "api/requestmapper.h"
#include "core/serial.h"
#include "core/sql/sqlite.h"
#include "http/httprequest.h"

#include <algorithm>
#include <array>
#include <QJsonDocument>
#include <QRegularExpression>

QByteArray reply(const QJsonObject& object) {
    return QJsonDocument(object).toJson(QJsonDocument::Indented);
}

QByteArray success(QJsonObject more) {
    more.insert(QStringLiteral("res"), true);
    more.insert(QStringLiteral("info"), QStringLiteral("SUC"));
    return reply(more);
}

QByteArray refusal(const QString& word, int code) {
    QJsonObject object{{QStringLiteral("res"), false}, {QStringLiteral("info"), word}};
    if (code != 0)
        object.insert(QStringLiteral("code"), code);
    return reply(object);
}

QByteArray noTargets() {
    return refusal(QStringLiteral("snlist_error"), -1);
}

JsonText readParams(const QByteArray& json, Params& params) {
    const QJsonDocument document = QJsonDocument::fromJson(json);
    const QJsonObject object = document.object();
    for (auto entry = object.begin(); entry != object.end(); ++entry)
        params.insert(entry.key().toUtf8(), entry.value().toString().toUtf8());
    return document.isNull() ? JsonText::Unreadable
                             : (document.isObject() ? JsonText::Object : JsonText::NoObject);
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

std::optional<QList<qint64>> idList(const QString& text) {
    QList<qint64> ids;
    const QString separated = QString(text).replace(QLatin1Char(','), QLatin1Char('|'));
    for (const QString& part : separated.split(QLatin1Char('|'), Qt::SkipEmptyParts)) {
        bool isNumber = false;
        ids += part.trimmed().toLongLong(&isNumber);
        if (!isNumber || ids.last() < 1)
            return std::nullopt;
    }
    return ids;
}

QString commaList(const QList<qint64>& ids) {
    QStringList texts;
    for (const qint64 id : ids)
        texts += QString::number(id);
    return texts.join(QLatin1Char(','));
}

bool isOneLine(const QString& text) {
    return std::none_of(text.begin(), text.end(),
                        [](QChar c) { return c.category() == QChar::Other_Control; });
}

bool isPlayable(const QString& address, const RequestMapper& router) {
    static const QRegularExpression actedOn(QStringLiteral("[\"'`$;|<>\\\\]"));
    return isOneLine(address) && !(router.database()->site.safeurls && address.contains(actedOn));
}

bool Call::require(const std::vector<const char*>& names, const char* word) {
    bool complete = has("id") && has("token");
    for (const char* name : names)
        complete = complete && has(name) && (qstrcmp(name, "url") != 0 || isPlayable(text(name), m_router));
    return (complete && !hasLongText()) || refuse(refusal(QLatin1String(word)));
}

bool Call::authenticateAs(int account, const char* unknownWord) {
    const auto token = m_router.token(account);
    if (!token)
        return refuse(refusal(QLatin1String(unknownWord), -1));
    return *token == text("token") || refuse(refusal(QStringLiteral("_FALSE6"), -2));
}

bool Call::authenticateLoosely() {
    const std::optional<QString> token = m_router.token(userid());
    if (token.value_or(QString()) != text("token"))
        return refuse(refusal(QStringLiteral("_FALSE6"), -2));
    m_isNobody = !token;
    return true;
}

bool Call::refuse(const QByteArray& answer) {
    m_refused = answer;
    return false;
}

QTemporaryFile* Call::file() const {
    return m_request ? m_request->getUploadedFile("file") : nullptr;
}

QString Call::fileName() const {
    return has("filename") || !m_request ? text("filename")
                                         : QString::fromUtf8(m_request->getUploadedFileName("file"));
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

bool Call::isLonger(const char* name, int bytes) const {
    const QByteArray value = m_params.value(name);
    return value.size() > bytes && value.trimmed().size() > bytes;
}

bool Call::hasLongText() const {
    constexpr std::array names{"device_code", "dname",     "fei",   "gname",    "lunbotext",
                               "name",        "newname",   "newsn", "overtime", "plantname",
                               "pname",       "task_name", "type"};
    constexpr int texts = 4096;
    return isLonger("info", texts) || isLonger("to", texts) || isLonger("url", texts) ||
           std::any_of(names.begin(), names.end(),
                       [this](const char* name) { return isLonger(name, MaxName); });
}

int Call::number(const char* name) const {
    return m_params.value(name).trimmed().toInt();
}

QStringList Call::list(const char* name) const {
    const QString value = text(name);
    return value.isEmpty() ? QStringList() : value.split(QLatin1Char('|'));
}
