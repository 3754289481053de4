#include "ics/calendarfile.h"

#include "ics/civil.h"
#include "ics/contentlines.h"
#include "ics/recurrence.h"
#include "ics/zones.h"

#include <algorithm>
#include <libical/ical.h>
#include <map>
#include <mutex>
#include <optional>
#include <QDeadlineTimer>
#include <QHash>
#include <QSet>
#include <set>

namespace {

constexpr qint64 Day = 86400;
constexpr int MaxLine = 64 * 1024; ///< of a list of dates; longer ones are no line that is read
constexpr int MaxName = 200;
constexpr int MaxUid = 200;
constexpr qint64 LongestEvent = 3660; ///< days
constexpr int MaxZoneRule = 128;      ///< characters

/// The library keeps state that threads share.
std::mutex libraryLock;

struct ComponentFree {
    void operator()(icalcomponent* component) const { icalcomponent_free(component); }
};
using Component = std::unique_ptr<icalcomponent, ComponentFree>;

qint64 dayOfLocal(qint64 local) {
    return (local >= 0 ? local : local - Day + 1) / Day;
}

qint64 localOf(const icaltimetype& time) {
    const qint64 day = dayOf(time.year, time.month, time.day) * Day;
    return time.is_date ? day : day + (time.hour * 60 + time.minute) * 60 + time.second;
}

bool isTime(const icaltimetype& time) {
    return time.year >= 1600 && time.year <= 9000 && time.month >= 1 && time.month <= 12 && time.day >= 1 &&
           time.day <= daysInMonth(time.year, time.month) && time.hour >= 0 && time.hour < 24 &&
           time.minute >= 0 && time.minute < 60 && time.second >= 0 && time.second <= 60;
}

// --- from the text to components: nothing but the lines that say when ---

bool isRead(const QByteArray& name) {
    static const QSet<QByteArray> names{"BEGIN",  "END",           "UID",   "SUMMARY",      "DTSTART",
                                        "DTEND",  "DURATION",      "RRULE", "RDATE",        "EXDATE",
                                        "STATUS", "RECURRENCE-ID", "TZID",  "TZOFFSETFROM", "TZNAME",
                                        "METHOD", "TZOFFSETTO"};
    return names.contains(name);
}

/// A zone's own rule is a yearly one; any other would be expanded without end.
bool isZoneRule(const QByteArray& line) {
    return line.size() <= MaxZoneRule && line.contains("FREQ=YEARLY") && !line.contains("BYHOUR") &&
           !line.contains("BYMINUTE") && !line.contains("BYSECOND");
}

/// A VEVENT or VTIMEZONE of the file.
struct Part {
    Component component;
    bool isCancelled = false; ///< by the calendar that it stands in
};

struct Parsed {
    std::vector<Part> zones;
    std::vector<Part> events;
    bool isCalendar = false;
    bool isLate = false;
};

/// Cuts the file into parts that are well nested, each of which the library gets alone: what it makes of
/// broken nesting is not to be relied on.
class Cutter {
public:
    explicit Cutter(Parsed& parsed)
        : m_parsed(parsed) {}

    void take(const QByteArray& name, const QByteArray& line) {
        const QByteArray value = line.mid(line.indexOf(':') + 1).trimmed().toUpper();
        if (name == "BEGIN")
            begin(value, line);
        else if (name == "END")
            end(value, line);
        else if (name == "METHOD")
            m_isCancelled = value == "CANCEL";
        else if (!m_kind.isEmpty() && isKept() && (m_inner.isEmpty() || name != "RRULE" || isZoneRule(line)))
            append(line);
    }

private:
    bool isKept() const {
        return m_inner.isEmpty() ||
               (m_kind == "VTIMEZONE" && (m_inner == "STANDARD" || m_inner == "DAYLIGHT"));
    }
    void append(const QByteArray& line) { m_text += line + '\n'; }

    void begin(const QByteArray& what, const QByteArray& line) {
        if (what == "VCALENDAR") {
            m_parsed.isCalendar = true;
            m_isCancelled = false;
            m_kind.clear();
        } else if (m_kind.isEmpty()) {
            m_kind = what == "VEVENT" || what == "VTIMEZONE" ? what : QByteArray();
            m_inner.clear();
            m_text.clear();
            append(line);
        } else if (m_inner.isEmpty()) {
            m_inner = what;
            if (isKept())
                append(line);
        } else {
            m_kind.clear();
        }
    }

    void end(const QByteArray& what, const QByteArray& line) {
        if (m_kind.isEmpty())
            return;
        if (!m_inner.isEmpty()) {
            if (m_inner == what && isKept())
                append(line);
            m_kind = m_inner == what ? m_kind : QByteArray();
            m_inner.clear();
            return;
        }
        append(line);
        Component whole(m_kind == what ? icalcomponent_new_from_string(m_text.constData()) : nullptr);
        const icalcomponent_kind kind = whole ? icalcomponent_isa(whole.get()) : ICAL_NO_COMPONENT;
        if (kind == ICAL_VEVENT_COMPONENT)
            m_parsed.events.push_back({std::move(whole), m_isCancelled});
        else if (kind == ICAL_VTIMEZONE_COMPONENT)
            m_parsed.zones.push_back({std::move(whole), false});
        m_kind.clear();
    }

    Parsed& m_parsed;
    QByteArray m_kind;  ///< of the part that is being gathered; empty: none
    QByteArray m_inner; ///< of the component within it
    QByteArray m_text;
    bool m_isCancelled = false;
};

Parsed parse(const QByteArray& text, const QDeadlineTimer& deadline) {
    Parsed parsed;
    Cutter cutter(parsed);
    forEachContentLine(text, [&](const QByteArray& line) {
        parsed.isLate = deadline.hasExpired();
        const QByteArray name = nameOf(line);
        if (!parsed.isLate && isRead(name) && line.size() <= MaxLine && !line.contains('\0'))
            cutter.take(name, line);
        return !parsed.isLate;
    });
    return parsed;
}

icalproperty* propertyOf(icalcomponent* component, icalproperty_kind kind) {
    return icalcomponent_get_first_property(component, kind);
}

QString textOf(icalcomponent* component, icalproperty_kind kind, int length) {
    icalproperty* property = propertyOf(component, kind);
    icalvalue* value = property ? icalproperty_get_value(property) : nullptr;
    const char* text = nullptr;
    if (value && icalvalue_isa(value) == ICAL_TEXT_VALUE)
        text = icalvalue_get_text(value);
    QString read = QString::fromUtf8(text);
    for (QChar& c : read) {
        if (c.category() == QChar::Other_Control)
            c = QLatin1Char(' ');
    }
    return read.simplified().left(length);
}

/// The name of a property that says when, and that the library could not read; null when there is none.
const char* brokenProperty(icalcomponent* component) {
    for (icalproperty* error = propertyOf(component, ICAL_XLICERROR_PROPERTY); error;
         error = icalcomponent_get_next_property(component, ICAL_XLICERROR_PROPERTY)) {
        const char* text = icalproperty_get_xlicerror(error);
        for (const char* name :
             {"DTSTART", "DTEND", "DURATION", "RRULE", "RDATE", "EXDATE", "RECURRENCE-ID"}) {
            if (text && QByteArray(text).contains(name + QByteArray(" property")))
                return name;
        }
    }
    return nullptr;
}

// --- times ---

/// A time as a property has it.
struct FileTime {
    qint64 local = 0; ///< s by its own zone's clock
    bool isDate = false;
    FileZone* zone = nullptr; ///< null: the service's own
};

class Reader {
public:
    Reader(const std::function<int(qint64)>& offset, qint64 lastDay, const FileLimits& limits)
        : m_offset(offset)
        , m_lastDay(lastDay)
        , m_limits(limits)
        , m_deadline(limits.time) {}

    CalendarFile read(const QByteArray& text);

private:
    struct Event {
        QString uid;
        icalcomponent* master = nullptr;
        std::vector<icalcomponent*> overrides;
        bool isCancelled = false;
    };
    /// An event's times.
    struct Span {
        FileTime start;
        qint64 length = 0; ///< s by the local clock
    };

    void collect(const Parsed& parsed);
    void expand(const Event& event);
    std::optional<FileTime> timeOf(icalproperty* property, const icaltimetype& time, QString& why);
    std::optional<Span> spanOf(icalcomponent* component, QString& why);
    std::optional<std::vector<qint64>> startsOf(icalcomponent* component, const Span& span, QString& why);
    bool addRules(icalcomponent* component, const Span& span, std::set<qint64>& starts, QString& why);
    void addDates(icalcomponent* component, const Span& span, std::set<qint64>& starts);
    void removeDates(icalcomponent* component, const Span& span, std::set<qint64>& starts);
    void addOccurrence(FileEvent& event, icalcomponent* component, const Span& span, qint64 start,
                       qint64 identity);
    void ignore(const QString& uid, const QString& why) { m_file.ignored.push_back({uid, why}); }
    bool isOver();

    qint64 epochOf(const FileTime& time) const;
    qint64 serviceLocal(qint64 epoch) const { return epoch + m_offset(epoch); }
    /// The time as another one's zone and kind have it.
    qint64 inTermsOf(const FileTime& time, const FileTime& other) const;

    const std::function<int(qint64)>& m_offset;
    const qint64 m_lastDay;
    const FileLimits m_limits;
    const QDeadlineTimer m_deadline;
    FileZones m_zones;
    std::vector<Event> m_events;
    CalendarFile m_file;
    int m_occurrences = 0;
};

qint64 Reader::epochOf(const FileTime& time) const {
    if (time.zone)
        return time.zone->epochOf(time.local);
    const int before = m_offset(time.local - Day);
    const int after = m_offset(time.local + Day);
    for (const int offset : {before, after}) {
        if (m_offset(time.local - offset) == offset)
            return time.local - offset;
    }
    return time.local - before;
}

qint64 Reader::inTermsOf(const FileTime& time, const FileTime& other) const {
    if (time.isDate || other.isDate)
        return time.isDate ? time.local : dayOfLocal(time.local) * Day;
    if (time.zone == other.zone)
        return time.local;
    const qint64 epoch = epochOf(time);
    return other.zone ? other.zone->localOf(epoch) : serviceLocal(epoch);
}

std::optional<FileTime> Reader::timeOf(icalproperty* property, const icaltimetype& time, QString& why) {
    if (!isTime(time)) {
        why = QStringLiteral("a time of it can't be read");
        return std::nullopt;
    }
    FileTime read{localOf(time), time.is_date != 0, nullptr};
    if (icaltime_is_utc(time))
        read.zone = m_zones.utc();
    icalparameter* parameter = icalproperty_get_first_parameter(property, ICAL_TZID_PARAMETER);
    if (read.zone || read.isDate || !parameter)
        return read;
    const QByteArray name(icalparameter_get_tzid(parameter));
    read.zone = m_zones.find(name);
    if (!read.zone) {
        why = QStringLiteral("unknown time zone %1").arg(QString::fromUtf8(name).left(MaxName));
        return std::nullopt;
    }
    return read;
}

std::optional<Reader::Span> Reader::spanOf(icalcomponent* component, QString& why) {
    icalproperty* start = propertyOf(component, ICAL_DTSTART_PROPERTY);
    if (const char* broken = brokenProperty(component)) {
        why = QStringLiteral("its %1 can't be read").arg(QLatin1String(broken));
        return std::nullopt;
    }
    if (!start) {
        why = QStringLiteral("it has no start");
        return std::nullopt;
    }
    const auto from = timeOf(start, icalproperty_get_dtstart(start), why);
    if (!from)
        return std::nullopt;
    Span span{*from, 0};
    if (icalproperty* end = propertyOf(component, ICAL_DTEND_PROPERTY)) {
        const auto until = timeOf(end, icalproperty_get_dtend(end), why);
        if (!until)
            return std::nullopt;
        span.length = inTermsOf(*until, *from) - from->local;
    } else if (icalproperty* duration = propertyOf(component, ICAL_DURATION_PROPERTY)) {
        const icaldurationtype length = icalproperty_get_duration(duration);
        if (length.is_neg == 0)
            span.length = ((length.weeks * qint64{7} + length.days) * 24 + length.hours) * 3600 +
                          length.minutes * qint64{60} + length.seconds;
    } else if (from->isDate) {
        span.length = Day;
    }
    span.length = std::max<qint64>(span.length, from->isDate ? Day : 0);
    if (span.length > LongestEvent * Day) {
        why = QStringLiteral("it lasts longer than ten years");
        return std::nullopt;
    }
    return span;
}

bool Reader::addRules(icalcomponent* component, const Span& span, std::set<qint64>& starts, QString& why) {
    for (icalproperty* property = propertyOf(component, ICAL_RRULE_PROPERTY); property;
         property = icalcomponent_get_next_property(component, ICAL_RRULE_PROPERTY)) {
        QByteArray reason;
        char* text = icalproperty_get_value_as_string_r(property);
        auto rule = parseRule(text, reason);
        icalmemory_free_buffer(text);
        if (!rule) {
            why = QString::fromLatin1(reason);
            return false;
        }
        if (rule->until && rule->untilIsUtc)
            rule->until = inTermsOf({*rule->until, false, m_zones.utc()}, span.start) +
                          (span.start.isDate ? Day - 1 : 0);
        const int room = m_limits.occurrences - m_occurrences + 1;
        expandRule(*rule, span.start.local, m_lastDay, [&](qint64 local) {
            if (local >= 0)
                starts.insert(local);
            return static_cast<int>(starts.size()) <= room && !m_deadline.hasExpired();
        });
    }
    return true;
}

void Reader::addDates(icalcomponent* component, const Span& span, std::set<qint64>& starts) {
    for (icalproperty* property = propertyOf(component, ICAL_RDATE_PROPERTY); property;
         property = icalcomponent_get_next_property(component, ICAL_RDATE_PROPERTY)) {
        const icaldatetimeperiodtype date = icalproperty_get_rdate(property);
        QString why;
        const auto time =
            timeOf(property, icaltime_is_null_time(date.time) ? date.period.start : date.time, why);
        if (time && dayOfLocal(time->local) <= m_lastDay)
            starts.insert(time->isDate && !span.start.isDate
                              ? time->local + span.start.local - dayOfLocal(span.start.local) * Day
                              : inTermsOf(*time, span.start));
    }
}

void Reader::removeDates(icalcomponent* component, const Span& span, std::set<qint64>& starts) {
    for (icalproperty* property = propertyOf(component, ICAL_EXDATE_PROPERTY); property;
         property = icalcomponent_get_next_property(component, ICAL_EXDATE_PROPERTY)) {
        QString why;
        const auto time = timeOf(property, icalproperty_get_exdate(property), why);
        if (!time)
            continue;
        const qint64 local = inTermsOf(*time, span.start);
        if (!time->isDate || span.start.isDate)
            starts.erase(local);
        else
            starts.erase(starts.lower_bound(local), starts.lower_bound(local + Day));
    }
}

/// Local starts of the event's occurrences, by its own clock.
std::optional<std::vector<qint64>> Reader::startsOf(icalcomponent* component, const Span& span,
                                                    QString& why) {
    std::set<qint64> starts;
    if (!propertyOf(component, ICAL_RRULE_PROPERTY))
        starts.insert(span.start.local);
    if (!addRules(component, span, starts, why))
        return std::nullopt;
    addDates(component, span, starts);
    removeDates(component, span, starts);
    return std::vector<qint64>(starts.begin(), starts.end());
}

void Reader::addOccurrence(FileEvent& event, icalcomponent* component, const Span& span, qint64 start,
                           qint64 identity) {
    qint64 first = start;
    qint64 end = start + span.length;
    if (!span.start.isDate) {
        first = serviceLocal(epochOf({start, false, span.start.zone}));
        end = span.length == 0 ? first : serviceLocal(epochOf({end, false, span.start.zone}));
    }
    FileOccurrence occurrence;
    occurrence.first = dayOfLocal(first);
    occurrence.last = std::max(occurrence.first, dayOfLocal(end > first ? end - 1 : first));
    occurrence.identity = dayOfLocal(identity);
    occurrence.name = textOf(component, ICAL_SUMMARY_PROPERTY, MaxName);
    if (occurrence.name.isEmpty())
        occurrence.name = event.uid.left(MaxName);
    if (occurrence.first < 1)
        return; // before anything rang
    // Two of one day are one: what counts is the day.
    if (!event.occurrences.empty() && event.occurrences.back().identity == occurrence.identity)
        event.occurrences.back().last = std::max(event.occurrences.back().last, occurrence.last);
    else if (++m_occurrences <= m_limits.occurrences)
        event.occurrences.push_back(std::move(occurrence));
}

void Reader::collect(const Parsed& parsed) {
    QHash<QString, size_t> byUid;
    for (const Part& zone : parsed.zones) {
        icalproperty* name = propertyOf(zone.component.get(), ICAL_TZID_PROPERTY);
        const char* text = name ? icalproperty_get_tzid(name) : nullptr;
        if (text)
            m_zones.define(text, zone.component.get());
    }
    for (const Part& part : parsed.events) {
        icalcomponent* const component = part.component.get();
        const QString uid = textOf(component, ICAL_UID_PROPERTY, MaxUid + 1);
        if (uid.isEmpty() || uid.size() > MaxUid) {
            ignore(uid.left(MaxUid), uid.isEmpty() ? QStringLiteral("it has no UID")
                                                   : QStringLiteral("its UID is longer than 200 characters"));
            continue;
        }
        if (!byUid.contains(uid)) {
            byUid.insert(uid, m_events.size());
            m_events.push_back({uid, nullptr, {}, false});
        }
        Event& event = m_events[byUid.value(uid)];
        if (propertyOf(component, ICAL_RECURRENCEID_PROPERTY)) {
            event.overrides.push_back(component);
            continue;
        }
        event.master = component; // of two the later one
        event.isCancelled = part.isCancelled || icalcomponent_get_status(component) == ICAL_STATUS_CANCELLED;
    }
}

bool Reader::isOver() {
    if (m_deadline.hasExpired())
        m_file.refusal = QStringLiteral("the file takes longer than a second");
    else if (m_occurrences > m_limits.occurrences)
        m_file.refusal = QStringLiteral("the file has more than %1 occurrences").arg(m_limits.occurrences);
    return !m_file.refusal.isEmpty();
}

void Reader::expand(const Event& event) {
    FileEvent expanded{event.uid, {}};
    QString why;
    std::optional<Span> span;
    std::vector<qint64> starts;
    if (event.master) {
        span = spanOf(event.master, why);
        const auto all = span ? startsOf(event.master, *span, why) : std::nullopt;
        if (!all) {
            ignore(event.uid, why);
            return;
        }
        starts = *all;
    }
    std::map<qint64, icalcomponent*> replaced; // by the start that it had
    for (icalcomponent* component : event.overrides) {
        icalproperty* property = propertyOf(component, ICAL_RECURRENCEID_PROPERTY);
        const auto named = timeOf(property, icalproperty_get_recurrenceid(property), why);
        if (!named) {
            ignore(event.uid, why);
            continue;
        }
        if (icalproperty_get_first_parameter(property, ICAL_RANGE_PARAMETER))
            ignore(event.uid, QStringLiteral("a change of all that follow holds for its own day only"));
        qint64 start = span ? inTermsOf(*named, span->start) : named->local;
        if (span && named->isDate && !span->start.isDate) {
            const auto sameDay = std::lower_bound(starts.begin(), starts.end(), start);
            start = sameDay == starts.end() || *sameDay >= start + Day ? start : *sameDay;
        }
        replaced[start] = component;
    }
    const bool recurs = event.master && (propertyOf(event.master, ICAL_RRULE_PROPERTY) ||
                                         propertyOf(event.master, ICAL_RDATE_PROPERTY));
    for (const qint64 start : starts) {
        if (!replaced.count(start))
            addOccurrence(expanded, event.master, *span, start, recurs ? start : 0);
        if (isOver())
            return;
    }
    for (const auto& [start, component] : replaced) {
        if (icalcomponent_get_status(component) == ICAL_STATUS_CANCELLED)
            continue;
        const auto moved = spanOf(component, why);
        if (moved)
            addOccurrence(expanded, component, *moved, moved->start.local, start);
        else
            ignore(event.uid, why);
    }
    if (!expanded.occurrences.empty())
        m_file.events.push_back(std::move(expanded));
    isOver();
}

CalendarFile Reader::read(const QByteArray& text) {
    if (text.size() > FileLimits::MaxBytes) {
        m_file.refusal = QStringLiteral("the file is larger than 4 MB");
        return m_file;
    }
    const Parsed parsed = parse(text, m_deadline);
    if (!parsed.isCalendar && !parsed.isLate)
        m_file.refusal = QStringLiteral("it is no calendar file");
    if (isOver())
        return m_file;
    collect(parsed);
    for (const Event& event : m_events) {
        if (event.isCancelled)
            continue;
        expand(event);
        if (isOver())
            break;
    }
    if (!m_file.refusal.isEmpty())
        m_file.events.clear();
    return m_file;
}

} // namespace

CalendarFile readCalendarFile(const QByteArray& text, const std::function<int(qint64 epoch)>& offset,
                              qint64 lastDay, const FileLimits& limits) {
    const std::lock_guard<std::mutex> lock(libraryLock);
    icalerror_set_errors_are_fatal(0);
    return Reader(offset, lastDay, limits).read(text);
}
