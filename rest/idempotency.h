#pragma once

#include "rest/restanswer.h"

class RestCall;

/// Runs a POST that carries an Idempotency-Key once: the same key of the same account gets the first answer
/// again for 24 hours, by whichever node; with another request 409, and so while the first is under way.
/// Answers that tell to come again (429, 5xx) are not kept. A key is 1 to 100 printable characters.
RestAnswer onceFor(const QByteArray& key, RestCall& call, RestAnswer (*run)(RestCall& call));
