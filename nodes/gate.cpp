#include "nodes/gate.h"

#include "nodes/remotecall.h"

#include "core/loop/mainloop.h"
#include "device/severinit.h"

#include <QDebug>
#include <QHostAddress>
#include <QMutexLocker>
#include <QNetworkInterface>
#include <QThread>

Gate::Gate(Severinit* devices, QString ownAddress, QList<int> commandPorts, QObject* parent)
    : QObject(parent)
    , m_devices(devices)
    , m_ownAddress(std::move(ownAddress))
    , m_commandPorts(std::move(commandPorts))
    , m_ownAddresses(QNetworkInterface::allAddresses()) {}

Gate::~Gate() {
    if (m_lost > 0)
        qWarning() << "commands lost:" << m_lost;
}

bool Gate::isThisMachine(const QString& host) const {
    if (host.isEmpty() || host == m_ownAddress || host == QLatin1String("localhost"))
        return true;
    const QHostAddress address(host);
    return address.isLoopback() || m_ownAddresses.contains(address);
}

bool Gate::isThisNode(const NodeAddress& node) const {
    return m_devices && m_commandPorts.contains(node.port) && isThisMachine(node.host);
}

void Gate::run(const NodeAddress& node, const QByteArray& request, const Reply& reply, const Limits& limits) {
    if (QThread::currentThread() != thread()) {
        QMetaObject::invokeMethod(
            this, [=] { run(node, request, reply, limits); }, Qt::QueuedConnection);
        return;
    }
    if (isThisNode(node)) {
        const QByteArray answer = m_devices->Diamonds_jsondidocom(request);
        if (reply)
            reply({NodeCall::Outcome::Answered, answer, {}});
        return;
    }
    const auto done = [this, node, reply](const Result& result) {
        tell(node, result);
        if (reply)
            reply(result);
    };
    new RemoteCall(node, request, reply != nullptr, limits, done, this); // deletes itself
}

Gate::Result Gate::runAndWait(const NodeAddress& node, const QByteArray& request, bool waitForAnswer,
                              const Limits& limits) {
    if (!isThisNode(node))
        return tell(node, NodeCall::send(node, request, waitForAnswer, limits));
    if (waitForAnswer) {
        const auto ask = [&] {
            return m_devices->Diamonds_jsondidocom(request);
        };
        return {NodeCall::Outcome::Answered, callOnLoop(this, ask), {}};
    }
    run(node, request);
    return {NodeCall::Outcome::Sent, {}, {}};
}

Gate::Result Gate::tell(const NodeAddress& node, Result result) {
    if (result.isLost())
        noteLost(node, result.error);
    return result;
}

void Gate::noteLost(const NodeAddress& node, const QString& error) {
    const quint64 lost = ++m_lost;
    const QMutexLocker lock(&m_mutex);
    Silence& silence = m_silences[node.host + QLatin1Char('_') + QString::number(node.port)];
    if (silence.since.isValid() && silence.since.elapsed() < LogInterval.count()) {
        ++silence.unlogged;
        return;
    }
    qWarning() << "sck连接失败" << node.host << node.port << error
               << "lost without a line:" << silence.unlogged << "in all:" << lost;
    silence.unlogged = 0;
    silence.since.start();
}
