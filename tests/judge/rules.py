#!/usr/bin/env python3
"""Random recurring events and what they say, by a calculation that shares nothing with the service.

usage: rules.py SEED COUNT UNTIL   (UNTIL: last day, YYYY-MM-DD)
Writes a JSON object: "file", a calendar file, and "days", for each UID the dates that its event touches in
the service's zone, UTC: [first, last] of each occurrence, days since 1970-01-01.
"""
import datetime
import json
import random
import sys
from zoneinfo import ZoneInfo

from dateutil.rrule import rrulestr

seed, count, until = int(sys.argv[1]), int(sys.argv[2]), datetime.date.fromisoformat(sys.argv[3])
rng = random.Random(seed)
WEEKDAYS = "MO TU WE TH FR SA SU".split()
EPOCH = datetime.date(1970, 1, 1)
datetime.MAXYEAR = until.year + 1  # where the calculation gives up on rules that name no day


def random_rule():
    frequency = rng.choice(["DAILY", "WEEKLY", "MONTHLY", "YEARLY"])
    parts = ["FREQ=" + frequency]
    if rng.random() < 0.5:
        parts.append("INTERVAL=%d" % rng.randint(1, 4))
    if rng.random() < 0.3:
        parts.append("COUNT=%d" % rng.randint(1, 40))
    elif rng.random() < 0.3:
        parts.append("UNTIL=%d%02d%02dT120000Z" % (rng.randint(2026, 2030), rng.randint(1, 12), rng.randint(1, 28)))
    if rng.random() < 0.3:
        parts.append("BYMONTH=" + ",".join(map(str, sorted(rng.sample(range(1, 13), rng.randint(1, 3))))))
    by_month_day = frequency != "WEEKLY" and rng.random() < 0.3
    if by_month_day:
        days = rng.sample([1, 2, 13, 15, 28, 29, 30, 31, -1, -2, -5], rng.randint(1, 3))
        parts.append("BYMONTHDAY=" + ",".join(map(str, days)))
    if rng.random() < 0.4:
        days = rng.sample(WEEKDAYS, rng.randint(1, 3))
        if frequency in ("MONTHLY", "YEARLY") and not by_month_day and rng.random() < 0.6:
            days = [str(rng.choice([1, 2, 3, 4, 5, -1, -2])) + day for day in days]
        parts.append("BYDAY=" + ",".join(days))
    elif frequency == "YEARLY" and not by_month_day and len(parts) < 3:
        parts.append(rng.choice(["BYYEARDAY=1,100", "BYYEARDAY=366,-100", "BYWEEKNO=1", "BYWEEKNO=20,53", "BYWEEKNO=-1"]))
    if any(part.startswith("BY") for part in parts) and rng.random() < 0.2:
        parts.append("BYSETPOS=" + rng.choice(["1", "-1", "2", "1,-1"]))
    if rng.random() < 0.3:
        parts.append("WKST=" + rng.choice(["SU", "MO"]))
    return ";".join(parts)


lines = ["BEGIN:VCALENDAR", "VERSION:2.0", "PRODID:-//judge//EN"]
expected = {}
for number in range(count):
    uid = "event-%d" % number
    zone = ZoneInfo(rng.choice(["Europe/Berlin", "America/New_York", "Asia/Kolkata"]))
    # Away from midnight in UTC and from the hours at which clocks change.
    start = datetime.datetime(rng.randint(2022, 2027), rng.randint(1, 12), rng.randint(1, 28), rng.randint(9, 16), 30)
    hours = rng.choice([0, 1, 30, 72])
    rule = random_rule()
    lines += ["BEGIN:VEVENT", "UID:" + uid, "SUMMARY:" + uid,
              "DTSTART;TZID=%s:%s" % (zone.key, start.strftime("%Y%m%dT%H%M%S")),
              "DURATION:PT%dH" % hours, "RRULE:" + rule, "END:VEVENT"]
    local_rule = rule
    if "UNTIL=" in rule:
        text = rule.split("UNTIL=")[1][:16]
        moment = datetime.datetime.strptime(text, "%Y%m%dT%H%M%SZ").replace(tzinfo=datetime.timezone.utc)
        local_rule = rule.replace(text, moment.astimezone(zone).strftime("%Y%m%dT%H%M%S"))
    spans = []
    for occurrence in rrulestr("RRULE:" + local_rule, dtstart=start):
        if occurrence.date() > until:
            break
        first = occurrence.replace(tzinfo=zone).astimezone(datetime.timezone.utc)
        end = (occurrence + datetime.timedelta(hours=hours)).replace(tzinfo=zone).astimezone(datetime.timezone.utc)
        if hours:
            end -= datetime.timedelta(seconds=1)
        spans.append([(first.date() - EPOCH).days, (end.date() - EPOCH).days])
    if spans:
        expected[uid] = spans
lines.append("END:VCALENDAR")
json.dump({"file": "\r\n".join(lines) + "\r\n", "days": expected}, sys.stdout)
