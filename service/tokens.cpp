#include "service/tokens.h"

#include "core/sql/sqlite.h"

#include <array>
#include <QCryptographicHash>
#include <QDateTime>
#include <QRandomGenerator>

namespace {

constexpr std::size_t Words = 8; ///< of 32 bits
constexpr auto Encoding = QByteArray::Base64UrlEncoding | QByteArray::OmitTrailingEquals;
constexpr int TextLength = 43; ///< of 32 bytes in Base64

const QString Insert = QStringLiteral(
    "INSERT INTO `apitoken` (`account`, `name`, `hash`, `created`, `expires`) VALUES (@account, '@name', "
    "'@hash', @now, @expires);");
const QString Prune = QStringLiteral("DELETE FROM `apitoken` WHERE (`expires` > 0 AND `expires` < @now);");
const QString Check = QStringLiteral(
    "SELECT t.`id` AS `token_id`, t.`name` AS `token_name`, t.`expires`, u.`id`, u.`user_name`, "
    "u.`nickname`, u.`master_id`, u.`mask`, u.`user_level` FROM `apitoken` t, `sbox_users` u WHERE "
    "(t.`hash` = '@hash' AND u.`id` = t.`account`);");
const QString Slide = QStringLiteral("UPDATE `apitoken` SET `expires` = @expires WHERE (`id` = @id);");
const QString List = QStringLiteral(
    "SELECT `id`, `name`, `created`, `expires` FROM `apitoken` WHERE (`account` = @account AND `name` <> '' "
    "AND `id` > @after) ORDER BY `id` LIMIT @limit;");
const QString VoidNamed =
    QStringLiteral("DELETE FROM `apitoken` WHERE (`id` = @id AND `account` = @account AND `name` <> '');");
const QString VoidOne = QStringLiteral("DELETE FROM `apitoken` WHERE (`id` = @id);");
const QString VoidAll =
    QStringLiteral("DELETE FROM `apitoken` WHERE (`account` = @account AND `id` <> @spared);");

qint64 now() {
    return QDateTime::currentMSecsSinceEpoch();
}

QByteArray randomText() {
    std::array<quint32, Words> words{};
    QRandomGenerator::system()->fillRange(words.data(), static_cast<qsizetype>(words.size()));
    return QByteArray(reinterpret_cast<const char*>(words.data()), sizeof words).toBase64(Encoding);
}

QString hashOf(const QByteArray& text) {
    return QString::fromLatin1(QCryptographicHash::hash(text, QCryptographicHash::Sha256).toHex());
}

Caller callerOf(const SqlResult& row) {
    constexpr int administrator = 1;
    Caller caller;
    caller.account = row.integer(0, "id");
    caller.username = row.text(0, "user_name");
    caller.name = row.text(0, "nickname");
    caller.master = row.integer(0, "master_id");
    caller.mask = row.text(0, "mask");
    caller.isAdmin = row.integer(0, "user_level") == administrator;
    caller.token = row.integer(0, "token_id");
    return caller;
}

} // namespace

Tokens::Tokens(std::chrono::hours life)
    : m_life(life) {}

std::optional<NewToken> Tokens::make(sqlite& database, qint64 account) const {
    database.run(Prune, {{QStringLiteral("@now"), now()}});
    return store(database, account, QString(), now() + qint64(m_life.count()));
}

std::optional<NewToken> Tokens::makeNamed(sqlite& database, qint64 account, const QString& name,
                                          qint64 expires) const {
    return store(database, account, name, expires);
}

std::optional<NewToken> Tokens::store(sqlite& database, qint64 account, const QString& name,
                                      qint64 expires) const {
    const QByteArray text = randomText();
    const SqlResult stored = database.run(Insert, {{QStringLiteral("@account"), account},
                                                   {QStringLiteral("@name"), name},
                                                   {QStringLiteral("@hash"), hashOf(text)},
                                                   {QStringLiteral("@now"), now()},
                                                   {QStringLiteral("@expires"), expires}});
    if (!stored.ok)
        return std::nullopt;
    remember(hashOf(text));
    return NewToken{stored.lastId, text, expires};
}

TokenCheck Tokens::check(sqlite& database, const QByteArray& text) const {
    if (text.size() != TextLength)
        return {true, std::nullopt};
    const QString hash = hashOf(text);
    const SqlResult row = database.run(Check, {{QStringLiteral("@hash"), hash}});
    if (!row.ok)
        return {false, std::nullopt};
    const qint64 expires = row.value(0, "expires").toLongLong();
    if (row.isEmpty() || (expires > 0 && expires <= now()))
        return {true, std::nullopt};
    if (row.text(0, "token_name").isEmpty())
        slide(database, row.integer(0, "token_id"), expires);
    remember(hash);
    return {true, callerOf(row), expires};
}

bool Tokens::wasValid(const QByteArray& text) const {
    const std::lock_guard lock(m_mutex);
    const auto seen = m_seen.constFind(hashOf(text));
    return seen != m_seen.constEnd() && std::chrono::steady_clock::now() < *seen;
}

void Tokens::remember(const QString& hash) const {
    constexpr std::chrono::minutes life{10};
    constexpr int most = 10'000;
    const auto now = std::chrono::steady_clock::now();
    const std::lock_guard lock(m_mutex);
    if (m_seen.size() >= most)
        m_seen.clear();
    m_seen.insert(hash, now + life);
}

// One write in a hundredth of its life keeps a token in use.
void Tokens::slide(sqlite& database, qint64 id, qint64 expires) const {
    const qint64 wanted = now() + qint64(m_life.count());
    if (wanted - expires > qint64(m_life.count()) / 100)
        database.run(Slide, {{QStringLiteral("@expires"), wanted}, {QStringLiteral("@id"), id}});
}

SqlResult Tokens::list(sqlite& database, qint64 account, qint64 after, int limit) const {
    return database.run(List, {{QStringLiteral("@account"), account},
                               {QStringLiteral("@after"), after},
                               {QStringLiteral("@limit"), limit}});
}

SqlResult Tokens::voidNamed(sqlite& database, qint64 account, qint64 id) {
    SqlResult result =
        database.run(VoidNamed, {{QStringLiteral("@id"), id}, {QStringLiteral("@account"), account}});
    if (result.affected > 0)
        tellVoided(account);
    return result;
}

bool Tokens::voidOne(sqlite& database, const Caller& caller) {
    const bool isDone = database.run(VoidOne, {{QStringLiteral("@id"), caller.token}}).ok;
    tellVoided(caller.account);
    return isDone;
}

bool Tokens::voidAll(sqlite& database, qint64 account, qint64 spared) {
    const bool isDone =
        database.run(VoidAll, {{QStringLiteral("@account"), account}, {QStringLiteral("@spared"), spared}})
            .ok;
    tellVoided(account);
    return isDone;
}

void Tokens::tellVoided(qint64 account) const {
    for (const auto& listener : m_listeners)
        listener(account);
}
