#include "core/sql/sqlite.h"

QVariant SqlResult::value(int row, const char* column) const {
    const int at = columns.indexOf(QLatin1String(column));
    if (at < 0 || row < 0 || row >= rows.size())
        return {};
    return rows.at(row).at(at);
}

QJsonObject SqlResult::object(int row) const {
    QJsonObject out;
    if (row < 0 || row >= rows.size())
        return out;
    for (int i = 0; i < columns.size(); ++i) {
        const QVariant& value = rows.at(row).at(i);
        out.insert(columns.at(i), value.isNull() ? QJsonValue() : QJsonValue::fromVariant(value));
    }
    return out;
}

QJsonArray SqlResult::objects() const {
    QJsonArray out;
    for (int row = 0; row < rows.size(); ++row)
        out.append(object(row));
    return out;
}
