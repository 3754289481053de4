-- Tokens, rights and the audit log of the interface v1.
CREATE TABLE IF NOT EXISTS `apitoken` (
  `id` INTEGER PRIMARY KEY AUTOINCREMENT,
  `account` INTEGER NOT NULL,         -- sbox_users.id
  `name` TEXT NOT NULL DEFAULT '',    -- of a program; empty: a login's
  `hash` TEXT NOT NULL,               -- SHA-256 of the token, hex
  `created` INTEGER NOT NULL,         -- ms since 1970
  `expires` INTEGER NOT NULL DEFAULT 0 -- the same, 0 never
);
CREATE UNIQUE INDEX IF NOT EXISTS `apitoken_hash` ON `apitoken` (`hash`);
CREATE INDEX IF NOT EXISTS `apitoken_account` ON `apitoken` (`account`);
CREATE INDEX IF NOT EXISTS `apitoken_expires` ON `apitoken` (`expires`);

CREATE TABLE IF NOT EXISTS `groupgrant` (
  `id` INTEGER PRIMARY KEY AUTOINCREMENT,
  `account` INTEGER NOT NULL, -- sbox_users.id, who is given the right
  `gid` INTEGER NOT NULL,     -- sbox_group.id
  `role` INTEGER NOT NULL     -- 1 viewer, 2 operator
);
CREATE UNIQUE INDEX IF NOT EXISTS `groupgrant_once` ON `groupgrant` (`account`, `gid`);
CREATE INDEX IF NOT EXISTS `groupgrant_group` ON `groupgrant` (`gid`);

CREATE TABLE IF NOT EXISTS `audit` (
  `id` INTEGER PRIMARY KEY AUTOINCREMENT,
  `at` INTEGER NOT NULL, -- ms since 1970
  `account` INTEGER NOT NULL DEFAULT 0,
  `address` TEXT NOT NULL DEFAULT '',
  `action` TEXT NOT NULL,
  `object` TEXT NOT NULL DEFAULT '',
  `detail` TEXT NOT NULL DEFAULT ''
);
CREATE INDEX IF NOT EXISTS `audit_at` ON `audit` (`at`);
CREATE INDEX IF NOT EXISTS `audit_account` ON `audit` (`account`);

CREATE TABLE IF NOT EXISTS `idempotency` (
  `account` INTEGER NOT NULL,
  `name` TEXT NOT NULL,              -- the key that the client chose
  `request` TEXT NOT NULL,           -- SHA-256 of the request, hex
  `status` INTEGER NOT NULL,         -- of its answer, 0 while it is under way
  `location` TEXT NOT NULL DEFAULT '',
  `body` TEXT NOT NULL DEFAULT '',
  `at` INTEGER NOT NULL,             -- ms since 1970
  PRIMARY KEY (`account`, `name`)
);
CREATE INDEX IF NOT EXISTS `idempotency_at` ON `idempotency` (`at`);
