-- What was played where, and what was not: docs/journal.md.
CREATE TABLE IF NOT EXISTS `broadcast` (
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
CREATE INDEX IF NOT EXISTS `broadcast_state` ON `broadcast` (`state`, `id`);

CREATE TABLE IF NOT EXISTS `receipt` (
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

CREATE TABLE IF NOT EXISTS `journal` (
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
CREATE INDEX IF NOT EXISTS `journal_kind` ON `journal` (`kind`, `id`);
