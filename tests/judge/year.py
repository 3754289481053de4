#!/usr/bin/env python3
"""A year of a school's bells at random, and which of them ring, by a calculation that shares nothing with the service.

usage: year.py ZONE SEED
Writes a JSON object: "schedules", "calendars" (entries and a calendar file each), "segments" (stretches of the wall
clock, seconds since 1970 UTC, in which the service runs by a clock that nobody touches), and "rings": the seconds
and schedules that ring, in the order in which they do.
"""
import datetime
import json
import random
import sys
from zoneinfo import ZoneInfo

from dateutil.rrule import rrulestr

zone, rng = ZoneInfo(sys.argv[1]), random.Random(int(sys.argv[2]))
UTC = datetime.timezone.utc
EPOCH = datetime.date(1970, 1, 1)
FIRST, LAST = datetime.date(2027, 1, 1), datetime.date(2027, 12, 31)
DAY = datetime.timedelta(days=1)


def number(date):
    return (date - EPOCH).days


def epoch(date, seconds, fold=0):
    """The second that has this local time; None when none has."""
    local = datetime.datetime.combine(date, datetime.time()) + datetime.timedelta(seconds=seconds)
    moment = local.replace(tzinfo=zone, fold=fold).astimezone(UTC)
    return int(moment.timestamp()) if moment.astimezone(zone).replace(tzinfo=None) == local else None


def local_date(second):
    return datetime.datetime.fromtimestamp(second, zone).date()


# --- what there is ---
def random_dates(longest):
    first = FIRST + DAY * rng.randrange(365)
    return first, first + DAY * rng.randrange(longest)


calendars = []
for calendar in range(3):
    entries = []
    for identity in range(1, 15 if calendar else 13):
        first, last = random_dates(rng.choice([1, 3, 14, 40]))
        entries.append({"id": identity, "first": number(first), "last": number(last), "plan": rng.choice([0, 0, 1, 2, 3])})
    rules = ["FREQ=WEEKLY;INTERVAL=%d;BYDAY=%s" % (rng.randint(2, 5), rng.choice(["MO", "WE,FR", "SU"])),
             "FREQ=MONTHLY;BYMONTHDAY=%d" % rng.choice([1, 15, 31, -1]),
             "FREQ=YEARLY;BYMONTH=5;BYDAY=%d%s" % (rng.choice([1, 2, -1]), rng.choice(["MO", "TH"]))]
    lines, imported = ["BEGIN:VCALENDAR", "VERSION:2.0"], []
    for index, rule in enumerate(rules):
        start = datetime.datetime(2026, rng.randint(1, 12), rng.randint(1, 28))
        length = rng.randint(1, 3)
        lines += ["BEGIN:VEVENT", "UID:%d" % index, "DTSTART;VALUE=DATE:" + start.strftime("%Y%m%d"),
                  "DURATION:P%dD" % length, "RRULE:" + rule, "END:VEVENT"]
        for occurrence in rrulestr("RRULE:" + rule, dtstart=start):
            if occurrence.date() > LAST + 3 * DAY:
                break
            imported.append((number(occurrence.date()), number(occurrence.date()) + length - 1))
    # Imported entries get numbers behind those put in by hand, in the order of events and days.
    every = [(e["last"] - e["first"], -e["id"], e["first"], e["last"], e["plan"]) for e in entries]
    every += [(last - first, -100 - index, first, last, 0) for index, (first, last) in enumerate(imported)]
    calendars.append({"entries": entries, "file": "\n".join(lines + ["END:VCALENDAR", ""]), "all": sorted(every)})

schedules = []
for identity in range(1, 501):
    schedules.append({
        "id": identity,
        "time": rng.choice([0, 1, 1800, 3600, 5400, 7199, 7200, 9000, 10799, 10800, 86399] + [rng.randrange(86400)] * 12),
        "week": "".join(rng.choice("0111") for _ in range(7)),
        "from": rng.choice([0, 0, number(FIRST + DAY * rng.randrange(200))]),
        "until": rng.choice([0, 0, number(FIRST + DAY * rng.randrange(150, 365))]),
        "local": rng.random() < 0.7,
        "plan": rng.choice([0, 1, 2, 3]),
        "calendar": rng.choice([0, 1, 2, 3]),
        "within": rng.choice([-1, -1, 0, 30, 600, 3600]),
    })
SPAN = (600, 84000)

# The service runs from the first day to the last; stops, starts again and has its clock set.
segments, now, end = [], epoch(FIRST, 0) or epoch(FIRST, 3600), epoch(LAST, 43200)
while now < end:
    stop = min(end, now + rng.randint(3600, 20 * 86400))
    segments.append([now, stop])
    now = stop + rng.choice([1, 20, 59, 60, 61, 300, 4000, 100000, -30, -60, -61, -3600, -7000, -30000, -200000])

# --- what rings ---
held_by = {}


def held(calendar, day):
    key = calendar, day
    if key not in held_by:
        held_by[key] = next((e for e in calendars[calendar - 1]["all"] if e[2] <= day <= e[3]), None)
    return held_by[key]


moments = []  # second, schedule, the second that names the bell, how late it may be
for schedule in schedules:
    limit = {-1: 60, 0: 3}.get(schedule["within"], schedule["within"])
    for offset in range(-4, 370):
        date = FIRST + DAY * offset
        if schedule["week"][date.weekday()] == "0" or not SPAN[0] <= schedule["time"] <= SPAN[1]:
            continue
        entry = held(schedule["calendar"], number(date)) if schedule["calendar"] else None
        is_named = entry is not None and entry[4] != 0 and entry[4] == schedule["plan"]
        if (entry is not None and not is_named) or (schedule["plan"] == 3 and not is_named):
            continue  # plan 3 is the exceptional one
        first = epoch(date, schedule["time"])
        if first is None:
            continue
        today = number(date) if schedule["local"] else first // 86400
        if (schedule["from"] and today < schedule["from"]) or (schedule["until"] and today > schedule["until"]):
            continue
        for second in sorted({first, epoch(date, schedule["time"], 1)}):
            moments.append((second, schedule["id"], first, limit))
moments.sort()

rung, rings, handled = set(), [], segments[0][0] - 1
for start, stop in segments:
    back = handled - start
    if back > 60:
        handled = start - 1
        if back > 7200:
            today = local_date(start)
            rung = {bell for bell in rung if local_date(bell[1]) <= today}
    for second, identity, due, limit in moments:
        if second <= handled or second > stop or second <= start - 86400:
            continue
        if (identity, due) not in rung and start - second < limit:
            rung.add((identity, due))
            rings.append([second, identity])
    handled = max(handled, stop)
for calendar in calendars:
    del calendar["all"]
json.dump({"schedules": schedules, "calendars": calendars, "segments": segments, "rings": rings}, sys.stdout)
