#include "tasks/devicestatus.h"

#include "tasks/serial.h"

#include <algorithm>
#include <iterator>
#include <QDebug>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

namespace {

const QString Update = QStringLiteral("UPDATE `sbox_device_info` SET");
const QString Status = QStringLiteral("`status` = '@status'");
const QString Where = QStringLiteral("WHERE (`device_seed` = '@sn' ) ;");
// For an answer that tells these three alone.
const QString FixedUpdate =
    QStringLiteral("UPDATE `sbox_device_info` SET `vol` = '@vol', `status` = '@status', `kind` = '@kind' "
                   "WHERE (`device_seed` = '@sn' and `id` > 0 );");

struct Fragment {
    const char* key;  ///< of an entry
    const char* text; ///< the assignment
    bool counter;     ///< an amount to add
};
constexpr Fragment Fragments[] = {
    {"vol", "`vol` = '@vol',", false},
    {"kind", "`kind` = '@kind',", false},
    {"pyl", "`pyl` = `pyl`+'@pyl',", true},
    {"rtl", "`rtl` = `rtl`+'@rtl',", true},
    {"rt", "`rt` = `rt`+'@rt',", true},
    {"py", "`py` = `py`+'@py',", true},
    {"xhstatus", "`xhstatus` = '@xhstatus',", false},
};

bool holds(const QJsonObject& entry, const Fragment& fragment) {
    const QJsonValue value = entry.value(QLatin1String(fragment.key));
    return value.isDouble() && (!fragment.counter || value.toInt() != 0);
}

} // namespace

QByteArray DeviceStatus::question() const {
    const QJsonObject request{{QStringLiteral("cmd"), QStringLiteral("LIST")},
                              {QStringLiteral("since"), m_mark}};
    return QJsonDocument(request).toJson(QJsonDocument::Compact);
}

QStringList DeviceStatus::changes(const QByteArray& answer) {
    m_isMore = false;
    QJsonParseError error{};
    const QJsonDocument document = QJsonDocument::fromJson(answer, &error);
    if (error.error != QJsonParseError::NoError) {
        qWarning() << "getdevinfo: answer does not parse:" << error.errorString() << answer.size();
        return {};
    }
    const QString mark = document.object().value(QLatin1String("mark")).toString();
    m_isMore = document.object().value(QLatin1String("more")).toBool() && mark != m_mark;
    m_mark = mark;
    QStringList statements;
    const QJsonArray list = document.object().value(QLatin1String("list")).toArray();
    for (const QJsonValue& entry : list) {
        const QString statement = change(entry.toObject());
        if (!statement.isEmpty())
            statements.append(statement);
    }
    return statements;
}

QString DeviceStatus::change(const QJsonObject& entry) {
    const QString sn = entry.value(QLatin1String("sn")).toString();
    if (!isSerial(sn) || !entry.value(QLatin1String("status")).isDouble())
        return {};
    const Values now{entry.value(QLatin1String("vol")).toInt(), entry.value(QLatin1String("kind")).toInt(),
                     entry.value(QLatin1String("xhstatus")).toInt(),
                     entry.value(QLatin1String("status")).toInt()};
    const bool counted = std::any_of(std::begin(Fragments), std::end(Fragments),
                                     [&](const Fragment& f) { return f.counter && holds(entry, f); });
    if (m_mark.isEmpty()) { // the node tells everything every time
        const auto known = m_known.constFind(sn.toLatin1());
        if (!counted && known != m_known.constEnd() && *known == now)
            return {};
        m_known.insert(sn.toLatin1(), now);
    }

    QString built = Update;
    SqlArgs args{{QStringLiteral("@sn"), sn}, {QStringLiteral("@status"), now.status}};
    QStringList told;
    for (const Fragment& fragment : Fragments) {
        if (!holds(entry, fragment))
            continue;
        const QString key = QLatin1String(fragment.key);
        told += key;
        built += QLatin1String(fragment.text);
        args.emplace_back(QLatin1Char('@') + key, entry.value(key).toInt());
    }
    const bool fixed = told == QStringList{QStringLiteral("vol"), QStringLiteral("kind")};
    return sqlLine(fixed ? FixedUpdate : built + Status + Where, args);
}
