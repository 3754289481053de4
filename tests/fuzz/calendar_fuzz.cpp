// Calendar files from anywhere.
#include "ics/calendarfile.h"

#include <cstdint>
#include <cstdlib>

namespace {
constexpr qint64 LastDay = 22600;
constexpr int Berlin = 3600;
} // namespace

/// What was read lies within the limits, and can be written and read again.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const QByteArray text(reinterpret_cast<const char*>(data), static_cast<int>(size));
    const auto offset = [](qint64) {
        return Berlin;
    };
    const CalendarFile file = readCalendarFile(text, offset, LastDay);
    size_t occurrences = 0;
    std::vector<WrittenEvent> events;
    for (const FileEvent& event : file.events) {
        occurrences += event.occurrences.size();
        for (const FileOccurrence& one : event.occurrences) {
            if (one.first < 1 || one.last < one.first)
                std::abort();
        }
        events.push_back({event.uid, event.occurrences.front().name, event.occurrences.front().first,
                          event.occurrences.front().last});
    }
    if (occurrences > 20000 || (!file.refusal.isEmpty() && !file.events.empty()))
        std::abort();
    if (!events.empty() &&
        readCalendarFile(writeCalendarFile({}, events, 0), offset, LastDay).events.size() != events.size())
        std::abort();
    return 0;
}
