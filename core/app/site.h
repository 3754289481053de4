#pragma once

#include "core/settings.h"
#include "core/sql/sqlite.h"

/// The site settings of the database object, defaults that depend on other keys worked out.
sqlite::Site siteOf(const Settings& settings);
