-- Calendars, what schedules have beyond their tasks' rows, and which bells have rung.
-- What a schedule has beyond its task's row. A task without a row here is as tasks always were.
CREATE TABLE IF NOT EXISTS `taskrule` (
  `taskid` INTEGER PRIMARY KEY, -- task.id
  `calendarid` INTEGER, -- calendar.id; NULL: every day is an ordinary one
  `missed` INTEGER, -- seconds that a late bell may ring after its time, 0 not at all; NULL 60
  `localdates` INTEGER NOT NULL DEFAULT 0, -- 1: startdate and enddate are local dates, 0: days in UTC
  `everyone` INTEGER NOT NULL DEFAULT 0, -- 1: every speaker that the owner may play to
  `whole` INTEGER NOT NULL DEFAULT 0, -- 1: len is what its sounds take
  `volume` INTEGER, -- 1 to 25, NULL as it is
  `priority` INTEGER -- 0 to 255, NULL 100
);
CREATE INDEX IF NOT EXISTS `taskrule_calendar` ON `taskrule` (`calendarid`);
-- Groups that a schedule rings in, beside the speakers in taskseed.
CREATE TABLE IF NOT EXISTS `taskaim` (
  `id` INTEGER PRIMARY KEY AUTOINCREMENT,
  `taskid` INTEGER NOT NULL DEFAULT 0, -- task.id
  `gid` INTEGER NOT NULL DEFAULT 0 -- sbox_group.id
);
CREATE INDEX IF NOT EXISTS `taskaim_list` ON `taskaim` (`taskid`, `id`);
CREATE INDEX IF NOT EXISTS `taskaim_group` ON `taskaim` (`gid`);
-- What a plan has beyond its row in taskgroup.
CREATE TABLE IF NOT EXISTS `planrule` (
  `planid` INTEGER PRIMARY KEY, -- taskgroup.id
  `exceptional` INTEGER NOT NULL DEFAULT 0 -- 1: rings only where a calendar's entry names it
);
CREATE TABLE IF NOT EXISTS `calendar` (
  `id` INTEGER PRIMARY KEY AUTOINCREMENT,
  `userid` INTEGER NOT NULL DEFAULT 0, -- owner, sbox_users.id
  `name` TEXT NOT NULL DEFAULT ''
);
CREATE INDEX IF NOT EXISTS `calendar_owner` ON `calendar` (`userid`);
-- Dates on which a calendar differs from every day.
CREATE TABLE IF NOT EXISTS `calendarentry` (
  `id` INTEGER PRIMARY KEY AUTOINCREMENT,
  `calendarid` INTEGER NOT NULL DEFAULT 0, -- calendar.id
  `name` TEXT NOT NULL DEFAULT '',
  `firstday` INTEGER NOT NULL DEFAULT 0, -- days since 1970-01-01, local dates
  `lastday` INTEGER NOT NULL DEFAULT 0, -- included
  `planid` INTEGER, -- taskgroup.id, the only plan that rings; NULL silence
  `uid` TEXT NOT NULL DEFAULT '', -- of the imported event; empty for one that was put in by hand
  `occurrence` INTEGER NOT NULL DEFAULT 0 -- the day by which the event's own calendar names this occurrence
);
CREATE INDEX IF NOT EXISTS `calendarentry_days` ON `calendarentry` (`calendarid`, `lastday`, `firstday`);
CREATE INDEX IF NOT EXISTS `calendarentry_event` ON `calendarentry` (`calendarid`, `uid`, `occurrence`);
CREATE INDEX IF NOT EXISTS `calendarentry_plan` ON `calendarentry` (`planid`);
-- The imported file of a calendar, to expand what recurs again each day.
CREATE TABLE IF NOT EXISTS `calendarfile` (
  `calendarid` INTEGER PRIMARY KEY, -- calendar.id
  `body` TEXT NOT NULL,
  `expanded` INTEGER NOT NULL DEFAULT 0 -- the day on which that was done last
);
-- Bells that have rung: none of them rings again.
CREATE TABLE IF NOT EXISTS `taskrun` (
  `taskid` INTEGER NOT NULL, -- task.id
  `due` INTEGER NOT NULL, -- seconds since 1970-01-01 UTC
  `late` INTEGER NOT NULL DEFAULT 0, -- s
  PRIMARY KEY (`taskid`, `due`)
);
CREATE INDEX IF NOT EXISTS `taskrun_due` ON `taskrun` (`due`);
-- The last bell of a schedule.
CREATE INDEX IF NOT EXISTS `journal_schedule` ON `journal` (`schedule`, `due`);
-- The last second that the task queue handled.
CREATE TABLE IF NOT EXISTS `taskclock` (
  `id` INTEGER PRIMARY KEY,
  `handled` INTEGER NOT NULL DEFAULT 0 -- seconds since 1970-01-01 UTC
);
INSERT INTO `taskclock` (`id`, `handled`) SELECT 1, 0 FROM (SELECT 1) AS `one`
  WHERE NOT EXISTS (SELECT 1 FROM `taskclock`);
