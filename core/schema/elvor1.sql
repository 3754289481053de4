-- MySQL schema of the service: drops and creates every table and puts the first rows in.
-- The collation tells upper from lower case, as SQLite does.

SET NAMES utf8mb4;

DROP TABLE IF EXISTS `task`;
CREATE TABLE `task` (
  `id` INT NOT NULL AUTO_INCREMENT PRIMARY KEY,
  `userid` INT NOT NULL DEFAULT 0, -- owner, sbox_users.id
  `start_time` INT NOT NULL DEFAULT 0, -- seconds since midnight
  `task_name` VARCHAR(255) NOT NULL DEFAULT '',
  `nodeid` INT NOT NULL DEFAULT 1, -- sbox_node.id
  `len` INT NOT NULL DEFAULT 0, -- seconds
  `enable` INT NOT NULL DEFAULT 1,
  `week` VARCHAR(16) NOT NULL DEFAULT '1111111', -- Monday to Sunday, "0" skips the day
  `kind` INT NOT NULL DEFAULT 1,
  `startdate` INT NOT NULL DEFAULT 0, -- days since 1970-01-01, 0 unbounded
  `enddate` INT NOT NULL DEFAULT 0,
  `jiange` INT NOT NULL DEFAULT 0,
  `fileids` MEDIUMTEXT, -- comma lists kept with the task
  `snids` MEDIUMTEXT,
  `statu` INT NOT NULL DEFAULT 0, -- 1 while it plays
  `groupid` INT NOT NULL DEFAULT 0 -- taskgroup.id, 0 none
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4 COLLATE=utf8mb4_bin;
CREATE INDEX `task_start` ON `task` (`start_time`, `enable`);
CREATE INDEX `task_owner` ON `task` (`userid`, `groupid`, `start_time`);

DROP TABLE IF EXISTS `taskseed`;
CREATE TABLE `taskseed` (
  `id` INT NOT NULL AUTO_INCREMENT PRIMARY KEY,
  `taskid` INT NOT NULL DEFAULT 0,
  `devseedid` INT NOT NULL DEFAULT 0 -- sbox_device_info.id
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4 COLLATE=utf8mb4_bin;
CREATE INDEX `taskseed_list` ON `taskseed` (`taskid`, `id`);
CREATE INDEX `taskseed_device` ON `taskseed` (`devseedid`);

DROP TABLE IF EXISTS `taskfile`;
CREATE TABLE `taskfile` (
  `id` INT NOT NULL AUTO_INCREMENT PRIMARY KEY,
  `taskid` INT NOT NULL DEFAULT 0,
  `fileid` INT NOT NULL DEFAULT 0 -- userfile.id
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4 COLLATE=utf8mb4_bin;
CREATE INDEX `taskfile_list` ON `taskfile` (`taskid`, `id`);
CREATE INDEX `taskfile_file` ON `taskfile` (`fileid`);

DROP TABLE IF EXISTS `taskpop`;
CREATE TABLE `taskpop` (
  `id` INT NOT NULL AUTO_INCREMENT PRIMARY KEY,
  `taskid` INT NOT NULL DEFAULT 0,
  `status` VARCHAR(8) NOT NULL DEFAULT '0', -- 0 done, 1 start, 2 stop, 11 running, 12 stop of a temporary task
  `userid` INT NOT NULL DEFAULT 0,
  `kind` VARCHAR(8) NOT NULL DEFAULT '1', -- 1 stored task, 2 temporary task
  `info` VARCHAR(255) NOT NULL DEFAULT '',
  `seeds` MEDIUMTEXT,
  `urls` MEDIUMTEXT,
  `jiange` INT NOT NULL DEFAULT 0,
  `ip` VARCHAR(64) NOT NULL DEFAULT '',
  `port` INT NOT NULL DEFAULT 0,
  `len` INT NOT NULL DEFAULT 0,
  `playmode` INT NOT NULL DEFAULT 0
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4 COLLATE=utf8mb4_bin;
CREATE INDEX `taskpop_status` ON `taskpop` (`status`, `kind`);
CREATE INDEX `taskpop_owner` ON `taskpop` (`userid`, `status`);
CREATE INDEX `taskpop_task` ON `taskpop` (`taskid`);

DROP TABLE IF EXISTS `taskgroup`;
CREATE TABLE `taskgroup` (
  `id` INT NOT NULL AUTO_INCREMENT PRIMARY KEY,
  `userid` INT NOT NULL DEFAULT 0,
  `groupname` VARCHAR(255) NOT NULL DEFAULT ''
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4 COLLATE=utf8mb4_bin;
CREATE INDEX `taskgroup_owner` ON `taskgroup` (`userid`);

DROP TABLE IF EXISTS `userfile`;
CREATE TABLE `userfile` (
  `id` INT NOT NULL AUTO_INCREMENT PRIMARY KEY,
  `userid` INT NOT NULL DEFAULT 0,
  `filename` VARCHAR(1024) NOT NULL DEFAULT '', -- base64
  `url` VARCHAR(2048) NOT NULL DEFAULT '', -- relative to the document root
  `len` INT NOT NULL DEFAULT 0, -- seconds
  `crl` VARCHAR(64) NOT NULL DEFAULT '', -- MD5 of the stored file, hex
  `ziuse` INT NOT NULL DEFAULT 1,
  `sizeByte` BIGINT NOT NULL DEFAULT 0,
  `mark` VARCHAR(255) NOT NULL DEFAULT '',
  `markid` INT NOT NULL DEFAULT 0
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4 COLLATE=utf8mb4_bin;
CREATE INDEX `userfile_owner` ON `userfile` (`userid`);
CREATE INDEX `userfile_url` ON `userfile` (`url`(191));

DROP TABLE IF EXISTS `sharefiles`;
CREATE TABLE `sharefiles` (
  `id` INT NOT NULL AUTO_INCREMENT PRIMARY KEY,
  `userid` INT NOT NULL DEFAULT 0,
  `path` VARCHAR(2048) NOT NULL DEFAULT '',
  `uname` VARCHAR(512) NOT NULL DEFAULT ''
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4 COLLATE=utf8mb4_bin;
CREATE INDEX `sharefiles_owner` ON `sharefiles` (`userid`);

DROP TABLE IF EXISTS `sbox_device_info`;
CREATE TABLE `sbox_device_info` (
  `id` INT NOT NULL AUTO_INCREMENT PRIMARY KEY,
  `user_id` INT NOT NULL DEFAULT 0,
  `device_type` INT NOT NULL DEFAULT 1,
  `device_name` VARCHAR(255) NOT NULL DEFAULT '',
  `device_seed` VARCHAR(64) NOT NULL, -- serial number
  `device_code` VARCHAR(128) NOT NULL DEFAULT '',
  `node_id` INT NOT NULL DEFAULT 1, -- sbox_node.id
  `tag1` VARCHAR(64) NOT NULL DEFAULT '',
  `tag2` VARCHAR(64) NOT NULL DEFAULT '',
  `userid_seed` VARCHAR(96) NOT NULL DEFAULT '',
  `iswarning` INT NOT NULL DEFAULT 0, -- 99 takes part in alarms
  `kind` INT NOT NULL DEFAULT 0,
  `vol` INT NOT NULL DEFAULT 0,
  `status` INT NOT NULL DEFAULT 0, -- 1 online
  `xhstatus` INT NOT NULL DEFAULT 0,
  `rt` INT NOT NULL DEFAULT 0,
  `rtl` INT NOT NULL DEFAULT 0,
  `py` INT NOT NULL DEFAULT 0,
  `pyl` INT NOT NULL DEFAULT 0,
  `ctime` DATETIME NOT NULL DEFAULT CURRENT_TIMESTAMP,
  `changetime` DATETIME NOT NULL DEFAULT CURRENT_TIMESTAMP ON UPDATE CURRENT_TIMESTAMP,
  `updatetime` DATETIME NOT NULL DEFAULT CURRENT_TIMESTAMP ON UPDATE CURRENT_TIMESTAMP
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4 COLLATE=utf8mb4_bin;
CREATE UNIQUE INDEX `device_seed` ON `sbox_device_info` (`device_seed`);
CREATE INDEX `device_owner` ON `sbox_device_info` (`user_id`, `iswarning`);

DROP TABLE IF EXISTS `sbox_node`;
CREATE TABLE `sbox_node` (
  `id` INT NOT NULL AUTO_INCREMENT PRIMARY KEY,
  `nodeip` VARCHAR(64) NOT NULL DEFAULT '127.0.0.1',
  `node_name` VARCHAR(255) NOT NULL DEFAULT '',
  `nodeport1` INT NOT NULL DEFAULT 3333,
  `nodeport2` INT NOT NULL DEFAULT 6003,
  `nodeport3` INT NOT NULL DEFAULT 6006,
  `nodeport4` INT NOT NULL DEFAULT 6002,
  `nodeport5` INT NOT NULL DEFAULT 6003,
  `detail` VARCHAR(512) NOT NULL DEFAULT ''
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4 COLLATE=utf8mb4_bin;

DROP TABLE IF EXISTS `sbox_group`;
CREATE TABLE `sbox_group` (
  `id` INT NOT NULL AUTO_INCREMENT PRIMARY KEY,
  `userid` INT NOT NULL DEFAULT 0,
  `group_name` VARCHAR(255) NOT NULL DEFAULT '',
  `nodeid` INT NOT NULL DEFAULT 1,
  `time` DATETIME NOT NULL DEFAULT CURRENT_TIMESTAMP,
  `msurl` VARCHAR(1024) NOT NULL DEFAULT ''
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4 COLLATE=utf8mb4_bin;
CREATE INDEX `group_owner` ON `sbox_group` (`userid`);

DROP TABLE IF EXISTS `group_seed`;
CREATE TABLE `group_seed` (
  `id` INT NOT NULL AUTO_INCREMENT PRIMARY KEY,
  `gid` INT NOT NULL DEFAULT 0, -- sbox_group.id
  `seed` VARCHAR(64) NOT NULL DEFAULT '',
  `userid` INT NOT NULL DEFAULT 0,
  `gidseed` VARCHAR(128) NOT NULL DEFAULT '',
  `devid` INT NOT NULL DEFAULT 0 -- sbox_device_info.id
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4 COLLATE=utf8mb4_bin;
CREATE INDEX `group_seed_group` ON `group_seed` (`gid`, `userid`);
CREATE INDEX `group_seed_owner` ON `group_seed` (`userid`);
CREATE INDEX `group_seed_device` ON `group_seed` (`devid`);

DROP TABLE IF EXISTS `group_group`;
CREATE TABLE `group_group` (
  `gid` INT NOT NULL,    -- sbox_group.id
  `member` INT NOT NULL, -- sbox_group.id of a group within it
  PRIMARY KEY (`gid`, `member`)
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4 COLLATE=utf8mb4_bin;
CREATE INDEX `group_group_member` ON `group_group` (`member`);

DROP TABLE IF EXISTS `speaker_disabled`;
CREATE TABLE `speaker_disabled` (
  `serial` VARCHAR(64) NOT NULL PRIMARY KEY -- over a restart
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4 COLLATE=utf8mb4_bin;

DROP TABLE IF EXISTS `sbox_users`;
CREATE TABLE `sbox_users` (
  `id` INT NOT NULL AUTO_INCREMENT PRIMARY KEY,
  `user_name` VARCHAR(200) NOT NULL DEFAULT '',
  `user_pass` VARCHAR(255) NOT NULL DEFAULT '',
  `master_id` INT NOT NULL DEFAULT 0, -- the account that made this sub-account
  `mask` VARCHAR(8192) NOT NULL DEFAULT '', -- device ids that a sub-account sees
  `beizhu` VARCHAR(512) NOT NULL DEFAULT '',
  `token` VARCHAR(128) NOT NULL DEFAULT '',
  `nickname` VARCHAR(255) NOT NULL DEFAULT '',
  `user_level` INT NOT NULL DEFAULT 0,
  `ctime` DATETIME NOT NULL DEFAULT CURRENT_TIMESTAMP
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4 COLLATE=utf8mb4_bin;
CREATE UNIQUE INDEX `user_name` ON `sbox_users` (`user_name`);
CREATE INDEX `user_master` ON `sbox_users` (`master_id`);

DROP TABLE IF EXISTS `warningplant`;
CREATE TABLE `warningplant` (
  `id` INT NOT NULL AUTO_INCREMENT PRIMARY KEY,
  `snids` MEDIUMTEXT,
  `url` MEDIUMTEXT,
  `name` VARCHAR(255) NOT NULL DEFAULT '',
  `userid` INT NOT NULL DEFAULT 0,
  `status` INT NOT NULL DEFAULT 0
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4 COLLATE=utf8mb4_bin;
CREATE INDEX `warningplant_owner` ON `warningplant` (`userid`);

DROP TABLE IF EXISTS `warregister`;
CREATE TABLE `warregister` (
  `id` INT NOT NULL AUTO_INCREMENT PRIMARY KEY,
  `sn` VARCHAR(64) NOT NULL DEFAULT '',
  `kind` INT NOT NULL DEFAULT 0, -- 0 a fixed file
  `url` MEDIUMTEXT,
  `devname` VARCHAR(255) NOT NULL DEFAULT '',
  `filename` VARCHAR(1024) NOT NULL DEFAULT '',
  `userid` INT NOT NULL DEFAULT 0,
  `fb` VARCHAR(8) NOT NULL DEFAULT ''
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4 COLLATE=utf8mb4_bin;
CREATE INDEX `warregister_owner` ON `warregister` (`userid`);
CREATE INDEX `warregister_line` ON `warregister` (`sn`, `fb`);

DROP TABLE IF EXISTS `snover`;
CREATE TABLE `snover` (
  `id` INT NOT NULL AUTO_INCREMENT PRIMARY KEY,
  `sn` VARCHAR(64) NOT NULL DEFAULT '',
  `overtime` VARCHAR(32) NOT NULL DEFAULT '', -- end of the service period
  `statu` INT NOT NULL DEFAULT 1, -- 1 active, 2 expired, 3 renewed
  `iccid` VARCHAR(64) NOT NULL DEFAULT '',
  `pay` INT NOT NULL DEFAULT 0
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4 COLLATE=utf8mb4_bin;
CREATE INDEX `snover_sn` ON `snover` (`sn`);
CREATE INDEX `snover_period` ON `snover` (`statu`, `overtime`);

DROP TABLE IF EXISTS `fei`;
CREATE TABLE `fei` (
  `id` INT NOT NULL AUTO_INCREMENT PRIMARY KEY,
  `userid` INT NOT NULL DEFAULT 0,
  `fei` VARCHAR(32) NOT NULL DEFAULT '0',
  `info` VARCHAR(255) NOT NULL DEFAULT ''
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4 COLLATE=utf8mb4_bin;
CREATE INDEX `fei_owner` ON `fei` (`userid`);

DROP TABLE IF EXISTS `swap_info`;
CREATE TABLE `swap_info` (
  `id` INT NOT NULL AUTO_INCREMENT PRIMARY KEY,
  `url` VARCHAR(2048) NOT NULL DEFAULT '',
  `title` VARCHAR(512) NOT NULL DEFAULT '',
  `type` VARCHAR(32) NOT NULL DEFAULT '',
  `to` VARCHAR(1024) NOT NULL DEFAULT ''
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4 COLLATE=utf8mb4_bin;

DROP TABLE IF EXISTS `xieyi_mod`;
CREATE TABLE `xieyi_mod` (
  `id` INT NOT NULL AUTO_INCREMENT PRIMARY KEY,
  `xieyi` MEDIUMTEXT NOT NULL DEFAULT ('')
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4 COLLATE=utf8mb4_bin;

DROP TABLE IF EXISTS `rizhi`;
CREATE TABLE `rizhi` (
  `id` INT NOT NULL AUTO_INCREMENT PRIMARY KEY,
  `userid` INT NOT NULL DEFAULT 0,
  `info` VARCHAR(2048) NOT NULL DEFAULT '',
  `kind` INT NOT NULL DEFAULT 0,
  `level` INT NOT NULL DEFAULT 0
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4 COLLATE=utf8mb4_bin;
CREATE INDEX `rizhi_owner` ON `rizhi` (`userid`);

-- What was played where, and what was not: docs/journal.md.
DROP TABLE IF EXISTS `broadcast`;
CREATE TABLE `broadcast` (
  `id` BIGINT NOT NULL,
  `node` SMALLINT NOT NULL DEFAULT 0,     -- whose speakers this row counts
  `kind` VARCHAR(16) NOT NULL DEFAULT '',       -- announcement, bell, live, alarm, direct
  `name` VARCHAR(255) NOT NULL DEFAULT '',
  `priority` SMALLINT NOT NULL DEFAULT 0,
  `owner` INT NOT NULL DEFAULT 0,    -- account whose order or schedule it is
  `account` INT NOT NULL DEFAULT 0,  -- from here on what it came from; 0 or empty: not that
  `schedule` INT NOT NULL DEFAULT 0,
  `input` INT NOT NULL DEFAULT 0,
  `line` VARCHAR(64) NOT NULL DEFAULT '',
  `path` VARCHAR(255) NOT NULL DEFAULT '',
  `state` VARCHAR(16) NOT NULL DEFAULT '',      -- waiting, playing, done, stopped, failed
  `reason` VARCHAR(255),
  `due` BIGINT NOT NULL DEFAULT 0,      -- times are ms since 1970-01-01 UTC; 0: none
  `started` BIGINT NOT NULL DEFAULT 0,
  `ended` BIGINT NOT NULL DEFAULT 0,
  `targets` INT NOT NULL DEFAULT 0,  -- the sum of the counts that follow
  `n_waiting` INT NOT NULL DEFAULT 0,
  `n_offline` INT NOT NULL DEFAULT 0,
  `n_sent` INT NOT NULL DEFAULT 0,
  `n_started` INT NOT NULL DEFAULT 0,
  `n_completed` INT NOT NULL DEFAULT 0,
  `n_stopped` INT NOT NULL DEFAULT 0,
  `n_overruled` INT NOT NULL DEFAULT 0,
  `n_lost` INT NOT NULL DEFAULT 0,
  `n_silent` INT NOT NULL DEFAULT 0,
  `n_refused` INT NOT NULL DEFAULT 0,
  PRIMARY KEY (`id`, `node`)
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4 COLLATE=utf8mb4_bin;
CREATE INDEX `broadcast_state` ON `broadcast` (`state`, `id`);

DROP TABLE IF EXISTS `receipt`;
CREATE TABLE `receipt` (
  `broadcast` BIGINT NOT NULL,
  `serial` VARCHAR(64) CHARACTER SET ascii COLLATE ascii_bin NOT NULL,
  `node` SMALLINT NOT NULL DEFAULT 0,
  `state` SMALLINT NOT NULL DEFAULT 0,    -- 0 waiting, 1 offline, 2 sent, 3 started, 4 completed, 5 stopped, 6 overruled, 7 lost, 8 silent, 9 refused
  `reason` VARCHAR(255),
  `by_broadcast` BIGINT NOT NULL DEFAULT 0,
  `sent` BIGINT NOT NULL DEFAULT 0,
  `started` BIGINT NOT NULL DEFAULT 0,
  `ended` BIGINT NOT NULL DEFAULT 0,
  PRIMARY KEY (`broadcast`, `serial`)
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4 COLLATE=utf8mb4_bin;

DROP TABLE IF EXISTS `journal`;
CREATE TABLE `journal` (
  `id` BIGINT NOT NULL PRIMARY KEY,
  `at` BIGINT NOT NULL DEFAULT 0,
  `kind` VARCHAR(16) NOT NULL DEFAULT '',       -- those of broadcasts, and speaker, service, link
  `state` VARCHAR(32) NOT NULL DEFAULT '',
  `name` VARCHAR(255) NOT NULL DEFAULT '',
  `reason` VARCHAR(255),
  `due` BIGINT NOT NULL DEFAULT 0,
  `late` BIGINT NOT NULL DEFAULT 0,     -- ms
  `broadcast` BIGINT NOT NULL DEFAULT 0,
  `schedule` INT NOT NULL DEFAULT 0,
  `account` INT NOT NULL DEFAULT 0,  -- whose it is
  `serial` VARCHAR(64) CHARACTER SET ascii COLLATE ascii_bin NOT NULL DEFAULT ''
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4 COLLATE=utf8mb4_bin;
CREATE INDEX `journal_kind` ON `journal` (`kind`, `id`);

DROP TABLE IF EXISTS `apitoken`;
CREATE TABLE `apitoken` (
  `id` BIGINT NOT NULL AUTO_INCREMENT PRIMARY KEY,
  `account` INT NOT NULL,         -- sbox_users.id
  `name` VARCHAR(255) NOT NULL DEFAULT '',    -- of a program; empty: a login's
  `hash` CHAR(64) NOT NULL,               -- SHA-256 of the token, hex
  `created` BIGINT NOT NULL,         -- ms since 1970
  `expires` BIGINT NOT NULL DEFAULT 0 -- the same, 0 never
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4 COLLATE=utf8mb4_bin;
CREATE UNIQUE INDEX `apitoken_hash` ON `apitoken` (`hash`);
CREATE INDEX `apitoken_account` ON `apitoken` (`account`);
CREATE INDEX `apitoken_expires` ON `apitoken` (`expires`);

DROP TABLE IF EXISTS `groupgrant`;
CREATE TABLE `groupgrant` (
  `id` BIGINT NOT NULL AUTO_INCREMENT PRIMARY KEY,
  `account` INT NOT NULL, -- sbox_users.id, who is given the right
  `gid` INT NOT NULL,     -- sbox_group.id
  `role` INT NOT NULL     -- 1 viewer, 2 operator
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4 COLLATE=utf8mb4_bin;
CREATE UNIQUE INDEX `groupgrant_once` ON `groupgrant` (`account`, `gid`);
CREATE INDEX `groupgrant_group` ON `groupgrant` (`gid`);

DROP TABLE IF EXISTS `audit`;
CREATE TABLE `audit` (
  `id` BIGINT NOT NULL AUTO_INCREMENT PRIMARY KEY,
  `at` BIGINT NOT NULL, -- ms since 1970
  `account` INT NOT NULL DEFAULT 0,
  `address` VARCHAR(64) NOT NULL DEFAULT '',
  `action` VARCHAR(255) NOT NULL,
  `object` VARCHAR(255) NOT NULL DEFAULT '',
  `detail` VARCHAR(255) NOT NULL DEFAULT ''
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4 COLLATE=utf8mb4_bin;
CREATE INDEX `audit_at` ON `audit` (`at`);
CREATE INDEX `audit_account` ON `audit` (`account`);

DROP TABLE IF EXISTS `idempotency`;
CREATE TABLE `idempotency` (
  `account` INT NOT NULL,
  `name` VARCHAR(100) NOT NULL,              -- the key that the client chose
  `request` CHAR(64) NOT NULL,           -- SHA-256 of the request, hex
  `status` INT NOT NULL,         -- of its answer, 0 while it is under way
  `location` VARCHAR(255) NOT NULL DEFAULT '',
  `body` MEDIUMTEXT,
  `at` BIGINT NOT NULL,             -- ms since 1970
  PRIMARY KEY (`account`, `name`)
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4 COLLATE=utf8mb4_bin;
CREATE INDEX `idempotency_at` ON `idempotency` (`at`);

DROP TABLE IF EXISTS `taskrule`;
-- What a schedule has beyond its task's row. A task without a row here is as tasks always were.
CREATE TABLE `taskrule` (
  `taskid` INT NOT NULL PRIMARY KEY, -- task.id
  `calendarid` INT, -- calendar.id; NULL: every day is an ordinary one
  `missed` INT, -- seconds that a late bell may ring after its time, 0 not at all; NULL 60
  `localdates` INT NOT NULL DEFAULT 0, -- 1: startdate and enddate are local dates, 0: days in UTC
  `everyone` INT NOT NULL DEFAULT 0, -- 1: every speaker that the owner may play to
  `whole` INT NOT NULL DEFAULT 0, -- 1: len is what its sounds take
  `volume` INT, -- 1 to 25, NULL as it is
  `priority` INT -- 0 to 255, NULL 100
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4 COLLATE=utf8mb4_bin;
CREATE INDEX `taskrule_calendar` ON `taskrule` (`calendarid`);

DROP TABLE IF EXISTS `taskaim`;
-- Groups that a schedule rings in, beside the speakers in taskseed.
CREATE TABLE `taskaim` (
  `id` INT NOT NULL AUTO_INCREMENT PRIMARY KEY,
  `taskid` INT NOT NULL DEFAULT 0, -- task.id
  `gid` INT NOT NULL DEFAULT 0 -- sbox_group.id
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4 COLLATE=utf8mb4_bin;
CREATE INDEX `taskaim_list` ON `taskaim` (`taskid`, `id`);
CREATE INDEX `taskaim_group` ON `taskaim` (`gid`);

DROP TABLE IF EXISTS `planrule`;
-- What a plan has beyond its row in taskgroup.
CREATE TABLE `planrule` (
  `planid` INT NOT NULL PRIMARY KEY, -- taskgroup.id
  `exceptional` INT NOT NULL DEFAULT 0 -- 1: rings only where a calendar's entry names it
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4 COLLATE=utf8mb4_bin;

DROP TABLE IF EXISTS `calendar`;
CREATE TABLE `calendar` (
  `id` INT NOT NULL AUTO_INCREMENT PRIMARY KEY,
  `userid` INT NOT NULL DEFAULT 0, -- owner, sbox_users.id
  `name` VARCHAR(255) NOT NULL DEFAULT ''
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4 COLLATE=utf8mb4_bin;
CREATE INDEX `calendar_owner` ON `calendar` (`userid`);

DROP TABLE IF EXISTS `calendarentry`;
-- Dates on which a calendar differs from every day.
CREATE TABLE `calendarentry` (
  `id` INT NOT NULL AUTO_INCREMENT PRIMARY KEY,
  `calendarid` INT NOT NULL DEFAULT 0, -- calendar.id
  `name` VARCHAR(255) NOT NULL DEFAULT '',
  `firstday` INT NOT NULL DEFAULT 0, -- days since 1970-01-01, local dates
  `lastday` INT NOT NULL DEFAULT 0, -- included
  `planid` INT, -- taskgroup.id, the only plan that rings; NULL silence
  `uid` VARCHAR(255) NOT NULL DEFAULT '', -- of the imported event; empty for one that was put in by hand
  `occurrence` INT NOT NULL DEFAULT 0 -- the day by which the event's own calendar names this occurrence
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4 COLLATE=utf8mb4_bin;
CREATE INDEX `calendarentry_days` ON `calendarentry` (`calendarid`, `lastday`, `firstday`);
CREATE INDEX `calendarentry_event` ON `calendarentry` (`calendarid`, `uid`, `occurrence`);
CREATE INDEX `calendarentry_plan` ON `calendarentry` (`planid`);

DROP TABLE IF EXISTS `calendarfile`;
-- The imported file of a calendar, to expand what recurs again each day.
CREATE TABLE `calendarfile` (
  `calendarid` INT NOT NULL PRIMARY KEY, -- calendar.id
  `body` LONGTEXT NOT NULL,
  `expanded` INT NOT NULL DEFAULT 0 -- the day on which that was done last
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4 COLLATE=utf8mb4_bin;

DROP TABLE IF EXISTS `taskrun`;
-- Bells that have rung: none of them rings again.
CREATE TABLE `taskrun` (
  `taskid` INT NOT NULL, -- task.id
  `due` BIGINT NOT NULL, -- seconds since 1970-01-01 UTC
  `late` INT NOT NULL DEFAULT 0, -- s
  PRIMARY KEY (`taskid`, `due`)
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4 COLLATE=utf8mb4_bin;
CREATE INDEX `taskrun_due` ON `taskrun` (`due`);
-- The last bell of a schedule.
CREATE INDEX `journal_schedule` ON `journal` (`schedule`, `due`);

DROP TABLE IF EXISTS `taskclock`;
-- The last second that the task queue handled.
CREATE TABLE `taskclock` (
  `id` INT NOT NULL PRIMARY KEY,
  `handled` BIGINT NOT NULL DEFAULT 0 -- seconds since 1970-01-01 UTC
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4 COLLATE=utf8mb4_bin;

-- Volumes to go back to when no order asks for another one any more; what announcements were asked to be:
-- docs/broadcasts.md.
-- `at`: ms since 1970-01-01 UTC; `body`: the request as JSON.
DROP TABLE IF EXISTS `speaker_level`;
CREATE TABLE `speaker_level` (
  `sn` VARCHAR(64) CHARACTER SET ascii COLLATE ascii_bin NOT NULL PRIMARY KEY,
  `level` SMALLINT NOT NULL DEFAULT 0
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4 COLLATE=utf8mb4_bin;
DROP TABLE IF EXISTS `announcement`;
CREATE TABLE `announcement` (
  `id` BIGINT NOT NULL PRIMARY KEY,
  `account` INT NOT NULL DEFAULT 0,
  `at` BIGINT NOT NULL DEFAULT 0,
  `body` MEDIUMTEXT NOT NULL
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4 COLLATE=utf8mb4_bin;
CREATE INDEX `announcement_at` ON `announcement` (`at`);

INSERT INTO `sbox_node` (`id`, `node_name`) VALUES (1, 'node1');
INSERT INTO `swap_info` (`type`) VALUES ('info');
INSERT INTO `xieyi_mod` (`id`, `xieyi`) VALUES (1, '');
INSERT INTO `taskclock` (`id`) VALUES (1);

-- The version of what stands above: the number of the newest step in migrations/.
DROP TABLE IF EXISTS `schema_version`;
CREATE TABLE `schema_version` (`version` INTEGER NOT NULL);
INSERT INTO `schema_version` (`version`) VALUES (7);
