#pragma once

#include "nodes/nodeaddress.h"

#include <functional>
#include <QByteArray>
#include <QJsonObject>
#include <QObject>
#include <QString>
#include <QStringList>
#include <vector>

class Gate;

/// Runs one device command on the nodes that hold its speakers and, where the command asks for it, waits for
/// the answers: at most 100 ms for a connection and 30 s for the answer, blocking the calling thread. For
/// HTTP workers and other threads that may block; never for the main loop. Use one object for one
/// request, in one thread. Every blank and line feed is stripped from the request.
class Core_corss : public QObject {
    Q_OBJECT
public:
    /// `silentClip`: address for Stop_urlq39(); `warningFetch`: address prefix of the alarm-text fetch.
    explicit Core_corss(QString host = QStringLiteral("127.0.0.1"), int port = 6006,
                        QObject* parent = nullptr);
    /// The road of the commands; without one nothing is sent. Not owned.
    void setGate(Gate* gate) { m_gate = gate; }
    /// Where the speakers of a list are. Without it all are on the node of the constructor.
    using Whereabouts = std::function<std::vector<NodeShare>(const QStringList& sns)>;
    void setWhereabouts(Whereabouts whereabouts) { m_whereabouts = std::move(whereabouts); }
    /// From now on commands tell what broadcast they belong to: `begin` opens one for a play of this address
    /// and returns its number.
    using BeginOrder = std::function<quint64(const QString& url)>;
    void setOrders(BeginOrder begin) { m_begin = std::move(begin); }
    void setSilentClip(const QString& url) { m_silentClip = url; }
    void setWarningFetch(const QString& url) { m_warningFetch = url; }

    // Each returns the node's reply, of several nodes a line each; empty when the node could not be
    // reached, did not answer in time or is not waited for (the Warning family).
    QByteArray useingenable(const QStringList& sns);
    QByteArray useingdisable(const QStringList& sns);
    QByteArray enable_device(const QStringList& sns);
    QByteArray disable_device(const QStringList& sns);
    QByteArray edit_vols(const QStringList& sns, int vol);
    QByteArray play_url(const QStringList& sns, const QString& url);
    QByteArray play_urlq39(const QStringList& sns, const QString& url);
    QByteArray play_urlsetwarning(const QStringList& sns, const QString& target, const QString& text);
    QByteArray play_urlrmwarning(const QStringList& sns, const QString& target);
    QByteArray Stop_url(const QStringList& sns);
    QByteArray Stop_urlq39(const QStringList& sns);
    QByteArray Debug_(const QString& sn, int v);
    QByteArray Debugkillall_(int v);
    void WarningF(const QString& sn, const QString& file);
    void WarningF_NONE(const QString& sn);
    void WarningB(const QString& sn, const QString& file);
    void WarningB_NONE(const QString& sn);
    void WarningAS(const QString& sn, const QString& file);

private:
    enum class Wait { No, Yes };
    struct Order {
        NodeAddress node;
        QJsonObject request;
    };
    std::vector<NodeShare> sharesOf(const QStringList& sns) const;
    QByteArray onSpeakers(const QStringList& sns, const QJsonObject& request, Wait wait = Wait::Yes);
    QJsonObject play(const char* word, const QString& file) const;
    QJsonObject noPlay(const QString& file, const char* what = "none") const;
    QByteArray send(const std::vector<Order>& orders, Wait wait);
    const NodeAddress m_node;
    Whereabouts m_whereabouts;
    BeginOrder m_begin;
    Gate* m_gate = nullptr;
    QString m_silentClip;
    QString m_warningFetch;
};
