-- Calendars, what schedules have beyond their tasks' rows, and which bells have rung.
-- What a schedule has beyond its task's row. A task without a row here is as tasks always were.
CREATE TABLE IF NOT EXISTS `taskrule` (
  `taskid` INT NOT NULL PRIMARY KEY, -- task.id
  `calendarid` INT, -- calendar.id; NULL: every day is an ordinary one
  `missed` INT, -- seconds that a late bell may ring after its time, 0 not at all; NULL 60
  `localdates` INT NOT NULL DEFAULT 0, -- 1: startdate and enddate are local dates, 0: days in UTC
  `everyone` INT NOT NULL DEFAULT 0, -- 1: every speaker that the owner may play to
  `whole` INT NOT NULL DEFAULT 0, -- 1: len is what its sounds take
  `volume` INT, -- 1 to 25, NULL as it is
  `priority` INT -- 0 to 255, NULL 100
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4 COLLATE=utf8mb4_bin;
CREATE INDEX IF NOT EXISTS `taskrule_calendar` ON `taskrule` (`calendarid`);
-- Groups that a schedule rings in, beside the speakers in taskseed.
CREATE TABLE IF NOT EXISTS `taskaim` (
  `id` INT NOT NULL AUTO_INCREMENT PRIMARY KEY,
  `taskid` INT NOT NULL DEFAULT 0, -- task.id
  `gid` INT NOT NULL DEFAULT 0 -- sbox_group.id
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4 COLLATE=utf8mb4_bin;
CREATE INDEX IF NOT EXISTS `taskaim_list` ON `taskaim` (`taskid`, `id`);
CREATE INDEX IF NOT EXISTS `taskaim_group` ON `taskaim` (`gid`);
-- What a plan has beyond its row in taskgroup.
CREATE TABLE IF NOT EXISTS `planrule` (
  `planid` INT NOT NULL PRIMARY KEY, -- taskgroup.id
  `exceptional` INT NOT NULL DEFAULT 0 -- 1: rings only where a calendar's entry names it
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4 COLLATE=utf8mb4_bin;
CREATE TABLE IF NOT EXISTS `calendar` (
  `id` INT NOT NULL AUTO_INCREMENT PRIMARY KEY,
  `userid` INT NOT NULL DEFAULT 0, -- owner, sbox_users.id
  `name` VARCHAR(255) NOT NULL DEFAULT ''
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4 COLLATE=utf8mb4_bin;
CREATE INDEX IF NOT EXISTS `calendar_owner` ON `calendar` (`userid`);
-- Dates on which a calendar differs from every day.
CREATE TABLE IF NOT EXISTS `calendarentry` (
  `id` INT NOT NULL AUTO_INCREMENT PRIMARY KEY,
  `calendarid` INT NOT NULL DEFAULT 0, -- calendar.id
  `name` VARCHAR(255) NOT NULL DEFAULT '',
  `firstday` INT NOT NULL DEFAULT 0, -- days since 1970-01-01, local dates
  `lastday` INT NOT NULL DEFAULT 0, -- included
  `planid` INT, -- taskgroup.id, the only plan that rings; NULL silence
  `uid` VARCHAR(255) NOT NULL DEFAULT '', -- of the imported event; empty for one that was put in by hand
  `occurrence` INT NOT NULL DEFAULT 0 -- the day by which the event's own calendar names this occurrence
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4 COLLATE=utf8mb4_bin;
CREATE INDEX IF NOT EXISTS `calendarentry_days` ON `calendarentry` (`calendarid`, `lastday`, `firstday`);
CREATE INDEX IF NOT EXISTS `calendarentry_event` ON `calendarentry` (`calendarid`, `uid`, `occurrence`);
CREATE INDEX IF NOT EXISTS `calendarentry_plan` ON `calendarentry` (`planid`);
-- The imported file of a calendar, to expand what recurs again each day.
CREATE TABLE IF NOT EXISTS `calendarfile` (
  `calendarid` INT NOT NULL PRIMARY KEY, -- calendar.id
  `body` LONGTEXT NOT NULL,
  `expanded` INT NOT NULL DEFAULT 0 -- the day on which that was done last
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4 COLLATE=utf8mb4_bin;
-- Bells that have rung: none of them rings again.
CREATE TABLE IF NOT EXISTS `taskrun` (
  `taskid` INT NOT NULL, -- task.id
  `due` BIGINT NOT NULL, -- seconds since 1970-01-01 UTC
  `late` INT NOT NULL DEFAULT 0, -- s
  PRIMARY KEY (`taskid`, `due`)
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4 COLLATE=utf8mb4_bin;
CREATE INDEX IF NOT EXISTS `taskrun_due` ON `taskrun` (`due`);
-- The last bell of a schedule.
CREATE INDEX IF NOT EXISTS `journal_schedule` ON `journal` (`schedule`, `due`);
-- The last second that the task queue handled.
CREATE TABLE IF NOT EXISTS `taskclock` (
  `id` INT NOT NULL PRIMARY KEY,
  `handled` BIGINT NOT NULL DEFAULT 0 -- seconds since 1970-01-01 UTC
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4 COLLATE=utf8mb4_bin;
INSERT INTO `taskclock` (`id`, `handled`) SELECT 1, 0 FROM (SELECT 1) AS `one`
  WHERE NOT EXISTS (SELECT 1 FROM `taskclock`);
