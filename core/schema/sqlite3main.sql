-- SQLite schema of the service: drops and creates every table and puts the first rows in.
-- Columns hold what the statements write; quoted numbers are stored as numbers in INTEGER columns.

DROP TABLE IF EXISTS `task`;
CREATE TABLE `task` (
  `id` INTEGER PRIMARY KEY AUTOINCREMENT,
  `userid` INTEGER NOT NULL DEFAULT 0,     -- owner, sbox_users.id
  `start_time` INTEGER NOT NULL DEFAULT 0, -- seconds since midnight
  `task_name` TEXT NOT NULL DEFAULT '',
  `nodeid` INTEGER NOT NULL DEFAULT 1,     -- sbox_node.id
  `len` INTEGER NOT NULL DEFAULT 0,        -- seconds
  `enable` INTEGER NOT NULL DEFAULT 1,
  `week` TEXT NOT NULL DEFAULT '1111111',  -- Monday to Sunday, "0" skips the day
  `kind` INTEGER NOT NULL DEFAULT 1,
  `startdate` INTEGER NOT NULL DEFAULT 0,  -- days since 1970-01-01, 0 unbounded
  `enddate` INTEGER NOT NULL DEFAULT 0,
  `jiange` INTEGER NOT NULL DEFAULT 0,
  `fileids` TEXT,                          -- comma lists kept with the task
  `snids` TEXT,
  `statu` INTEGER NOT NULL DEFAULT 0,      -- 1 while it plays
  `groupid` INTEGER NOT NULL DEFAULT 0     -- taskgroup.id, 0 none
);
CREATE INDEX `task_start` ON `task` (`start_time`, `enable`);
CREATE INDEX `task_owner` ON `task` (`userid`, `groupid`, `start_time`);

DROP TABLE IF EXISTS `taskseed`;
CREATE TABLE `taskseed` (
  `id` INTEGER PRIMARY KEY AUTOINCREMENT,
  `taskid` INTEGER NOT NULL DEFAULT 0,
  `devseedid` INTEGER NOT NULL DEFAULT 0 -- sbox_device_info.id
);
CREATE INDEX `taskseed_list` ON `taskseed` (`taskid`, `id`);
CREATE INDEX `taskseed_device` ON `taskseed` (`devseedid`);

DROP TABLE IF EXISTS `taskfile`;
CREATE TABLE `taskfile` (
  `id` INTEGER PRIMARY KEY AUTOINCREMENT,
  `taskid` INTEGER NOT NULL DEFAULT 0,
  `fileid` INTEGER NOT NULL DEFAULT 0 -- userfile.id
);
CREATE INDEX `taskfile_list` ON `taskfile` (`taskid`, `id`);
CREATE INDEX `taskfile_file` ON `taskfile` (`fileid`);

DROP TABLE IF EXISTS `taskpop`;
CREATE TABLE `taskpop` (
  `id` INTEGER PRIMARY KEY AUTOINCREMENT,
  `taskid` INTEGER NOT NULL DEFAULT 0,
  `status` TEXT NOT NULL DEFAULT '0', -- 0 done, 1 start, 2 stop, 11 running, 12 stop of a temporary task
  `userid` INTEGER NOT NULL DEFAULT 0,
  `kind` TEXT NOT NULL DEFAULT '1',   -- 1 stored task, 2 temporary task
  `info` TEXT NOT NULL DEFAULT '',
  `seeds` TEXT,
  `urls` TEXT,
  `jiange` INTEGER NOT NULL DEFAULT 0,
  `ip` TEXT NOT NULL DEFAULT '',
  `port` INTEGER NOT NULL DEFAULT 0,
  `len` INTEGER NOT NULL DEFAULT 0,
  `playmode` INTEGER NOT NULL DEFAULT 0
);
CREATE INDEX `taskpop_status` ON `taskpop` (`status`, `kind`);
CREATE INDEX `taskpop_owner` ON `taskpop` (`userid`, `status`);
CREATE INDEX `taskpop_task` ON `taskpop` (`taskid`);

DROP TABLE IF EXISTS `taskgroup`;
CREATE TABLE `taskgroup` (
  `id` INTEGER PRIMARY KEY AUTOINCREMENT,
  `userid` INTEGER NOT NULL DEFAULT 0,
  `groupname` TEXT NOT NULL DEFAULT ''
);
CREATE INDEX `taskgroup_owner` ON `taskgroup` (`userid`);

DROP TABLE IF EXISTS `userfile`;
CREATE TABLE `userfile` (
  `id` INTEGER PRIMARY KEY AUTOINCREMENT,
  `userid` INTEGER NOT NULL DEFAULT 0,
  `filename` TEXT NOT NULL DEFAULT '', -- base64
  `url` TEXT NOT NULL DEFAULT '',      -- relative to the document root
  `len` INTEGER NOT NULL DEFAULT 0,    -- seconds
  `crl` TEXT NOT NULL DEFAULT '',      -- MD5 of the stored file, hex
  `ziuse` INTEGER NOT NULL DEFAULT 1,
  `sizeByte` INTEGER NOT NULL DEFAULT 0,
  `mark` TEXT NOT NULL DEFAULT '',
  `markid` INTEGER NOT NULL DEFAULT 0
);
CREATE INDEX `userfile_owner` ON `userfile` (`userid`);
CREATE INDEX `userfile_url` ON `userfile` (`url`);

DROP TABLE IF EXISTS `sharefiles`;
CREATE TABLE `sharefiles` (
  `id` INTEGER PRIMARY KEY AUTOINCREMENT,
  `userid` INTEGER NOT NULL DEFAULT 0,
  `path` TEXT NOT NULL DEFAULT '',
  `uname` TEXT NOT NULL DEFAULT ''
);
CREATE INDEX `sharefiles_owner` ON `sharefiles` (`userid`);

DROP TABLE IF EXISTS `sbox_device_info`;
CREATE TABLE `sbox_device_info` (
  `id` INTEGER PRIMARY KEY AUTOINCREMENT,
  `user_id` INTEGER NOT NULL DEFAULT 0,
  `device_type` INTEGER NOT NULL DEFAULT 1,
  `device_name` TEXT NOT NULL DEFAULT '',
  `device_seed` TEXT NOT NULL,           -- serial number
  `device_code` TEXT NOT NULL DEFAULT '',
  `node_id` INTEGER NOT NULL DEFAULT 1,  -- sbox_node.id
  `tag1` TEXT NOT NULL DEFAULT '',
  `tag2` TEXT NOT NULL DEFAULT '',
  `userid_seed` TEXT NOT NULL DEFAULT '',
  `iswarning` INTEGER NOT NULL DEFAULT 0, -- 99 takes part in alarms
  `kind` INTEGER NOT NULL DEFAULT 0,
  `vol` INTEGER NOT NULL DEFAULT 0,
  `status` INTEGER NOT NULL DEFAULT 0,    -- 1 online
  `xhstatus` INTEGER NOT NULL DEFAULT 0,
  `rt` INTEGER NOT NULL DEFAULT 0,
  `rtl` INTEGER NOT NULL DEFAULT 0,
  `py` INTEGER NOT NULL DEFAULT 0,
  `pyl` INTEGER NOT NULL DEFAULT 0,
  `ctime` TEXT NOT NULL DEFAULT (datetime('now', 'localtime')),
  `changetime` TEXT NOT NULL DEFAULT (datetime('now', 'localtime')),
  `updatetime` TEXT NOT NULL DEFAULT (datetime('now', 'localtime'))
);
CREATE UNIQUE INDEX `device_seed` ON `sbox_device_info` (`device_seed`);
CREATE INDEX `device_owner` ON `sbox_device_info` (`user_id`, `iswarning`);
CREATE TRIGGER `device_changed` AFTER UPDATE ON `sbox_device_info`
WHEN NEW.`updatetime` IS OLD.`updatetime` AND NEW.`changetime` IS OLD.`changetime`
BEGIN
  UPDATE `sbox_device_info`
    SET `changetime` = datetime('now', 'localtime'), `updatetime` = datetime('now', 'localtime')
    WHERE `id` = NEW.`id`;
END;

DROP TABLE IF EXISTS `sbox_node`;
CREATE TABLE `sbox_node` (
  `id` INTEGER PRIMARY KEY AUTOINCREMENT,
  `nodeip` TEXT NOT NULL DEFAULT '127.0.0.1',
  `node_name` TEXT NOT NULL DEFAULT '',
  `nodeport1` INTEGER NOT NULL DEFAULT 3333,
  `nodeport2` INTEGER NOT NULL DEFAULT 6003,
  `nodeport3` INTEGER NOT NULL DEFAULT 6006,
  `nodeport4` INTEGER NOT NULL DEFAULT 6002,
  `nodeport5` INTEGER NOT NULL DEFAULT 6003,
  `detail` TEXT NOT NULL DEFAULT ''
);

DROP TABLE IF EXISTS `sbox_group`;
CREATE TABLE `sbox_group` (
  `id` INTEGER PRIMARY KEY AUTOINCREMENT,
  `userid` INTEGER NOT NULL DEFAULT 0,
  `group_name` TEXT NOT NULL DEFAULT '',
  `nodeid` INTEGER NOT NULL DEFAULT 1,
  `time` TEXT NOT NULL DEFAULT (datetime('now', 'localtime')),
  `msurl` TEXT NOT NULL DEFAULT ''
);
CREATE INDEX `group_owner` ON `sbox_group` (`userid`);

DROP TABLE IF EXISTS `group_seed`;
CREATE TABLE `group_seed` (
  `id` INTEGER PRIMARY KEY AUTOINCREMENT,
  `gid` INTEGER NOT NULL DEFAULT 0, -- sbox_group.id
  `seed` TEXT NOT NULL DEFAULT '',
  `userid` INTEGER NOT NULL DEFAULT 0,
  `gidseed` TEXT NOT NULL DEFAULT '',
  `devid` INTEGER NOT NULL DEFAULT 0 -- sbox_device_info.id
);
CREATE INDEX `group_seed_group` ON `group_seed` (`gid`, `userid`);
CREATE INDEX `group_seed_owner` ON `group_seed` (`userid`);
CREATE INDEX `group_seed_device` ON `group_seed` (`devid`);

DROP TABLE IF EXISTS `group_group`;
CREATE TABLE `group_group` (
  `gid` INTEGER NOT NULL,    -- sbox_group.id
  `member` INTEGER NOT NULL, -- sbox_group.id of a group within it
  PRIMARY KEY (`gid`, `member`)
) WITHOUT ROWID;
CREATE INDEX `group_group_member` ON `group_group` (`member`);

DROP TABLE IF EXISTS `speaker_disabled`;
CREATE TABLE `speaker_disabled` (`serial` TEXT NOT NULL PRIMARY KEY) WITHOUT ROWID; -- over a restart

DROP TABLE IF EXISTS `sbox_users`;
CREATE TABLE `sbox_users` (
  `id` INTEGER PRIMARY KEY AUTOINCREMENT,
  `user_name` TEXT NOT NULL DEFAULT '',
  `user_pass` TEXT NOT NULL DEFAULT '',
  `master_id` INTEGER NOT NULL DEFAULT 0, -- the account that made this sub-account
  `mask` TEXT NOT NULL DEFAULT '',        -- device ids that a sub-account sees
  `beizhu` TEXT NOT NULL DEFAULT '',
  `token` TEXT NOT NULL DEFAULT '',
  `nickname` TEXT NOT NULL DEFAULT '',
  `user_level` INTEGER NOT NULL DEFAULT 0,
  `ctime` TEXT NOT NULL DEFAULT (datetime('now', 'localtime'))
);
CREATE UNIQUE INDEX `user_name` ON `sbox_users` (`user_name`);
CREATE INDEX `user_master` ON `sbox_users` (`master_id`);

DROP TABLE IF EXISTS `warningplant`;
CREATE TABLE `warningplant` (
  `id` INTEGER PRIMARY KEY AUTOINCREMENT,
  `snids` TEXT,
  `url` TEXT,
  `name` TEXT NOT NULL DEFAULT '',
  `userid` INTEGER NOT NULL DEFAULT 0,
  `status` INTEGER NOT NULL DEFAULT 0
);
CREATE INDEX `warningplant_owner` ON `warningplant` (`userid`);

DROP TABLE IF EXISTS `warregister`;
CREATE TABLE `warregister` (
  `id` INTEGER PRIMARY KEY AUTOINCREMENT,
  `sn` TEXT NOT NULL DEFAULT '',
  `kind` INTEGER NOT NULL DEFAULT 0, -- 0 a fixed file
  `url` TEXT,
  `devname` TEXT NOT NULL DEFAULT '',
  `filename` TEXT NOT NULL DEFAULT '',
  `userid` INTEGER NOT NULL DEFAULT 0,
  `fb` TEXT NOT NULL DEFAULT ''
);
CREATE INDEX `warregister_owner` ON `warregister` (`userid`);
CREATE INDEX `warregister_line` ON `warregister` (`sn`, `fb`);

DROP TABLE IF EXISTS `snover`;
CREATE TABLE `snover` (
  `id` INTEGER PRIMARY KEY AUTOINCREMENT,
  `sn` TEXT NOT NULL DEFAULT '',
  `overtime` TEXT NOT NULL DEFAULT '',  -- end of the service period
  `statu` INTEGER NOT NULL DEFAULT 1,   -- 1 active, 2 expired, 3 renewed
  `iccid` TEXT NOT NULL DEFAULT '',
  `pay` INTEGER NOT NULL DEFAULT 0
);
CREATE INDEX `snover_sn` ON `snover` (`sn`);
CREATE INDEX `snover_period` ON `snover` (`statu`, `overtime`);

DROP TABLE IF EXISTS `fei`;
CREATE TABLE `fei` (
  `id` INTEGER PRIMARY KEY AUTOINCREMENT,
  `userid` INTEGER NOT NULL DEFAULT 0,
  `fei` TEXT NOT NULL DEFAULT '0',
  `info` TEXT NOT NULL DEFAULT ''
);
CREATE INDEX `fei_owner` ON `fei` (`userid`);

DROP TABLE IF EXISTS `swap_info`;
CREATE TABLE `swap_info` (
  `id` INTEGER PRIMARY KEY AUTOINCREMENT,
  `url` TEXT NOT NULL DEFAULT '',
  `title` TEXT NOT NULL DEFAULT '',
  `type` TEXT NOT NULL DEFAULT '',
  `to` TEXT NOT NULL DEFAULT ''
);

DROP TABLE IF EXISTS `xieyi_mod`;
CREATE TABLE `xieyi_mod` (
  `id` INTEGER PRIMARY KEY AUTOINCREMENT,
  `xieyi` TEXT NOT NULL DEFAULT ''
);

DROP TABLE IF EXISTS `rizhi`;
CREATE TABLE `rizhi` (
  `id` INTEGER PRIMARY KEY AUTOINCREMENT,
  `userid` INTEGER NOT NULL DEFAULT 0,
  `info` TEXT NOT NULL DEFAULT '',
  `kind` INTEGER NOT NULL DEFAULT 0,
  `level` INTEGER NOT NULL DEFAULT 0
);
CREATE INDEX `rizhi_owner` ON `rizhi` (`userid`);

-- What was played where, and what was not: docs/journal.md.
DROP TABLE IF EXISTS `broadcast`;
CREATE TABLE `broadcast` (
  `id` INTEGER NOT NULL,
  `node` INTEGER NOT NULL DEFAULT 0,     -- whose speakers this row counts
  `kind` TEXT NOT NULL DEFAULT '',       -- announcement, bell, live, alarm, direct
  `name` TEXT NOT NULL DEFAULT '',
  `priority` INTEGER NOT NULL DEFAULT 0,
  `owner` INTEGER NOT NULL DEFAULT 0,    -- account whose order or schedule it is
  `account` INTEGER NOT NULL DEFAULT 0,  -- from here on what it came from; 0 or empty: not that
  `schedule` INTEGER NOT NULL DEFAULT 0,
  `input` INTEGER NOT NULL DEFAULT 0,
  `line` TEXT NOT NULL DEFAULT '',
  `path` TEXT NOT NULL DEFAULT '',
  `state` TEXT NOT NULL DEFAULT '',      -- waiting, playing, done, stopped, failed
  `reason` TEXT,
  `due` INTEGER NOT NULL DEFAULT 0,      -- times are ms since 1970-01-01 UTC; 0: none
  `started` INTEGER NOT NULL DEFAULT 0,
  `ended` INTEGER NOT NULL DEFAULT 0,
  `targets` INTEGER NOT NULL DEFAULT 0,  -- the sum of the counts that follow
  `n_waiting` INTEGER NOT NULL DEFAULT 0,
  `n_offline` INTEGER NOT NULL DEFAULT 0,
  `n_sent` INTEGER NOT NULL DEFAULT 0,
  `n_started` INTEGER NOT NULL DEFAULT 0,
  `n_completed` INTEGER NOT NULL DEFAULT 0,
  `n_stopped` INTEGER NOT NULL DEFAULT 0,
  `n_overruled` INTEGER NOT NULL DEFAULT 0,
  `n_lost` INTEGER NOT NULL DEFAULT 0,
  `n_silent` INTEGER NOT NULL DEFAULT 0,
  `n_refused` INTEGER NOT NULL DEFAULT 0,
  PRIMARY KEY (`id`, `node`)
) WITHOUT ROWID;
CREATE INDEX `broadcast_state` ON `broadcast` (`state`, `id`);

DROP TABLE IF EXISTS `receipt`;
CREATE TABLE `receipt` (
  `broadcast` INTEGER NOT NULL,
  `serial` TEXT NOT NULL,
  `node` INTEGER NOT NULL DEFAULT 0,
  `state` INTEGER NOT NULL DEFAULT 0,    -- 0 waiting, 1 offline, 2 sent, 3 started, 4 completed, 5 stopped, 6 overruled, 7 lost, 8 silent, 9 refused
  `reason` TEXT,
  `by_broadcast` INTEGER NOT NULL DEFAULT 0,
  `sent` INTEGER NOT NULL DEFAULT 0,
  `started` INTEGER NOT NULL DEFAULT 0,
  `ended` INTEGER NOT NULL DEFAULT 0,
  PRIMARY KEY (`broadcast`, `serial`)
) WITHOUT ROWID;

DROP TABLE IF EXISTS `journal`;
CREATE TABLE `journal` (
  `id` INTEGER NOT NULL PRIMARY KEY,
  `at` INTEGER NOT NULL DEFAULT 0,
  `kind` TEXT NOT NULL DEFAULT '',       -- those of broadcasts, and speaker, service, link
  `state` TEXT NOT NULL DEFAULT '',
  `name` TEXT NOT NULL DEFAULT '',
  `reason` TEXT,
  `due` INTEGER NOT NULL DEFAULT 0,
  `late` INTEGER NOT NULL DEFAULT 0,     -- ms
  `broadcast` INTEGER NOT NULL DEFAULT 0,
  `schedule` INTEGER NOT NULL DEFAULT 0,
  `account` INTEGER NOT NULL DEFAULT 0,  -- whose it is
  `serial` TEXT NOT NULL DEFAULT ''
);
CREATE INDEX `journal_kind` ON `journal` (`kind`, `id`);

DROP TABLE IF EXISTS `apitoken`;
CREATE TABLE `apitoken` (
  `id` INTEGER PRIMARY KEY AUTOINCREMENT,
  `account` INTEGER NOT NULL,         -- sbox_users.id
  `name` TEXT NOT NULL DEFAULT '',    -- of a program; empty: a login's
  `hash` TEXT NOT NULL,               -- SHA-256 of the token, hex
  `created` INTEGER NOT NULL,         -- ms since 1970
  `expires` INTEGER NOT NULL DEFAULT 0 -- the same, 0 never
);
CREATE UNIQUE INDEX `apitoken_hash` ON `apitoken` (`hash`);
CREATE INDEX `apitoken_account` ON `apitoken` (`account`);
CREATE INDEX `apitoken_expires` ON `apitoken` (`expires`);

DROP TABLE IF EXISTS `groupgrant`;
CREATE TABLE `groupgrant` (
  `id` INTEGER PRIMARY KEY AUTOINCREMENT,
  `account` INTEGER NOT NULL, -- sbox_users.id, who is given the right
  `gid` INTEGER NOT NULL,     -- sbox_group.id
  `role` INTEGER NOT NULL     -- 1 viewer, 2 operator
);
CREATE UNIQUE INDEX `groupgrant_once` ON `groupgrant` (`account`, `gid`);
CREATE INDEX `groupgrant_group` ON `groupgrant` (`gid`);

DROP TABLE IF EXISTS `audit`;
CREATE TABLE `audit` (
  `id` INTEGER PRIMARY KEY AUTOINCREMENT,
  `at` INTEGER NOT NULL, -- ms since 1970
  `account` INTEGER NOT NULL DEFAULT 0,
  `address` TEXT NOT NULL DEFAULT '',
  `action` TEXT NOT NULL,
  `object` TEXT NOT NULL DEFAULT '',
  `detail` TEXT NOT NULL DEFAULT ''
);
CREATE INDEX `audit_at` ON `audit` (`at`);
CREATE INDEX `audit_account` ON `audit` (`account`);

DROP TABLE IF EXISTS `idempotency`;
CREATE TABLE `idempotency` (
  `account` INTEGER NOT NULL,
  `name` TEXT NOT NULL,              -- the key that the client chose
  `request` TEXT NOT NULL,           -- SHA-256 of the request, hex
  `status` INTEGER NOT NULL,         -- of its answer, 0 while it is under way
  `location` TEXT NOT NULL DEFAULT '',
  `body` TEXT NOT NULL DEFAULT '',
  `at` INTEGER NOT NULL,             -- ms since 1970
  PRIMARY KEY (`account`, `name`)
);
CREATE INDEX `idempotency_at` ON `idempotency` (`at`);

DROP TABLE IF EXISTS `taskrule`;
-- What a schedule has beyond its task's row. A task without a row here is as tasks always were.
CREATE TABLE `taskrule` (
  `taskid` INTEGER PRIMARY KEY, -- task.id
  `calendarid` INTEGER, -- calendar.id; NULL: every day is an ordinary one
  `missed` INTEGER, -- seconds that a late bell may ring after its time, 0 not at all; NULL 60
  `localdates` INTEGER NOT NULL DEFAULT 0, -- 1: startdate and enddate are local dates, 0: days in UTC
  `everyone` INTEGER NOT NULL DEFAULT 0, -- 1: every speaker that the owner may play to
  `whole` INTEGER NOT NULL DEFAULT 0, -- 1: len is what its sounds take
  `volume` INTEGER, -- 1 to 25, NULL as it is
  `priority` INTEGER -- 0 to 255, NULL 100
);
CREATE INDEX `taskrule_calendar` ON `taskrule` (`calendarid`);

DROP TABLE IF EXISTS `taskaim`;
-- Groups that a schedule rings in, beside the speakers in taskseed.
CREATE TABLE `taskaim` (
  `id` INTEGER PRIMARY KEY AUTOINCREMENT,
  `taskid` INTEGER NOT NULL DEFAULT 0, -- task.id
  `gid` INTEGER NOT NULL DEFAULT 0 -- sbox_group.id
);
CREATE INDEX `taskaim_list` ON `taskaim` (`taskid`, `id`);
CREATE INDEX `taskaim_group` ON `taskaim` (`gid`);

DROP TABLE IF EXISTS `planrule`;
-- What a plan has beyond its row in taskgroup.
CREATE TABLE `planrule` (
  `planid` INTEGER PRIMARY KEY, -- taskgroup.id
  `exceptional` INTEGER NOT NULL DEFAULT 0 -- 1: rings only where a calendar's entry names it
);

DROP TABLE IF EXISTS `calendar`;
CREATE TABLE `calendar` (
  `id` INTEGER PRIMARY KEY AUTOINCREMENT,
  `userid` INTEGER NOT NULL DEFAULT 0, -- owner, sbox_users.id
  `name` TEXT NOT NULL DEFAULT ''
);
CREATE INDEX `calendar_owner` ON `calendar` (`userid`);

DROP TABLE IF EXISTS `calendarentry`;
-- Dates on which a calendar differs from every day.
CREATE TABLE `calendarentry` (
  `id` INTEGER PRIMARY KEY AUTOINCREMENT,
  `calendarid` INTEGER NOT NULL DEFAULT 0, -- calendar.id
  `name` TEXT NOT NULL DEFAULT '',
  `firstday` INTEGER NOT NULL DEFAULT 0, -- days since 1970-01-01, local dates
  `lastday` INTEGER NOT NULL DEFAULT 0, -- included
  `planid` INTEGER, -- taskgroup.id, the only plan that rings; NULL silence
  `uid` TEXT NOT NULL DEFAULT '', -- of the imported event; empty for one that was put in by hand
  `occurrence` INTEGER NOT NULL DEFAULT 0 -- the day by which the event's own calendar names this occurrence
);
CREATE INDEX `calendarentry_days` ON `calendarentry` (`calendarid`, `lastday`, `firstday`);
CREATE INDEX `calendarentry_event` ON `calendarentry` (`calendarid`, `uid`, `occurrence`);
CREATE INDEX `calendarentry_plan` ON `calendarentry` (`planid`);

DROP TABLE IF EXISTS `calendarfile`;
-- The imported file of a calendar, to expand what recurs again each day.
CREATE TABLE `calendarfile` (
  `calendarid` INTEGER PRIMARY KEY, -- calendar.id
  `body` TEXT NOT NULL,
  `expanded` INTEGER NOT NULL DEFAULT 0 -- the day on which that was done last
);

DROP TABLE IF EXISTS `taskrun`;
-- Bells that have rung: none of them rings again.
CREATE TABLE `taskrun` (
  `taskid` INTEGER NOT NULL, -- task.id
  `due` INTEGER NOT NULL, -- seconds since 1970-01-01 UTC
  `late` INTEGER NOT NULL DEFAULT 0, -- s
  PRIMARY KEY (`taskid`, `due`)
);
CREATE INDEX `taskrun_due` ON `taskrun` (`due`);
-- The last bell of a schedule.
CREATE INDEX `journal_schedule` ON `journal` (`schedule`, `due`);

DROP TABLE IF EXISTS `taskclock`;
-- The last second that the task queue handled.
CREATE TABLE `taskclock` (
  `id` INTEGER PRIMARY KEY,
  `handled` INTEGER NOT NULL DEFAULT 0 -- seconds since 1970-01-01 UTC
);

-- Volumes to go back to when no order asks for another one any more; what announcements were asked to be:
-- docs/broadcasts.md.
-- `at`: ms since 1970-01-01 UTC; `body`: the request as JSON.
DROP TABLE IF EXISTS `speaker_level`;
CREATE TABLE `speaker_level` (
  `sn` TEXT NOT NULL PRIMARY KEY,
  `level` INTEGER NOT NULL DEFAULT 0
) WITHOUT ROWID;
DROP TABLE IF EXISTS `announcement`;
CREATE TABLE `announcement` (
  `id` INTEGER NOT NULL PRIMARY KEY,
  `account` INTEGER NOT NULL DEFAULT 0,
  `at` INTEGER NOT NULL DEFAULT 0,
  `body` TEXT NOT NULL
);
CREATE INDEX `announcement_at` ON `announcement` (`at`);

INSERT INTO `sbox_node` (`id`, `node_name`) VALUES (1, 'node1');
INSERT INTO `swap_info` (`type`) VALUES ('info');
INSERT INTO `xieyi_mod` (`id`, `xieyi`) VALUES (1, '');
INSERT INTO `taskclock` (`id`) VALUES (1);

-- The version of what stands above: the number of the newest step in migrations/.
DROP TABLE IF EXISTS `schema_version`;
CREATE TABLE `schema_version` (`version` INTEGER NOT NULL);
INSERT INTO `schema_version` (`version`) VALUES (7);
