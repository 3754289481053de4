-- Groups within groups, and speakers that stay disabled over a restart.
CREATE TABLE IF NOT EXISTS `group_group` (
  `gid` INTEGER NOT NULL,    -- sbox_group.id
  `member` INTEGER NOT NULL, -- sbox_group.id of a group within it
  PRIMARY KEY (`gid`, `member`)
) WITHOUT ROWID;
CREATE INDEX IF NOT EXISTS `group_group_member` ON `group_group` (`member`);
CREATE TABLE IF NOT EXISTS `speaker_disabled` (`serial` TEXT NOT NULL PRIMARY KEY) WITHOUT ROWID;
