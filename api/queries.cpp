// Endpoints of the account-centred query sets: in-process on SQLite, by the program find.js on MySQL.
#include "api/dumpcontroller_add_user.h"

#include "api/findprogram.h"
#include "api/requestmapper.h"
#include "api/strictsql.h"
#include "device/severinit.h"
#include "service/accounts.h"
#include "service/passwords.h"
#include "service/querytable.h"
#include "service/tokens.h"

#include <algorithm>
#include <optional>
#include <QDate>
#include <QJsonDocument>

namespace {
const QString plainSet = QStringLiteral("fnkukei");
const QString subscriptionSet = QStringLiteral("fnckukei");

using Type = QueryTable::Type;
using Values = QMap<QString, SqlValue>;

const QueryTable::Command* commandFor(const QString& set, const QString& path) {
    const QString prefix = QStringLiteral("/user/") + set + QLatin1Char('/');
    return path.startsWith(prefix) ? QueryTable::embedded().find(set, path.mid(prefix.size())) : nullptr;
}

bool startsWithDate(const QString& text) {
    return QDate::fromString(text.left(10), QStringLiteral("yyyy-MM-dd")).isValid();
}

/// The statement's value for a text of the request; nothing when the text is not of the type.
std::optional<SqlValue> convert(const QString& text, Type type, bool mayBeEmpty) {
    switch (type) {
    case Type::Int:
        return static_cast<qint64>(text.toInt());
    case Type::IdText:
        return commaList(numbersIn(text));
    case Type::Ids: {
        const QList<qint64> ids = numbersIn(text);
        return ids.isEmpty() ? QList<qint64>{0} : ids;
    }
    case Type::Random:
        return RequestMapper::randomToken();
    case Type::Serial:
        return isFullSerial(text) ? std::optional<SqlValue>(text) : std::nullopt;
    case Type::Date:
        return startsWithDate(text) ? std::optional<SqlValue>(text) : std::nullopt;
    case Type::Text:
    case Type::Password:
        break;
    }
    return mayBeEmpty || !text.isEmpty() ? std::optional<SqlValue>(text) : std::nullopt;
}

std::optional<Values> valuesOf(const QueryTable::Command& command, const Call& call) {
    Values values;
    for (const QueryTable::Parameter& parameter : command.parameters) {
        QByteArray name = parameter.name.toUtf8();
        if (!call.has(name) && !parameter.alternative.isEmpty())
            name = parameter.alternative.toUtf8();
        if (!call.has(name) && parameter.type != Type::Random)
            return std::nullopt;
        const auto value = convert(call.text(name), parameter.type, parameter.mayBeEmpty);
        if (!value)
            return std::nullopt;
        values.insert(parameter.name, *value);
    }
    const auto& same = QueryTable::embedded().sameValues();
    for (auto entry = same.begin(); entry != same.end(); ++entry) {
        if (values.contains(entry.value()))
            values.insert(entry.key(), values.value(entry.value()));
    }
    return values;
}

SqlArgs arguments(const Values& values) {
    SqlArgs args;
    for (auto value = values.begin(); value != values.end(); ++value) {
        const QString placeholder = QLatin1Char('@') + value.key();
        std::visit([&](const auto& typed) { args.emplace_back(placeholder, typed); }, value.value());
    }
    return args;
}

/// Replaces values by columns of the statement's first row.
void take(const QueryTable::Step& step, const SqlResult& result, Values& values) {
    for (auto column = step.take.begin(); column != step.take.end(); ++column) {
        if (const auto value = convert(result.text(0, column.key().toUtf8()), column.value(), true))
            values.insert(column.key(), *value);
    }
}

/// Returns the word that refuses, null when all went well.
const char* runStep(const StrictSql& database, Passwords& passwords, const QueryTable::Step& step,
                    Values& values, SqlResult& result) {
    result = database.run(step.statement, arguments(values));
    if (!result.ok)
        return "ER_EXE";
    if (!step.password.isEmpty())
        comparePassword(database, passwords, std::get<QString>(values.value(step.password)), result);
    if ((step.rows == QueryTable::Rows::Some && result.isEmpty()) ||
        (step.rows == QueryTable::Rows::None && !result.isEmpty()))
        return "ER_REJECT";
    take(step, result, values);
    return nullptr;
}

/// Runs the steps one after the other, as runStep(); `result` is then the last step's.
const char* runSteps(const StrictSql& database, Passwords& passwords, const QueryTable::Command& command,
                     Values values, SqlResult& result) {
    for (const QueryTable::Step& step : command.steps) {
        if (const char* const fault = runStep(database, passwords, step, values, result))
            return fault;
    }
    return command.writes && result.affected == 0 ? "ER_REJECT" : nullptr;
}

/// Whether the caller may have the command: its checks alone, which is far less than starting a program for
/// anybody.
const char* runChecks(const StrictSql& database, Passwords& passwords, const QueryTable::Command& command,
                      Values values) {
    SqlResult result;
    for (const QueryTable::Step& step : command.steps) {
        const char* const fault = step.isCheck ? runStep(database, passwords, step, values, result) : nullptr;
        if (fault)
            return fault;
    }
    return nullptr;
}

/// A text that the statements of the other endpoints could not take: an account so renamed could never log
/// in. What exists may be asked for with a backslash, which a name in SQLite may hold.
bool isUnsafe(const QString& text, bool writes) {
    return text.contains(QLatin1Char('\'')) || text.contains(QChar(u'\0')) ||
           (writes && text.contains(QLatin1Char('\\')));
}

bool holdsUnsafe(const Values& values, bool writes) {
    return std::any_of(values.begin(), values.end(), [writes](const SqlValue& value) {
        const auto* text = std::get_if<QString>(&value);
        return text && isUnsafe(*text, writes);
    });
}

QJsonArray visibleRows(const SqlResult& result) {
    QJsonArray rows;
    for (int row = 0; row < result.rows.size(); ++row) {
        QJsonObject object = result.object(row);
        for (const QString& column : QueryTable::embedded().hiddenColumns())
            object.remove(column);
        rows.append(object);
    }
    return rows;
}

QByteArray runCommand(const StrictSql& database, Passwords& passwords, const QueryTable::Command& command,
                      const Values& values) {
    SqlResult result;
    const char* fault = nullptr;
    const auto run = [&] {
        fault = runSteps(database, passwords, command, values, result);
        return fault == nullptr;
    };
    const bool finished = command.writes ? database.transaction(run) : run();
    if (!finished)
        return refusal(QLatin1String(fault ? fault : "ER_EXE"));
    QJsonObject answer{{QStringLiteral("res"), true}, {QStringLiteral("info"), QStringLiteral("SUC")}};
    if (command.writes)
        answer.insert(QStringLiteral("EF"), result.affected);
    else
        answer.insert(QStringLiteral("data"), visibleRows(result));
    return reply(answer);
}

/// What precedes a command of either database kind: its parameters and the service key. Returns the
/// refusal, empty when it may run with `values`.
QByteArray refuseCommand(const QueryTable::Command& command, const Call& call, const Severinit& devices,
                         Values& values) {
    const std::optional<Values> found = valuesOf(command, call);
    if (!found)
        return refusal(QStringLiteral("ParER"));
    if (command.needsServiceKey && !devices.matchesServiceKey(call.raw("sskey")))
        return refusal(QStringLiteral("sskey_ER"));
    if (holdsUnsafe(*found, command.writes))
        return refusal(QStringLiteral("ER_EXE"));
    values = *found;
    return {};
}

/// Hashes a new password where that is wanted: for those alone who may have the command, and before its
/// transaction. Returns the word that refuses, null when all went well.
const char* hashPassword(const StrictSql& database, Passwords& passwords, const QueryTable::Command& command,
                         Values& values, Params& params) {
    const auto password =
        std::find_if(command.parameters.begin(), command.parameters.end(),
                     [](const QueryTable::Parameter& parameter) { return parameter.type == Type::Password; });
    if (password == command.parameters.end() || !passwords.hashes())
        return nullptr;
    if (const char* const fault = runChecks(database, passwords, command, values))
        return fault;
    const QString hash = passwords.hash(std::get<QString>(values.value(password->name)));
    values.insert(password->name, hash);
    params.insert(password->name.toUtf8(), hash.toUtf8());
    return hash.isEmpty() ? "ER_EXE" : nullptr;
}

QByteArray outputOf(const StrictSql& database, Passwords& passwords, const QueryTable::Command& command,
                    const Values& values, const QString& path, const Params& params) {
    if (const char* const fault = runChecks(database, passwords, command, values))
        return refusal(QLatin1String(fault));
    const std::optional<QByteArray> output = runFindProgram(database, path, params);
    return output ? *output : refusal(QStringLiteral("exc_error_ext"));
}
} // namespace

QByteArray DumpController_add_user::runQuery(const QString& set, const Call& call, bool inProcess) {
    const QueryTable::Command* command = commandFor(set, call.path());
    if (!command)
        return set == QueryTable::openSet() ? refusal(QStringLiteral("unknown_cmd")) : fucktext(call);
    Values values;
    QByteArray refused = refuseCommand(*command, call, *m_devices, values);
    if (!refused.isEmpty())
        return refused;
    Passwords& passwords = m_mapper->passwords();
    Params params = call.params();
    if (const char* const fault = hashPassword(db(), passwords, *command, values, params))
        return refusal(QLatin1String(fault));
    QByteArray answer = inProcess ? runCommand(db(), passwords, *command, values)
                                  : outputOf(db(), passwords, *command, values, call.path(), params);
    afterCommand(*command, call, answer);
    return answer;
}

void DumpController_add_user::afterCommand(const QueryTable::Command& command, const Call& call,
                                           const QByteArray& answer) {
    const QString info = QJsonDocument::fromJson(answer)[QLatin1String("info")].toString();
    if (command.name == QLatin1String("gtoken") && info == QLatin1String("ER_REJECT"))
        m_wrongLogin = call.text("username");
    if (command.voids.isEmpty())
        return;
    const QByteArray name = command.voids.toUtf8();
    const int account = call.number(call.has(name) ? name.constData() : "id");
    m_mapper->refreshToken(db(), account);
    if (m_mapper->newTokens())
        m_mapper->newTokens()->tellVoided(account);
}

QByteArray DumpController_add_user::user_nodejs(const Call& call) {
    return runQuery(plainSet, call, false);
}

QByteArray DumpController_add_user::user_nodejsc(const Call& call) {
    return runQuery(subscriptionSet, call, false);
}

QByteArray DumpController_add_user::user_nodejso(const Call& call) {
    if (db().kind() != 1)
        return refusal(QStringLiteral("config.ini_dbk_ER"));
    return runQuery(QueryTable::openSet(), call, false);
}

QByteArray DumpController_add_user::user_nodesqlite3js(const Call& call) {
    return runQuery(plainSet, call, true);
}

QByteArray DumpController_add_user::user_nodesqlite3jsc(const Call& call) {
    return runQuery(subscriptionSet, call, true);
}
