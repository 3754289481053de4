-- Lists of a task in the order in which they were put together; before, in the order of their members' ids.
CREATE INDEX IF NOT EXISTS `taskfile_list` ON `taskfile` (`taskid`, `id`);
CREATE INDEX IF NOT EXISTS `taskseed_list` ON `taskseed` (`taskid`, `id`);
DROP INDEX IF EXISTS `taskfile_task` ON `taskfile`;
DROP INDEX IF EXISTS `taskseed_task` ON `taskseed`;
