-- What was played where, and what was not: docs/journal.md.
CREATE TABLE IF NOT EXISTS `broadcast` (
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
CREATE INDEX IF NOT EXISTS `broadcast_state` ON `broadcast` (`state`, `id`);

CREATE TABLE IF NOT EXISTS `receipt` (
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

CREATE TABLE IF NOT EXISTS `journal` (
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
CREATE INDEX IF NOT EXISTS `journal_kind` ON `journal` (`kind`, `id`);
