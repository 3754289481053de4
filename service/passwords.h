#pragma once

#include <chrono>
#include <mutex>
#include <QByteArray>
#include <QHash>
#include <QSemaphore>
#include <QString>

/// How passwords are stored and compared. A stored one is plain text, or Prefix and a yescrypt hash
/// (crypt(5)), which takes some 60 ms and 16 MB to compare; one that was right is therefore remembered for a
/// minute, as a hash under a key of this process. Any thread; those who hash may wait for others.
class Passwords {
public:
    using Clock = std::chrono::steady_clock;
    static constexpr char Prefix[] = "{crypt}$y$";
    static constexpr std::chrono::seconds Remembered{60};
    static constexpr int MaxRemembered = 10'000;

    /// `hashes`: the older paths store hashes too (key `hashpasswords`).
    explicit Passwords(bool hashes);

    static bool isHash(const QString& stored) { return stored.startsWith(QLatin1String(Prefix)); }
    /// Empty when it can't be had.
    QString hash(const QString& password);
    /// As the older paths store it: a hash or the text itself.
    QString asStored(const QString& password) { return m_hashes ? hash(password) : password; }
    bool hashes() const { return m_hashes; }

    bool matches(const QString& password, const QString& stored, Clock::time_point now = Clock::now());
    /// Takes as long as comparing with a hash, for where there is none: nobody shall learn from the time
    /// whether an account exists.
    void spendTime(const QString& password);

private:
    bool matchesHash(const QString& password, const QString& stored);
    QByteArray sealed(const QString& password, const QString& stored) const;
    void remember(const QByteArray& seal, Clock::time_point now);
    QByteArray crypted(const QString& password, const QByteArray& setting);

    const bool m_hashes;
    const QByteArray m_key; ///< random
    QSemaphore m_turns;     ///< hashes at once: each takes a processor and 16 MB
    std::mutex m_mutex;
    QHash<QByteArray, Clock::time_point> m_right; ///< until when
};
