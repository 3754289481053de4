#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <QByteArray>
#include <QString>
#include <QStringList>
#include <tuple>

/// Commands that are being gathered: speakers that are to play the same, be silent or be set to the same
/// volume share one. Main loop only.
class Outbox {
public:
    using Send = std::function<void(const QByteArray& command)>;
    explicit Outbox(Send send)
        : m_send(std::move(send)) {}

    void play(const QString& sn, quint64 order, const QString& url) { m_plays[{order, url}] << sn; }
    void silence(const QString& sn) { m_silences << sn; }
    void volume(const QString& sn, int level) { m_volumes[level] << sn; }
    bool isEmpty() const { return m_plays.empty() && m_silences.isEmpty() && m_volumes.empty(); }
    /// Sends them: what silences first, volumes, then plays.
    void flush();

    /// The address of the file from a moment on; to the hundredth of a second, less than a frame.
    static QString from(const QString& url, std::chrono::milliseconds moment);
    /// Whether `address` is one that from() has made of `url`.
    static bool isFrom(const QString& address, const QString& url);

private:
    Send m_send;
    std::map<std::pair<quint64, QString>, QStringList> m_plays; ///< by order and address
    QStringList m_silences;
    std::map<int, QStringList> m_volumes; ///< by level
};
