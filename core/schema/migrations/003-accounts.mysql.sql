-- Tokens, rights and the audit log of the interface v1; names of accounts of 200 characters.
CREATE TABLE IF NOT EXISTS `apitoken` (
  `id` BIGINT NOT NULL AUTO_INCREMENT PRIMARY KEY,
  `account` INT NOT NULL,         -- sbox_users.id
  `name` VARCHAR(255) NOT NULL DEFAULT '',    -- of a program; empty: a login's
  `hash` CHAR(64) NOT NULL,               -- SHA-256 of the token, hex
  `created` BIGINT NOT NULL,         -- ms since 1970
  `expires` BIGINT NOT NULL DEFAULT 0 -- the same, 0 never
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4 COLLATE=utf8mb4_bin;
CREATE UNIQUE INDEX IF NOT EXISTS `apitoken_hash` ON `apitoken` (`hash`);
CREATE INDEX IF NOT EXISTS `apitoken_account` ON `apitoken` (`account`);
CREATE INDEX IF NOT EXISTS `apitoken_expires` ON `apitoken` (`expires`);

CREATE TABLE IF NOT EXISTS `groupgrant` (
  `id` BIGINT NOT NULL AUTO_INCREMENT PRIMARY KEY,
  `account` INT NOT NULL, -- sbox_users.id, who is given the right
  `gid` INT NOT NULL,     -- sbox_group.id
  `role` INT NOT NULL     -- 1 viewer, 2 operator
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4 COLLATE=utf8mb4_bin;
CREATE UNIQUE INDEX IF NOT EXISTS `groupgrant_once` ON `groupgrant` (`account`, `gid`);
CREATE INDEX IF NOT EXISTS `groupgrant_group` ON `groupgrant` (`gid`);

CREATE TABLE IF NOT EXISTS `audit` (
  `id` BIGINT NOT NULL AUTO_INCREMENT PRIMARY KEY,
  `at` BIGINT NOT NULL, -- ms since 1970
  `account` INT NOT NULL DEFAULT 0,
  `address` VARCHAR(64) NOT NULL DEFAULT '',
  `action` VARCHAR(255) NOT NULL,
  `object` VARCHAR(255) NOT NULL DEFAULT '',
  `detail` VARCHAR(255) NOT NULL DEFAULT ''
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4 COLLATE=utf8mb4_bin;
CREATE INDEX IF NOT EXISTS `audit_at` ON `audit` (`at`);
CREATE INDEX IF NOT EXISTS `audit_account` ON `audit` (`account`);

CREATE TABLE IF NOT EXISTS `idempotency` (
  `account` INT NOT NULL,
  `name` VARCHAR(100) NOT NULL,              -- the key that the client chose
  `request` CHAR(64) NOT NULL,           -- SHA-256 of the request, hex
  `status` INT NOT NULL,         -- of its answer, 0 while it is under way
  `location` VARCHAR(255) NOT NULL DEFAULT '',
  `body` MEDIUMTEXT,
  `at` BIGINT NOT NULL,             -- ms since 1970
  PRIMARY KEY (`account`, `name`)
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4 COLLATE=utf8mb4_bin;
CREATE INDEX IF NOT EXISTS `idempotency_at` ON `idempotency` (`at`);

ALTER TABLE `sbox_users` MODIFY `user_name` VARCHAR(200) NOT NULL DEFAULT '';
