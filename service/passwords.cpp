#include "service/passwords.h"

#include <array>
#include <crypt.h>
#include <memory>
#include <QCryptographicHash>
#include <QDebug>
#include <QMessageAuthenticationCode>
#include <QRandomGenerator>
#include <QSemaphoreReleaser>
#include <QThread>

namespace {

constexpr int MarkLength = 7;          ///< of Prefix, what precedes the hash proper
constexpr int LongestPassphrase = 500; ///< bytes; crypt() takes 511
constexpr char Method[] = "$y$";

template<std::size_t Count>
QByteArray randomBytes() {
    std::array<quint32, Count> words{};
    QRandomGenerator::system()->fillRange(words.data(), static_cast<qsizetype>(words.size()));
    return {reinterpret_cast<const char*>(words.data()), sizeof words};
}

/// What crypt() is given: the text, or its SHA-512 where that is longer than it takes.
QByteArray passphrase(const QString& password) {
    const QByteArray bytes = password.toUtf8();
    if (bytes.size() <= LongestPassphrase)
        return bytes;
    return QCryptographicHash::hash(bytes, QCryptographicHash::Sha512).toHex();
}

/// A method with its cost and a random salt.
QByteArray newSetting() {
    const QByteArray random = randomBytes<8>();
    std::array<char, CRYPT_GENSALT_OUTPUT_SIZE> setting{};
    const bool isMade = crypt_gensalt_rn(Method, 0, random.constData(), random.size(), setting.data(),
                                         static_cast<int>(setting.size())) != nullptr;
    return isMade ? QByteArray(setting.data()) : QByteArray();
}

/// In the same time whatever they hold.
bool areEqual(const QByteArray& a, const QByteArray& b) {
    if (a.size() != b.size())
        return false;
    unsigned difference = 0;
    for (int at = 0; at < a.size(); ++at)
        difference |= static_cast<unsigned char>(a.at(at)) ^ static_cast<unsigned char>(b.at(at));
    return difference == 0;
}

} // namespace

Passwords::Passwords(bool hashes)
    : m_hashes(hashes)
    , m_key(randomBytes<8>())
    , m_turns(qMax(1, QThread::idealThreadCount())) {}

QByteArray Passwords::crypted(const QString& password, const QByteArray& setting) {
    m_turns.acquire();
    const QSemaphoreReleaser turn(m_turns);
    const auto work = std::make_unique<crypt_data>();
    const char* hash = crypt_rn(passphrase(password).constData(), setting.constData(), work.get(),
                                static_cast<int>(sizeof *work));
    return hash ? QByteArray(hash) : QByteArray();
}

QString Passwords::hash(const QString& password) {
    const QByteArray setting = newSetting();
    const QByteArray hash = setting.isEmpty() ? QByteArray() : crypted(password, setting);
    if (hash.isEmpty())
        qCritical("passwords: this system's libcrypt makes no yescrypt hashes");
    return hash.isEmpty() ? QString() : QString::fromLatin1(QByteArray(Prefix).left(MarkLength) + hash);
}

bool Passwords::matches(const QString& password, const QString& stored, Clock::time_point now) {
    if (!isHash(stored))
        return areEqual(password.toUtf8(), stored.toUtf8());
    const QByteArray seal = sealed(password, stored);
    {
        const std::lock_guard lock(m_mutex);
        const auto found = m_right.constFind(seal);
        if (found != m_right.constEnd() && now < *found)
            return true;
    }
    if (!matchesHash(password, stored))
        return false;
    remember(seal, now);
    return true;
}

bool Passwords::matchesHash(const QString& password, const QString& stored) {
    const QByteArray hash = stored.mid(MarkLength).toLatin1();
    return areEqual(crypted(password, hash), hash);
}

void Passwords::spendTime(const QString& password) {
    static const QByteArray setting = newSetting();
    crypted(password, setting);
}

QByteArray Passwords::sealed(const QString& password, const QString& stored) const {
    return QMessageAuthenticationCode::hash(stored.toUtf8() + ' ' + password.toUtf8(), m_key,
                                            QCryptographicHash::Sha256);
}

void Passwords::remember(const QByteArray& seal, Clock::time_point now) {
    const std::lock_guard lock(m_mutex);
    if (m_right.size() >= MaxRemembered) {
        for (auto right = m_right.begin(); right != m_right.end();)
            right = now >= *right ? m_right.erase(right) : std::next(right);
    }
    if (m_right.size() >= MaxRemembered)
        m_right.clear();
    m_right.insert(seal, now + Remembered);
}
