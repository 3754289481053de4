-- Volumes to go back to when no order asks for another one any more, and what announcements were asked to be:
-- docs/broadcasts.md.
CREATE TABLE IF NOT EXISTS `speaker_level` (
  `sn` VARCHAR(64) CHARACTER SET ascii COLLATE ascii_bin NOT NULL PRIMARY KEY,
  `level` SMALLINT NOT NULL DEFAULT 0
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4 COLLATE=utf8mb4_bin;
CREATE TABLE IF NOT EXISTS `announcement` (
  `id` BIGINT NOT NULL PRIMARY KEY,
  `account` INT NOT NULL DEFAULT 0,
  `at` BIGINT NOT NULL DEFAULT 0,
  `body` MEDIUMTEXT NOT NULL
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4 COLLATE=utf8mb4_bin;
CREATE INDEX IF NOT EXISTS `announcement_at` ON `announcement` (`at`);
