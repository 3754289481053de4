#pragma once

#include "http/joblanes.h"

// Limits that jobs which start a program share, whichever interface they come by.

/// Encodings and speech: two of an account at once, and as many in all as there are processors.
JobLanes encodingLanes(int account);
/// Programs of the query sets: two at once.
JobLanes queryLanes();
