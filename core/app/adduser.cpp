#include "core/app/adduser.h"

#include "api/strictsql.h"
#include "core/settings.h"
#include "core/sql/sqlconnection.h"
#include "service/accounts.h"
#include "service/passwords.h"
#include "service/tokens.h"
#include "service/tokentable.h"

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
        account.password = TokenTable::randomToken().left(MadeLength);
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

QString reasonOf(Outcome outcome) {
    return outcome == Outcome::Taken ? QStringLiteral("the name is taken")
                                     : QStringLiteral("the database refuses it");
}

int add(sqlite& database, const NewAccount& account) {
    if (account.name.size() > LongestText || account.password.size() > LongestText)
        return fail(QStringLiteral("the name or the password is longer than %1 characters").arg(LongestText));
    if (!StrictSql(database).takes(account.name) || !StrictSql(database).takes(account.password))
        return fail(QStringLiteral("the older paths could not log in with a quote or a backslash"));
    Passwords passwords(true);
    Tokens tokens{std::chrono::hours(0)};
    TokenTable oldTokens;
    AccountChange wanted;
    wanted.username = account.name;
    wanted.password = account.password;
    wanted.isAdmin = account.isAdmin;
    qint64 id = 0;
    const Outcome outcome = Accounts(passwords, tokens, oldTokens).add(database, wanted, 0, id);
    if (outcome != Outcome::Done)
        return fail(reasonOf(outcome));
    std::printf("Account %s has number %lld.\n", account.name.toUtf8().constData(),
                static_cast<long long>(id));
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
    return add(database, order->account);
}
