#include "api/findprogram.h"

#include "core/sql/sqlite.h"
#include "service/program.h"

#include <QJsonDocument>

using namespace std::chrono_literals;

namespace {
/// A query takes milliseconds; a program that takes longer is stuck on its database.
constexpr auto TimeLimit = 20s;

QProcessEnvironment environment(const sqlite& database, const QString& path) {
    QProcessEnvironment variables = QProcessEnvironment::systemEnvironment();
    variables.insert(QStringLiteral("sqlme"), QStringLiteral("QMYSQL"));
    variables.insert(QStringLiteral("sqlmeip"), database.host());
    variables.insert(QStringLiteral("sqlmeport"), QString::number(database.port()));
    variables.insert(QStringLiteral("sqlmeusername"), database.user());
    variables.insert(QStringLiteral("sqlmepasswd"), database.password());
    variables.insert(QStringLiteral("sqlmebasename"), database.databaseName());
    variables.insert(QStringLiteral("sqlmedbk"), QString::number(database.kind()));
    variables.insert(QStringLiteral("__path"), path);
    return variables;
}

QByteArray asJson(const Params& params) {
    QJsonObject object;
    for (auto parameter = params.begin(); parameter != params.end(); ++parameter)
        object.insert(QString::fromUtf8(parameter.key()), QString::fromUtf8(parameter.value()));
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}
} // namespace

std::optional<QByteArray> runFindProgram(const sqlite& database, const QString& path, const Params& params) {
    const ProgramResult result = runProgram({QStringLiteral("node"),
                                             {QStringLiteral("find.js")},
                                             database.site.programdir,
                                             environment(database, path),
                                             asJson(params),
                                             TimeLimit});
    return result.ok() ? std::optional(result.output) : std::nullopt;
}
