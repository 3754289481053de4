#pragma once

class sqlite;

/// Brings a database that was made from an older schema up to the present one, as far as it needs no new
/// table; nothing to do the second time. False when the database did not let it: logged.
bool upgradeSchema(sqlite& database);
