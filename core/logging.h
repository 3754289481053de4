#pragma once

/// Sends Qt's log channel to standard error, one line a message (see logLine()). Lines carry a local time
/// stamp unless journald reads them. Never waits for a reader: lines that find no room are lost, and
/// their number is told as soon as there is room again. Thread-safe.
void installLogging();
