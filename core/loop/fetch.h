#pragma once

#include <cstddef>

/// Asks the processor to bring the head of an object, two cache lines of it, into the cache; goes on at
/// once. Null and any other address will do. For walks over objects of a whole fleet, each of which
/// would otherwise wait for memory.
inline void fetchObject(const void* object) {
    constexpr int CacheLine = 64;
    __builtin_prefetch(object);
    __builtin_prefetch(static_cast<const char*>(object) + CacheLine);
}

/// For a walk over a whole fleet, whose objects are never in the cache: to be called before `members[index]`
/// is served, so that what the next ones need arrives meanwhile. Each step is called with a member that is
/// nearer than the one before was called with, which has had time to bring what it looks into.
template<typename Members, typename... Steps>
void fetchAhead(const Members& members, std::size_t index, Steps... steps) {
    constexpr std::size_t Distance = 3;
    std::size_t at = index + sizeof...(Steps) * Distance;
    ((at < members.size() ? steps(members[at]) : void(), at -= Distance), ...);
}
