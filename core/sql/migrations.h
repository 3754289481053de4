#pragma once

#include <QString>

class sqlite;

/// The schema's version that this program works with: that of the two scripts by which a new database is
/// made.
int newestSchemaVersion();

/// Brings the database to the newest version: the numbered scripts of core/schema/migrations/ that it has not
/// had yet, in their order, each with the note of its version in one transaction where the server allows that
/// (MySQL commits after each definition; a step there can be run again). Beside an SQLite file a copy of it
/// is left first, named after the version it had. A database without a `schema_version` is of version 1; one
/// without any of our tables is left alone. Returns false, with the reason logged and in `why`, when a step
/// fails or the database is newer than the program: then nothing must use it. Blocks; `database`'s thread.
bool migrateSchema(sqlite& database, QString& why);
