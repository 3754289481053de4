#include "api/linebindings.h"

#include <QDebug>
#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QSaveFile>

namespace {

constexpr qint64 LargestFile = 64 * 1024; // a binding is a few hundred bytes

QByteArray toJson(const LineBinding& binding) {
    return QJsonDocument(QJsonObject{{QStringLiteral("userid"), binding.userid},
                                     {QStringLiteral("lineid"), binding.lineid},
                                     {QStringLiteral("sn"), QJsonArray::fromStringList(binding.serials)},
                                     {QStringLiteral("taskid"), binding.taskid},
                                     {QStringLiteral("url"), binding.address},
                                     {QStringLiteral("token"), binding.secret}})
        .toJson();
}

} // namespace

bool LineBindings::isLineId(const QString& text) {
    static const QRegularExpression allowed(QStringLiteral("\\A[A-Za-z0-9_-]{1,64}\\z"));
    return allowed.match(text).hasMatch();
}

QString LineBindings::path(const QString& lineid) const {
    return m_directory + QLatin1Char('/') + lineid + QStringLiteral(".json");
}

std::optional<LineBinding> LineBindings::read(const QString& lineid) const {
    QFile file(path(lineid));
    if (!isLineId(lineid) || !file.open(QIODevice::ReadOnly))
        return std::nullopt;
    const QJsonObject object = QJsonDocument::fromJson(file.read(LargestFile)).object();
    LineBinding binding{object.value(QLatin1String("userid")).toInt(),
                        lineid,
                        {},
                        object.value(QLatin1String("taskid")).toInt(),
                        object.value(QLatin1String("url")).toString(),
                        object.value(QLatin1String("token")).toString()};
    for (const QJsonValue& serial : object.value(QLatin1String("sn")).toArray())
        binding.serials.append(serial.toString());
    return binding;
}

bool LineBindings::write(const LineBinding& binding) const {
    if (!isLineId(binding.lineid) || !QDir().mkpath(m_directory))
        return false;
    QSaveFile file(path(binding.lineid));
    const QByteArray json = toJson(binding);
    const bool written = file.open(QIODevice::WriteOnly) &&
                         file.setPermissions(QFile::ReadOwner | QFile::WriteOwner) &&
                         file.write(json) == json.size() && file.commit();
    if (!written)
        qWarning().noquote() << "line binding not stored:" << file.fileName() << file.errorString();
    return written;
}

bool LineBindings::remove(const QString& lineid) const {
    return isLineId(lineid) && (!QFile::exists(path(lineid)) || QFile::remove(path(lineid)));
}
