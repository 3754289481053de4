#include "tasks/serviceperiod.h"

#include "core/serial.h"

#include "core/sql/sqlite.h"

namespace {

// The same questions in each server's own words.
struct Statements {
    const char* exists;
    const char* expired;
    const char* renewed;
};
constexpr Statements OnSqlite{
    "select * from    sqlite_master where name = 'snover' ;",
    "select * from snover where ( overtime < date(\"now\",\"localtime\")   and `statu` = 1 ) ;",
    "select * from snover where ( overtime > date(\"now\",\"localtime\")   and `statu` = 3 ) ;"};
constexpr Statements OnMysql{
    "select * from information_schema.tables where table_schema = database() and table_name = 'snover' ;",
    "select * from snover where ( overtime < CURDATE()   and `statu` = 1 ) ;",
    "select * from snover where ( overtime > CURDATE()   and `statu` = 3 ) ;"};

const QString Disable = QStringLiteral("UPDATE  `snover`  SET `statu`=2 WHERE ( `sn` in  ( '@insn' ) ) ;");
const QString Enable = QStringLiteral("UPDATE  `snover`  SET `statu`= 1  WHERE ( `sn` in  ( '@insn' ) ) ;");

const Statements& statements(const sqlite& database) {
    return database.dialect() == SqlDialect::Mysql ? OnMysql : OnSqlite;
}

} // namespace

bool ServicePeriods::exists() const {
    return !m_database->run(QLatin1String(statements(*m_database).exists)).isEmpty();
}

QStringList ServicePeriods::expired() const {
    return serials(statements(*m_database).expired);
}

QStringList ServicePeriods::renewed() const {
    return serials(statements(*m_database).renewed);
}

QStringList ServicePeriods::serials(const char* statement) const {
    const SqlResult found = m_database->run(QLatin1String(statement));
    QStringList sns;
    for (int row = 0; row < found.rows.size(); ++row) {
        if (isSerial(found.text(row, "sn")))
            sns += found.text(row, "sn");
    }
    sns.removeDuplicates();
    return sns;
}

void ServicePeriods::markDisabled(const QStringList& serials) const {
    m_database->run(Disable, {{QStringLiteral("@insn"), serials}});
}

void ServicePeriods::markEnabled(const QStringList& serials) const {
    m_database->run(Enable, {{QStringLiteral("@insn"), serials}});
}
