-- Volumes to go back to when no order asks for another one any more, and what announcements were asked to be:
-- docs/broadcasts.md.
CREATE TABLE IF NOT EXISTS `speaker_level` (
  `sn` TEXT NOT NULL PRIMARY KEY,
  `level` INTEGER NOT NULL DEFAULT 0
) WITHOUT ROWID;
CREATE TABLE IF NOT EXISTS `announcement` (
  `id` INTEGER NOT NULL PRIMARY KEY,
  `account` INTEGER NOT NULL DEFAULT 0,
  `at` INTEGER NOT NULL DEFAULT 0,
  `body` TEXT NOT NULL
);
CREATE INDEX IF NOT EXISTS `announcement_at` ON `announcement` (`at`);
