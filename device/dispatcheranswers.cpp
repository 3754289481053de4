#include "device/dispatcheranswers.h"

#include "core/serial.h"
#include "device/dispatcher.h"
#include "device/jsontext.h"
#include "device/licence.h"
#include "device/saobj.h"

#include <algorithm>
#include <QDebug>
#include <QJsonArray>

namespace {

void appendText(QByteArray& json, const char* key, const QString& text) {
    json += key;
    appendJsonText(json, text);
}

void appendNumber(QByteArray& json, const char* key, int value) {
    json += key;
    json += QByteArray::number(value);
}

/// The reply with "list": `entries` are JSON values, separated by commas.
QByteArray withList(const QString& info, const QByteArray& entries) {
    QByteArray json = Dispatcher::reply("success", info);
    json.chop(1);
    json += ",\"list\":[";
    json += entries;
    json += "]}";
    return json;
}

QString speakers(int count) {
    return QStringLiteral("%1 speakers").arg(count);
}

/// Of a registration or of the long status form.
bool isRegistered(const QString& text) {
    return isSerialOf(text, 32) || isSerialOf(text, 24);
}

QStringList serials(const QJsonObject& request) {
    QStringList found;
    for (const QJsonValue entry : request.value(QLatin1String("snlist")).toArray())
        found << entry.toString();
    return found;
}

void setEnabled(Severinit& devices, const QString& sn, bool isEnabled) {
    if (isRegistered(sn) || devices.session(sn))
        devices.setRestricted(sn, !isEnabled);
}

/// How a command changes the list of refused serials.
using ListChange = void (*)(QStringList& list, const QStringList& serials);

/// The result word and the reason when the request may not change the list; no word when it may.
Plan guard(const Severinit& devices, const QJsonObject& request) {
    const Arguments arguments(request);
    const QStringList named = serials(request);
    if (named.isEmpty())
        return Plan::refused("Data_error_7", QStringLiteral("no serials in \"snlist\""));
    if (!devices.matchesServiceKey(arguments.text("sskey").value_or(QString())))
        return Plan::refused("Data_error_7", QStringLiteral("\"sskey\" is not the service key"));
    if (!devices.licence().mayRegister(arguments.text("seed").value_or(QString()),
                                       arguments.text("key").value_or(QString())))
        return Plan::refused("Data_error_7", QStringLiteral("the licence does not allow it"));
    if (!std::all_of(named.begin(), named.end(), isRegistered))
        return Plan::refused("out_of_range",
                             QStringLiteral("a serial is not 24 or 32 lower-case hexadecimal digits"));
    return nullptr;
}

QByteArray changeRegistered(Dispatcher& dispatcher, const QJsonObject& request, ListChange change) {
    Severinit& devices = dispatcher.devices();
    const Plan verdict = guard(devices, request);
    if (verdict.refusal)
        return Dispatcher::reply(verdict.refusal, verdict.info);
    QStringList list = devices.blockedSerials();
    change(list, serials(request));
    list.removeDuplicates();
    list.sort();
    if (!devices.setBlockedSerials(list))
        return Dispatcher::reply("write_erro", QStringLiteral("\"unuse.conf\" can't be written"));
    const Arguments arguments(request);
    if (const auto url = arguments.filledText("url")) {
        const auto tell = [url = *url, md5 = arguments.text("md5").value_or(QString()),
                           paths = arguments.text("paths").value_or(QString())](SAobj& session) {
            return session._AATS(url, md5, paths);
        };
        static const CommandRow row{"A#", 0, Targets::All, nullptr, {}};
        dispatcher.callEach(row, tell);
    }
    return Dispatcher::reply("success9000800", QStringLiteral("%1 serials in the list").arg(list.size()));
}

} // namespace

void answers::appendSession(QByteArray& json, const SAobj& session) {
    appendText(json, "{\"sn\":", session.sn());
    appendText(json, ",\"status_playfile\":", session.playingPath());
    appendText(json, ",\"l_ip\":", session.localIp());
    appendNumber(json, ",\"vol\":", session.vol());
    appendNumber(json, ",\"status\":", session.onlineState());
    appendNumber(json, ",\"kind\":", session.kind());
    appendText(json, ",\"r_ip\":", session.remoteIp());
    appendNumber(json, ",\"Mic_d\":", session.micD());
    appendNumber(json, ",\"Mic_e\":", session.micE());
    appendNumber(json, ",\"dsv\":", session.debugState());
    appendNumber(json, ",\"xhstatus\":", session.xuhao());
    json += '}';
}

QByteArray answers::listOfChanges(Dispatcher& dispatcher, const QJsonObject& request) {
    if (!request.contains(QLatin1String("since")))
        return {};
    const QByteArray since = request.value(QLatin1String("since")).toString().toUtf8();
    const Severinit::Changes changes = dispatcher.devices().changesSince(since);
    QByteArray entries;
    for (const SAobj* const session : changes.sessions) {
        if (!entries.isEmpty())
            entries += ',';
        appendSession(entries, *session);
    }
    QByteArray json = withList(speakers(static_cast<int>(changes.sessions.size())), entries);
    json.chop(1);
    return json + ",\"mark\":\"" + changes.mark + "\",\"more\":" + (changes.isMore ? "true}" : "false}");
}

QByteArray answers::group(Dispatcher& dispatcher, const QJsonObject& request) {
    const QStringList members = dispatcher.expandGroup(request);
    if (members.isEmpty())
        return Dispatcher::reply("Data_error_7", QStringLiteral("no such group, or Redis is not connected"));
    QByteArray entries;
    for (const QString& sn : members) {
        if (!entries.isEmpty())
            entries += ',';
        appendJsonText(entries, sn);
    }
    return withList(speakers(members.size()), entries);
}

void answers::enable(Severinit& devices, const QString& sn) {
    setEnabled(devices, sn, true);
}

void answers::disable(Severinit& devices, const QString& sn) {
    setEnabled(devices, sn, false);
}

QByteArray answers::addRegistered(Dispatcher& dispatcher, const QJsonObject& request) {
    return changeRegistered(dispatcher, request,
                            [](QStringList& list, const QStringList& serials) { list += serials; });
}

QByteArray answers::editRegistered(Dispatcher& dispatcher, const QJsonObject& request) {
    return changeRegistered(dispatcher, request,
                            [](QStringList& list, const QStringList& serials) { list = serials; });
}

QByteArray answers::deleteRegistered(Dispatcher& dispatcher, const QJsonObject& request) {
    return changeRegistered(dispatcher, request, [](QStringList& list, const QStringList& serials) {
        const QSet<QString> gone(serials.begin(), serials.end());
        list.erase(
            std::remove_if(list.begin(), list.end(), [&](const QString& sn) { return gone.contains(sn); }),
            list.end());
    });
}
