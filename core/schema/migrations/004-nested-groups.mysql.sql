-- Groups within groups, and speakers that stay disabled over a restart.
CREATE TABLE IF NOT EXISTS `group_group` (
  `gid` INT NOT NULL,    -- sbox_group.id
  `member` INT NOT NULL, -- sbox_group.id of a group within it
  PRIMARY KEY (`gid`, `member`),
  KEY `group_group_member` (`member`)
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4 COLLATE=utf8mb4_bin;
CREATE TABLE IF NOT EXISTS `speaker_disabled` (
  `serial` VARCHAR(64) NOT NULL PRIMARY KEY
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4 COLLATE=utf8mb4_bin;
