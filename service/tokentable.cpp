#include "service/tokentable.h"

#include "core/sql/sqlite.h"

#include <array>
#include <QRandomGenerator>

QString TokenTable::randomToken() {
    std::array<quint32, 5> words{};
    QRandomGenerator::system()->fillRange(words.data(), static_cast<qsizetype>(words.size()));
    return QString::fromLatin1(QByteArray(reinterpret_cast<const char*>(words.data()), sizeof words).toHex());
}

void TokenTable::load(sqlite& database) {
    const std::lock_guard refreshing(m_refreshing);
    const SqlResult users = database.run(QStringLiteral("SELECT *  FROM `sbox_users`;"));
    QHash<int, QString> tokens;
    for (int row = 0; row < users.rows.size(); ++row) {
        const int id = users.integer(row, "id");
        QString token = users.text(row, "token");
        if (token.isEmpty()) {
            token = randomToken();
            database.run(QStringLiteral("UPDATE  `sbox_users` SET `token`='@token' WHERE (`id`= '@userid')"),
                         {{QStringLiteral("@token"), token}, {QStringLiteral("@userid"), id}});
        }
        tokens.insert(id, token);
    }
    const QWriteLocker locker(&m_lock);
    m_tokens = tokens;
}

std::optional<QString> TokenTable::token(int userid) const {
    const QReadLocker locker(&m_lock);
    const auto found = m_tokens.constFind(userid);
    return found == m_tokens.constEnd() ? std::nullopt : std::optional(*found);
}

void TokenTable::refresh(sqlite& database, int userid) {
    const std::lock_guard refreshing(m_refreshing);
    const SqlResult user =
        database.run(QStringLiteral("SELECT `token` FROM `sbox_users` WHERE (`id` = '@userid');"),
                     {{QStringLiteral("@userid"), userid}});
    const QString token = user.text(0, "token");
    const QWriteLocker locker(&m_lock);
    if (token.isEmpty()) // also when the database does not answer: then nobody comes in
        m_tokens.remove(userid);
    else
        m_tokens.insert(userid, token);
}
