#pragma once

#include "service/targets.h"

#include <QJsonObject>

class Fields;
class RestCall;

/// The member "targets" of a body: {"speakers", "groups"} or {"all": true}. What is wrong with it, members
/// that the caller may not play to included, is noted; nullopt also when the database does not answer, which
/// then is noted in `isAway`.
std::optional<Targets> readTargets(RestCall& call, const Fields& body, bool& isAway);
/// As clients get them.
QJsonObject targetsObject(const Targets& targets);
