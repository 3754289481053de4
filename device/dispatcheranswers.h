#pragma once

#include <QByteArray>

class Dispatcher;
class QJsonObject;

/// The commands that do not send one thing to each target but answer for themselves.
namespace answers {

/// Every session with its state, written straight into bytes: at 20,000 speakers it must not hold the
/// loop.
QByteArray list(Dispatcher& dispatcher, const QJsonObject& request);
QByteArray group(Dispatcher& dispatcher, const QJsonObject& request);
QByteArray enable(Dispatcher& dispatcher, const QJsonObject& request);
QByteArray disable(Dispatcher& dispatcher, const QJsonObject& request);

// The list of serials that may not register, kept in "unuse.conf". "sskey" must be the service key
// and the licence must allow "seed" and "key".
QByteArray addRegistered(Dispatcher& dispatcher, const QJsonObject& request);
QByteArray editRegistered(Dispatcher& dispatcher, const QJsonObject& request);
QByteArray deleteRegistered(Dispatcher& dispatcher, const QJsonObject& request);

} // namespace answers
