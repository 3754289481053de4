#include "service/querytable.h"

#include <algorithm>
#include <QDebug>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>

namespace {
QueryTable::Type typeOf(const QJsonValue& name) {
    static const QMap<QString, QueryTable::Type> types{
        {QStringLiteral("int"), QueryTable::Type::Int},
        {QStringLiteral("text"), QueryTable::Type::Text},
        {QStringLiteral("idtext"), QueryTable::Type::IdText},
        {QStringLiteral("ids"), QueryTable::Type::Ids},
        {QStringLiteral("serial"), QueryTable::Type::Serial},
        {QStringLiteral("date"), QueryTable::Type::Date},
        {QStringLiteral("random"), QueryTable::Type::Random},
        {QStringLiteral("password"), QueryTable::Type::Password},
    };
    return types.value(name.toString(), QueryTable::Type::Text);
}

QueryTable::Rows rowsOf(const QJsonValue& word) {
    if (word.toString() == QLatin1String("some"))
        return QueryTable::Rows::Some;
    return word.toString() == QLatin1String("none") ? QueryTable::Rows::None : QueryTable::Rows::Any;
}

QStringList texts(const QJsonValue& array) {
    return array.toVariant().toStringList();
}

void appendParameters(QueryTable::Command& command, const QJsonArray& definitions) {
    for (const QJsonValue& definition : definitions) {
        command.parameters.push_back(
            {definition[QLatin1String("name")].toString(), definition[QLatin1String("or")].toString(),
             typeOf(definition[QLatin1String("type")]), definition[QLatin1String("empty")].toBool()});
    }
}

void appendSteps(QueryTable::Command& command, const QJsonArray& definitions, bool areChecks) {
    for (const QJsonValue& definition : definitions) {
        QueryTable::Step step;
        step.statement = definition[QLatin1String("statement")].toString();
        step.password = definition[QLatin1String("password")].toString();
        step.isCheck = areChecks || !step.password.isEmpty();
        step.rows = rowsOf(definition[QLatin1String("rows")]);
        const QJsonObject take = definition[QLatin1String("take")].toObject();
        for (auto column = take.begin(); column != take.end(); ++column)
            step.take.insert(column.key(), typeOf(column.value()));
        command.steps.push_back(step);
    }
}

void append(QueryTable::Command& command, const QJsonObject& definition, bool isCheck) {
    appendParameters(command, definition.value(QLatin1String("parameters")).toArray());
    appendSteps(command, definition.value(QLatin1String("steps")).toArray(), isCheck);
}
} // namespace

/// Outside any namespace, as the macro asks.
static void registerResources() {
    Q_INIT_RESOURCE(queries);
}

const QueryTable& QueryTable::embedded() {
    static const QueryTable table = [] {
        registerResources();
        QFile file(QStringLiteral(":/api/queries.json"));
        return QueryTable(file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray());
    }();
    return table;
}

const QString& QueryTable::openSet() {
    static const QString name = QStringLiteral("fnokukei");
    return name;
}

QueryTable::QueryTable(const QByteArray& json) {
    QJsonParseError error{};
    const QJsonObject root = QJsonDocument::fromJson(json, &error).object();
    if (error.error != QJsonParseError::NoError)
        qWarning("query table: %s at %d", qPrintable(error.errorString()), error.offset);
    m_hidden = texts(root.value(QLatin1String("hidden")));
    const QJsonObject same = root.value(QLatin1String("same")).toObject();
    for (auto entry = same.begin(); entry != same.end(); ++entry)
        m_same.insert(entry.key(), entry.value().toString());
    const QJsonArray commands = root.value(QLatin1String("commands")).toArray();
    for (const QJsonValue& definition : commands)
        addCommand(definition.toObject(), root.value(QLatin1String("access")).toObject());
}

void QueryTable::addCommand(const QJsonObject& definition, const QJsonObject& checks) {
    Command command;
    command.name = definition.value(QLatin1String("name")).toString();
    command.sets = texts(definition.value(QLatin1String("sets")));
    command.writes = definition.value(QLatin1String("reply")).toString() == QLatin1String("write");
    command.voids = definition.value(QLatin1String("voids")).toString();
    const QStringList access = texts(definition.value(QLatin1String("access")));
    command.needsServiceKey = access.contains(QLatin1String("servicekey"));
    for (const QString& check : access)
        append(command, checks.value(check).toObject(), true);
    append(command, definition, false);
    m_commands.push_back(command);
}

const QueryTable::Command* QueryTable::find(const QString& set, const QString& command) const {
    const auto holds = [&set](const Command& candidate) {
        return set == openSet() ? !candidate.needsServiceKey : candidate.sets.contains(set);
    };
    const auto found = std::find_if(m_commands.begin(), m_commands.end(), [&](const Command& candidate) {
        return holds(candidate) && command.startsWith(candidate.name);
    });
    return found == m_commands.end() ? nullptr : &*found;
}
