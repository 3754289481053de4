#pragma once

struct Page;
struct Reachable;
struct RestAnswer;
class RestCall;
struct SpeakerQuery;

/// One page of the speakers of a query that the caller sees, as clients get them.
RestAnswer speakerPage(const RestCall& call, const Page& page, const Reachable& seen, SpeakerQuery query);
