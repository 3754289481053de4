#include "api/plankeys.h"

#include <array>
#include <QDebug>
#include <QDir>
#include <QMessageAuthenticationCode>
#include <QRandomGenerator>
#include <QSaveFile>

namespace {

constexpr int KeyBytes = 32;
constexpr int PartDigits = 32;

QByteArray randomKey() {
    std::array<quint32, KeyBytes / sizeof(quint32)> words{};
    QRandomGenerator::system()->fillRange(words.data(), static_cast<qsizetype>(words.size()));
    return {reinterpret_cast<const char*>(words.data()), KeyBytes};
}

QByteArray storedKey(const QString& path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? QByteArray::fromHex(file.read(2L * KeyBytes)) : QByteArray();
}

void store(const QString& path, const QByteArray& key) {
    QSaveFile file(path);
    const QByteArray digits = key.toHex();
    if (!file.open(QIODevice::WriteOnly) || !file.setPermissions(QFile::ReadOwner | QFile::WriteOwner) ||
        file.write(digits) != digits.size() || !file.commit())
        qWarning().noquote() << "lines that are bound to plans must be bound again after a restart:" << path
                             << file.errorString();
}

} // namespace

PlanKeys::PlanKeys(const QString& directory) {
    const QString path = directory + QStringLiteral("/plans.key");
    m_key = storedKey(path);
    if (m_key.size() == KeyBytes)
        return;
    m_key = randomKey();
    QDir().mkpath(directory);
    store(path, m_key);
}

QString PlanKeys::of(int plan) const {
    const QByteArray code =
        QMessageAuthenticationCode::hash(QByteArray::number(plan), m_key, QCryptographicHash::Sha256);
    return QString::fromLatin1(code.toHex().left(PartDigits));
}
