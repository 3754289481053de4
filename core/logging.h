#pragma once

/// Sends Qt's log channel to standard error, one line a message, line breaks inside a message
/// replaced by "\n". Lines carry a local time stamp unless journald reads them. Thread-safe.
void installLogging();
