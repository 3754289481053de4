#include "nodes/gate.h"

#include "nodes/unreached.h"

#include "core/logthrottle.h"
#include "device/severinit.h"

#include <QDeadlineTimer>
#include <QDebug>
#include <QHostAddress>
#include <QNetworkInterface>
#include <QSemaphore>
#include <QThread>

namespace {

constexpr int LookMs = 100; ///< between two looks at whether the waiting thread has given up
constexpr std::chrono::milliseconds LoopMargin{2000}; ///< for the main loop to come to it

QString nameOf(const NodeAddress& node) {
    return node.host + QLatin1Char('_') + QString::number(node.port);
}

/// Of a command that arrived and whose answer nobody waits for: a missing one is no loss.
NodeCall::Result withoutLoss(NodeCall::Result result) {
    if (result.isLost())
        result.outcome = NodeCall::Outcome::Sent;
    return result;
}

} // namespace

struct Gate::Pending {
    const Limits limits;
    QSemaphore told;
    Result result; ///< once told
};

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
    start(node, request, reply ? Until::Answered : Until::Written, reply, limits);
}

Gate::PendingPtr Gate::begin(const NodeAddress& node, const QByteArray& request, Until until,
                             const Limits& limits) {
    const PendingPtr pending(new Pending{limits, QSemaphore(), {}});
    const Reply tell = [pending](const Result& result) {
        pending->result = result;
        pending->told.release();
    };
    start(node, request, until, tell, limits);
    return pending;
}

Gate::Result Gate::await(const PendingPtr& pending) {
    const Limits& limits = pending->limits;
    const QDeadlineTimer deadline(limits.connect + limits.answer + LoopMargin);
    while (!deadline.hasExpired() && !(limits.cancelled && *limits.cancelled))
        if (pending->told.tryAcquire(1, LookMs))
            return pending->result;
    return {NodeCall::Outcome::Failed, {}, QStringLiteral("given up")};
}

void Gate::start(const NodeAddress& node, const QByteArray& request, Until until, const Reply& reply,
                 const Limits& limits) {
    if (QThread::currentThread() != thread()) {
        QMetaObject::invokeMethod(
            this, [=] { start(node, request, until, reply, limits); }, Qt::QueuedConnection);
        return;
    }
    if (!isThisNode(node)) {
        call(node, request, until, reply, limits);
        return;
    }
    const Result result{NodeCall::Outcome::Answered, m_devices->Diamonds_jsondidocom(request), {}};
    note(node, commandWord(request), result);
    if (reply)
        reply(result);
}

void Gate::call(const NodeAddress& node, const QByteArray& request, Until until, const Reply& reply,
                const Limits& limits) {
    const bool isAsked = until == Until::Answered;
    auto* const call = new NodeCall(node, request, limits, this); // deletes itself
    if (!isAsked && m_unasked >= MaxUnasked)
        call->leaveAnswer();
    m_unasked += isAsked ? 0 : 1;
    if (!isAsked && reply)
        connect(call, &NodeCall::written, this, [reply] { reply({NodeCall::Outcome::Sent, {}, {}}); });
    const auto over = [this, call, node, reply, isAsked, word = commandWord(request)](const Result& result) {
        m_unasked -= isAsked ? 0 : 1;
        const bool isDelivered = !isAsked && call->isWritten();
        note(node, word, isDelivered ? withoutLoss(result) : result);
        if (reply && !isDelivered)
            reply(result);
    };
    connect(call, &NodeCall::over, this, over);
    call->start();
}

void Gate::note(const NodeAddress& node, const QByteArray& word, const Result& result) {
    if (result.isLost())
        noteLost(node, result.error);
    else if (!result.error.isEmpty() && mayLog("commands without an answer", nameOf(node)))
        qWarning().noquote() << "no answer to" << word << nameOf(node) << result.error;
    const Unreached unreached = unreachedBy(result.answer);
    if (unreached && mayLog("commands that did not reach every speaker", nameOf(node)))
        qWarning().noquote() << "not reached:"
                             << (unreached.count < 0 ? QStringLiteral("all")
                                                     : QString::number(unreached.count))
                             << "speakers by" << word << nameOf(node) << unreached.why;
}

void Gate::noteLost(const NodeAddress& node, const QString& error) {
    const quint64 lost = ++m_lost;
    Silence& silence = m_silences[nameOf(node)];
    if (silence.since.isValid() && silence.since.elapsed() < LogInterval.count()) {
        ++silence.unlogged;
        return;
    }
    qWarning() << "sck连接失败" << node.host << node.port << error
               << "lost without a line:" << silence.unlogged << "in all:" << lost;
    silence.unlogged = 0;
    silence.since.start();
}
