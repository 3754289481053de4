#pragma once

#include "rest/restanswer.h"
#include "service/accounts.h"

class RestCall;

constexpr int LongestName = 200;
constexpr int ShortestPassword = 8;
constexpr int LongestPassword = 200;

/// {"id", "username", "name", "role", "master"}.
QJsonObject callerJson(const Caller& caller);
/// The same with "created".
QJsonObject accountJson(const AccountInfo& account);
RestAnswer refusalFor(Outcome outcome);
Accounts accountsOf(const RestCall& call);
