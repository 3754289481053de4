#pragma once

#include "core/sql/sqlite.h"

/// Outcome of a statement with its text as a reply may show it.
struct ShownResult : SqlResult {
    QString sql; ///< the template with the values in their places; never what was sent
};

/// The database as the older paths know it: a value with a single quote or a NUL (on MySQL with a backslash
/// too) makes its statement fail, as it did when values stood in the texts of statements. This is the only
/// place of that rule; the database itself takes any text. Does not own the database, same thread.
class StrictSql {
public:
    explicit StrictSql(sqlite& database)
        : site(database.site)
        , m_database(database) {}

    /// Whether a statement with these values would be run; one that would not is logged.
    bool takes(const SqlArgs& args, const QString& statement) const;
    ShownResult run(const QString& statement, const SqlArgs& args = {}) const;
    /// Whether the text may be a value.
    bool takes(const QString& text) const;
    bool transaction(const std::function<bool()>& body) const { return m_database.transaction(body); }
    int runScript(const QString& script) const { return m_database.runScript(script); }
    int kind() const { return m_database.kind(); }
    /// For what takes any text.
    operator sqlite&() const { return m_database; } // NOLINT(google-explicit-constructor)

    const sqlite::Site& site;

private:
    bool takes(const SqlArgs& args, const QString& statement, QString& error) const;
    sqlite& m_database;
};
