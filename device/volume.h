#pragma once

/// Devices express volume as a code, louder codes being smaller; the service uses levels 1 to 25.

/// Code of a level; 31 for a level outside 1 to 25.
unsigned char volumeCode(unsigned char level);
/// Level of a code; 18 for a code that no level has.
unsigned char volumeLevel(unsigned char code);
