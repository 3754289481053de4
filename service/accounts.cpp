#include "service/accounts.h"

#include "service/passwords.h"
#include "service/querytable.h"
#include "service/tokens.h"
#include "service/tokentable.h"

#include <QDateTime>

namespace {

constexpr int AdministratorLevel = 1;

const QString FindByName = QStringLiteral("SELECT * FROM `sbox_users` WHERE (`user_name` = '@username');");
const QString Upgrade = QStringLiteral(
    "UPDATE `sbox_users` SET `user_pass` = '@hash' WHERE (`id` = @id AND `user_pass` = '@plain');");
const QString List = QStringLiteral(
    "SELECT `id`, `user_name`, `nickname`, `user_level`, `master_id`, `ctime` FROM `sbox_users` WHERE ((@all "
    "= 1 OR `master_id` = @caller) AND `id` > @after) ORDER BY `id` LIMIT @limit;");
const QString Find = QStringLiteral(
    "SELECT `id`, `user_name`, `nickname`, `user_level`, `master_id`, `ctime` FROM `sbox_users` WHERE (`id` "
    "= @id AND (@all = 1 OR `master_id` = @caller));");
const QString Insert = QStringLiteral(
    "INSERT INTO `sbox_users` (`user_name`, `user_pass`, `nickname`, `user_level`, `master_id`, `token`) "
    "VALUES ('@username', '@password', '@name', @level, @master, '@token');");
const QString FindForChange = QStringLiteral(
    "SELECT `user_name`, `nickname`, `user_level`, `token` FROM `sbox_users` WHERE (`id` = @id);");
const QString Change = QStringLiteral("UPDATE `sbox_users` SET `user_name` = '@username', `nickname` = "
                                      "'@name', `user_level` = @level WHERE (`id` = @id);");
const QString SetPassword = QStringLiteral(
    "UPDATE `sbox_users` SET `user_pass` = '@password', `token` = '@token' WHERE (`id` = @id);");
const QString VoidTokens =
    QStringLiteral("DELETE FROM `apitoken` WHERE (`account` = @id AND `id` <> @spared);");
const QString OtherAdmins =
    QStringLiteral("SELECT `id` FROM `sbox_users` WHERE (`user_level` = 1 AND `id` <> @id) LIMIT 1;");
const QString Adopt = QStringLiteral("UPDATE `sbox_users` SET `master_id` = @heir WHERE (`id` = @id);");

SqlArg idArg(qint64 id) {
    return {QStringLiteral("@id"), id};
}

Caller callerFrom(const SqlResult& row) {
    Caller caller;
    caller.account = row.integer(0, "id");
    caller.username = row.text(0, "user_name");
    caller.name = row.text(0, "nickname");
    caller.master = row.integer(0, "master_id");
    caller.mask = row.text(0, "mask");
    caller.isAdmin = row.integer(0, "user_level") == AdministratorLevel;
    return caller;
}

/// Whether somebody else has the name; nullopt when the database does not answer.
std::optional<bool> isTaken(sqlite& database, const QString& username, qint64 but) {
    const SqlResult found = database.run(FindByName, {{QStringLiteral("@username"), username}});
    return found.ok ? std::optional(!found.isEmpty() && found.integer(0, "id") != but) : std::nullopt;
}

Outcome checkName(sqlite& database, const QString& username, qint64 but) {
    const auto taken = isTaken(database, username, but);
    if (!taken)
        return Outcome::Failed;
    return *taken ? Outcome::Taken : Outcome::Done;
}

Outcome checkAdmins(sqlite& database, qint64 but) {
    const SqlResult others = database.run(OtherAdmins, {idArg(but)});
    if (!others.ok)
        return Outcome::Failed;
    return others.isEmpty() ? Outcome::LastAdmin : Outcome::Done;
}

Outcome done(bool isDone) {
    return isDone ? Outcome::Done : Outcome::Failed;
}

/// Runs the steps in one transaction; what they say when they refuse, Failed when the database does.
template<typename Steps>
Outcome inTransaction(sqlite& database, Steps steps) {
    Outcome outcome = Outcome::Done;
    const bool isCommitted = database.transaction([&] {
        outcome = steps();
        return outcome == Outcome::Done;
    });
    return outcome == Outcome::Done && !isCommitted ? Outcome::Failed : outcome;
}

Outcome writeChange(sqlite& database, qint64 id, const SqlResult& old, const AccountChange& change) {
    const bool wasAdmin = old.integer(0, "user_level") == AdministratorLevel;
    const bool isAdmin = change.isAdmin.value_or(wasAdmin);
    const QString username = change.username.value_or(old.text(0, "user_name"));
    Outcome outcome = change.username ? checkName(database, username, id) : Outcome::Done;
    if (outcome == Outcome::Done && wasAdmin && !isAdmin)
        outcome = checkAdmins(database, id);
    if (outcome != Outcome::Done)
        return outcome;
    const int level = isAdmin == wasAdmin ? old.integer(0, "user_level") : int(isAdmin);
    return done(database
                    .run(Change, {{QStringLiteral("@username"), username},
                                  {QStringLiteral("@name"), change.name.value_or(old.text(0, "nickname"))},
                                  {QStringLiteral("@level"), level},
                                  idArg(id)})
                    .ok);
}

/// The steps by which the older paths delete a sub-account.
bool runDeletion(sqlite& database, qint64 id, qint64 heir, const QString& token) {
    const QueryTable::Command* command =
        QueryTable::embedded().find(QStringLiteral("fnkukei"), QStringLiteral("delziuser"));
    for (const QueryTable::Step& step : command->steps) {
        if (step.isCheck)
            continue;
        const SqlResult result = database.run(step.statement, {{QStringLiteral("@zuserid"), id},
                                                               {QStringLiteral("@master_id"), heir},
                                                               {QStringLiteral("@token"), token}});
        if (!result.ok || (step.rows == QueryTable::Rows::Some && result.isEmpty()))
            return false;
    }
    return true;
}

} // namespace

AccountInfo accountAt(const SqlResult& rows, int row) {
    AccountInfo info;
    info.id = rows.integer(row, "id");
    info.username = rows.text(row, "user_name");
    info.name = rows.text(row, "nickname");
    info.isAdmin = rows.integer(row, "user_level") == AdministratorLevel;
    info.master = rows.integer(row, "master_id");
    const auto created =
        QDateTime::fromString(rows.text(row, "ctime"), QStringLiteral("yyyy-MM-dd HH:mm:ss"));
    info.created = created.isValid() ? created.toMSecsSinceEpoch() : 0;
    return info;
}

void comparePassword(sqlite& database, Passwords& passwords, const QString& password, SqlResult& account) {
    if (account.isEmpty())
        return;
    const QString stored = account.text(0, "user_pass");
    const int id = account.integer(0, "id");
    if (!passwords.matches(password, stored))
        account.rows.clear();
    else if (passwords.hashes() && !Passwords::isHash(stored))
        database.run(Upgrade, {{QStringLiteral("@hash"), passwords.hash(password)},
                               idArg(id),
                               {QStringLiteral("@plain"), stored}});
}

Accounts::Login Accounts::login(sqlite& database, const QString& username, const QString& password) {
    SqlResult account = database.run(FindByName, {{QStringLiteral("@username"), username}});
    if (!account.ok)
        return {};
    if (account.isEmpty() || !Passwords::isHash(account.text(0, "user_pass")))
        m_passwords.spendTime(password);
    comparePassword(database, m_passwords, password, account);
    return {true, account.isEmpty() ? std::nullopt : std::optional(callerFrom(account))};
}

SqlResult Accounts::list(sqlite& database, const Caller& caller, qint64 after, int limit) {
    return database.run(List, {{QStringLiteral("@all"), int(caller.isAdmin)},
                               {QStringLiteral("@caller"), caller.account},
                               {QStringLiteral("@after"), after},
                               {QStringLiteral("@limit"), limit}});
}

SqlResult Accounts::find(sqlite& database, const Caller& caller, qint64 id) {
    return database.run(Find, {{QStringLiteral("@all"), int(caller.isAdmin)},
                               {QStringLiteral("@caller"), caller.account},
                               idArg(id)});
}

Outcome Accounts::add(sqlite& database, const AccountChange& account, qint64 master, qint64& id) {
    const QString username = account.username.value_or(QString());
    Outcome outcome = checkName(database, username, 0);
    if (outcome != Outcome::Done)
        return outcome;
    const QString hash = m_passwords.hash(account.password.value_or(QString()));
    if (hash.isEmpty())
        return Outcome::Failed;
    const SqlResult added =
        database.run(Insert, {{QStringLiteral("@username"), username},
                              {QStringLiteral("@password"), hash},
                              {QStringLiteral("@name"), account.name.value_or(username)},
                              {QStringLiteral("@level"), int(account.isAdmin.value_or(false))},
                              {QStringLiteral("@master"), master},
                              {QStringLiteral("@token"), TokenTable::randomToken()}});
    if (!added.ok) // somebody may have been faster
        return checkName(database, username, 0) == Outcome::Taken ? Outcome::Taken : Outcome::Failed;
    id = added.lastId;
    m_oldTokens.refresh(database, static_cast<int>(id));
    return Outcome::Done;
}

Outcome Accounts::change(sqlite& database, qint64 id, const AccountChange& change, qint64 spared) {
    const QString hash = change.password ? m_passwords.hash(*change.password) : QString();
    if (change.password && hash.isEmpty())
        return Outcome::Failed;
    const Outcome outcome = inTransaction(database, [&] {
        const SqlResult old = database.run(FindForChange, {idArg(id)});
        if (old.isEmpty())
            return old.ok ? Outcome::Gone : Outcome::Failed;
        const Outcome written = writeChange(database, id, old, change);
        if (written != Outcome::Done || !change.password)
            return written;
        return done(database
                        .run(SetPassword, {{QStringLiteral("@password"), hash},
                                           {QStringLiteral("@token"), TokenTable::randomToken()},
                                           idArg(id)})
                        .ok &&
                    database.run(VoidTokens, {idArg(id), {QStringLiteral("@spared"), spared}}).ok);
    });
    if (outcome == Outcome::Done && change.password) {
        m_oldTokens.refresh(database, static_cast<int>(id));
        m_tokens.tellVoided(id);
    }
    return outcome;
}

Outcome Accounts::remove(sqlite& database, qint64 id, qint64 heir) {
    const Outcome outcome = inTransaction(database, [&] {
        const SqlResult old = database.run(FindForChange, {idArg(id)});
        if (old.isEmpty())
            return old.ok ? Outcome::Gone : Outcome::Failed;
        const Outcome admins =
            old.integer(0, "user_level") == AdministratorLevel ? checkAdmins(database, id) : Outcome::Done;
        if (admins != Outcome::Done)
            return admins;
        return done(database.run(Adopt, {{QStringLiteral("@heir"), heir}, idArg(id)}).ok &&
                    runDeletion(database, id, heir, old.text(0, "token")));
    });
    if (outcome == Outcome::Done) {
        m_oldTokens.refresh(database, static_cast<int>(id));
        m_tokens.tellVoided(id);
    }
    return outcome;
}
