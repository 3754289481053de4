#include "core/app/adduser.h"

#include "api/requestmapper.h"
#include "api/strictsql.h"
#include "core/settings.h"
#include "core/sql/sqlconnection.h"

#include <cstdio>
#include <iostream>
#include <optional>
#include <QFile>
#include <QLoggingCategory>
#include <string>
#include <unistd.h>

namespace {

constexpr int LongestText = 191; // characters; MySQL would cut further ones off
constexpr int MadeLength = 16;   // digits of a password that is made: 64 bits

struct NewAccount {
    QString name;
    QString password;
    bool isAdmin = false;
    bool isMade = false; ///< the password
};

struct Order {
    NewAccount account;
    QString config = QStringLiteral("config.ini");
};

int fail(const QString& why) {
    std::fprintf(stderr, "speakerd: no account added: %s\n", why.toUtf8().constData());
    return 1;
}

std::optional<Order> readOrder(int argc, char** argv) {
    Order order;
    int at = 2;
    if (at < argc)
        order.account.name = QString::fromUtf8(argv[at++]).trimmed();
    if (order.account.name.isEmpty() || order.account.name.startsWith(QLatin1Char('-')))
        return std::nullopt;
    if (at < argc && qstrcmp(argv[at], "--admin") == 0) {
        order.account.isAdmin = true;
        ++at;
    }
    if (at < argc)
        order.config = QString::fromLocal8Bit(argv[at++]);
    return at == argc && !order.config.startsWith(QLatin1Char('-')) ? std::optional(order) : std::nullopt;
}

// Logins are trimmed, so that blanks around a password could never be given.
void readPassword(NewAccount& account) {
    std::string line;
    if (isatty(STDIN_FILENO) == 0)
        std::getline(std::cin, line);
    account.password = QString::fromUtf8(line.c_str()).trimmed();
    account.isMade = account.password.isEmpty();
    if (account.isMade)
        account.password = RequestMapper::randomToken().left(MadeLength);
}

/// Empty when the database can be worked with.
QString troubleWith(const Settings& settings) {
    const int kind = settings.integer("dbk");
    if (kind != 0 && kind != 1 && kind != 3)
        return QStringLiteral("dbk names no kind of database");
    if (kind != 1 && !QFile::exists(QLatin1String(SqliteFile)))
        return QStringLiteral("no %1 in this directory; it must be the service's")
            .arg(QLatin1String(SqliteFile));
    return {};
}

SqlResult insert(const StrictSql& database, const NewAccount& account) {
    return database.run(
        QStringLiteral("INSERT INTO `sbox_users` (`user_name`, `user_pass`, `user_level`, `token`) VALUES "
                       "('@username', '@passwd', '@level', '@token')"),
        {{QStringLiteral("@username"), account.name},
         {QStringLiteral("@passwd"), account.password},
         {QStringLiteral("@level"), account.isAdmin ? 1 : 0},
         {QStringLiteral("@token"), RequestMapper::randomToken()}});
}

// As the logins compare them: what they refuse could never log in.
int add(const StrictSql& database, const NewAccount& account) {
    if (account.name.size() > LongestText || account.password.size() > LongestText)
        return fail(QStringLiteral("the name or the password is longer than %1 characters").arg(LongestText));
    const SqlResult known =
        database.run(QStringLiteral("SELECT `id` FROM `sbox_users` WHERE (`user_name` = '@username')"),
                     {{QStringLiteral("@username"), account.name}});
    if (!known.isEmpty())
        return fail(QStringLiteral("the name is taken by account %1").arg(known.integer(0, "id")));
    const SqlResult added = known.ok ? insert(database, account) : known;
    if (!added.ok)
        return fail(added.error);
    std::printf("Account %s has number %lld.\n", account.name.toUtf8().constData(),
                static_cast<long long>(added.lastId));
    if (account.isMade)
        std::printf("Password: %s\n", account.password.toUtf8().constData());
    return 0;
}

} // namespace

int addUser(int argc, char** argv) {
    std::optional<Order> order = readOrder(argc, argv);
    if (!order) {
        std::fputs("Usage: speakerd --adduser NAME [--admin] [CONFIG]\n", stderr);
        return 2;
    }
    QLoggingCategory::setFilterRules(QStringLiteral("*.debug=false\n*.info=false"));
    const Settings settings = Settings::load(order->config, QString());
    if (const QString trouble = troubleWith(settings); !trouble.isEmpty())
        return fail(trouble);
    sqlite database(settings.text("task_ip"), settings.integer("sqltask_port"),
                    settings.text("task_username"), settings.text("task_passwd"), settings.text("basename"),
                    settings.integer("dbk"));
    database.init();
    if (!database.get_is_aready())
        return fail(QStringLiteral("the database can't be opened"));
    readPassword(order->account);
    return add(StrictSql(database), order->account);
}
