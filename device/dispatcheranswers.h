#pragma once

#include <QByteArray>

class Dispatcher;
class QJsonObject;
class QString;
class SAobj;
class Severinit;

/// The commands that do not send one thing to each target but answer for themselves.
namespace answers {

/// The session with its state, written straight into bytes.
void appendSession(QByteArray& json, const SAobj& session);
/// The sessions that have changed since the mark that the request gives; nothing without one.
QByteArray listOfChanges(Dispatcher& dispatcher, const QJsonObject& request);
QByteArray group(Dispatcher& dispatcher, const QJsonObject& request);
void enable(Severinit& devices, const QString& sn);
void disable(Severinit& devices, const QString& sn);

// The list of serials that may not register, kept in "unuse.conf". "sskey" must be the service key
// and the licence must allow "seed" and "key".
QByteArray addRegistered(Dispatcher& dispatcher, const QJsonObject& request);
QByteArray editRegistered(Dispatcher& dispatcher, const QJsonObject& request);
QByteArray deleteRegistered(Dispatcher& dispatcher, const QJsonObject& request);

} // namespace answers
