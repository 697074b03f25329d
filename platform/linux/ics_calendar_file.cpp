#include "platform/linux/ics_calendar_file.hpp"

#include <libical/ical.h>

#include <algorithm>
#include <ctime>
#include <map>
#include <mutex>
#include <optional>
#include <set>

#include "core/local_time.hpp"

namespace quorel {

namespace {

std::mutex& libraryMutex() {
  static std::mutex m;
  return m;
}

struct ComponentDeleter {
  void operator()(icalcomponent* c) const { icalcomponent_free(c); }
};

struct IteratorDeleter {
  void operator()(icalrecur_iterator* it) const { icalrecur_iterator_free(it); }
};

// A time of the file's, with its absolute moment fixed once at parse time.
struct Instant {
  icaltimetype local{};
  std::time_t at = 0;
};

struct EventRecord {
  std::string uid;
  std::string title;
  Instant start;
  std::vector<icalrecurrencetype> rules;
  std::vector<Instant> extraDates;  // RDATE
  std::vector<Instant> exdates;
  std::optional<std::time_t> recurrenceId;
  bool cancelled = false;
};

const icaltimezone* zoneNamed(const char* id, icalcomponent* calendar) {
  if (!id || !*id) return nullptr;
  if (calendar) {
    if (const icaltimezone* z = icalcomponent_get_timezone(calendar, id)) return z;
  }
  if (const icaltimezone* z = icaltimezone_get_builtin_timezone(id)) return z;
  // Some programs write the library's own long form, "/<prefix>/Europe/Berlin".
  return icaltimezone_get_builtin_timezone_from_tzid(id);
}

// Property values come without their zone; a TZID parameter names it.
icaltimetype withZone(icaltimetype t, icalproperty* p, icalcomponent* calendar) {
  if (t.is_date || icaltime_is_utc(t)) return t;
  icalparameter* tzid = icalproperty_get_first_parameter(p, ICAL_TZID_PARAMETER);
  if (tzid) {
    // An unknown zone leaves the time floating: read as local time rather than dropped.
    if (const icaltimezone* z = zoneNamed(icalparameter_get_tzid(tzid), calendar)) t.zone = z;
  }
  return t;
}

std::time_t absoluteTime(icaltimetype t, const icaltimezone* floating) {
  if (t.zone) return icaltime_as_timet_with_zone(t, t.zone);
  if (floating) return icaltime_as_timet_with_zone(t, floating);
  const LocalDateTime local{t.year,
                            t.month,
                            t.day,
                            t.is_date ? 0 : t.hour,
                            t.is_date ? 0 : t.minute,
                            t.is_date ? 0 : t.second};
  const auto at = fromLocalDateTime(local);
  return at ? static_cast<std::time_t>(toUnixSeconds(*at)) : 0;
}

// `at` as a wall time in the zone `like` is kept in, for starting a rule's iteration late.
icaltimetype wallTimeLike(std::time_t at, const icaltimetype& like, const icaltimezone* floating) {
  if (like.zone || floating) {
    icaltimetype t = icaltime_from_timet_with_zone(at, 0, like.zone ? like.zone : floating);
    t.zone = like.zone;
    return t;
  }
  const LocalDateTime local = localDateTime(std::chrono::system_clock::from_time_t(at));
  icaltimetype t = icaltime_null_time();
  t.year = local.year;
  t.month = local.month;
  t.day = local.day;
  t.hour = local.hour;
  t.minute = local.minute;
  t.second = local.second;
  return t;
}

Instant instant(icaltimetype t, icalproperty* p, icalcomponent* calendar,
                const icaltimezone* floating) {
  Instant i;
  i.local = withZone(t, p, calendar);
  i.at = absoluteTime(i.local, floating);
  return i;
}

bool sameDate(const icaltimetype& a, const icaltimetype& b) {
  return a.year == b.year && a.month == b.month && a.day == b.day;
}

std::string text(const char* s) {
  return s ? std::string(s) : std::string();
}

}  // namespace

struct IcsCalendarFile::Impl {
  std::unique_ptr<icalcomponent, ComponentDeleter> root;
  const icaltimezone* floating = nullptr;
  std::vector<EventRecord> records;
  // Instances of a recurring event replaced (moved or cancelled) by a RECURRENCE-ID, per UID.
  std::map<std::string, std::set<std::time_t>> replaced;

  void read(icalcomponent* event, icalcomponent* calendar);
  bool excluded(const EventRecord& e, const Instant& occurrence) const;
  void expand(const EventRecord& e, std::time_t from, std::time_t to,
              std::vector<BatteryControlCalendarEvent>& out) const;
};

void IcsCalendarFile::Impl::read(icalcomponent* event, icalcomponent* calendar) {
  icalproperty* dtstart = icalcomponent_get_first_property(event, ICAL_DTSTART_PROPERTY);
  if (!dtstart) return;
  const icaltimetype start = icalproperty_get_dtstart(dtstart);
  // A DATE start is an all-day event: nothing to top off for, nothing to drain towards.
  if (icaltime_is_null_time(start) || start.is_date) return;
  EventRecord e;
  e.uid = text(icalcomponent_get_uid(event));
  e.title = text(icalcomponent_get_summary(event));
  e.cancelled = icalcomponent_get_status(event) == ICAL_STATUS_CANCELLED;
  e.start = instant(start, dtstart, calendar, floating);
  for (icalproperty* p = icalcomponent_get_first_property(event, ICAL_ANY_PROPERTY); p;
       p = icalcomponent_get_next_property(event, ICAL_ANY_PROPERTY)) {
    switch (icalproperty_isa(p)) {
      case ICAL_RRULE_PROPERTY:
        e.rules.push_back(icalproperty_get_rrule(p));
        break;
      case ICAL_RDATE_PROPERTY: {
        const icaldatetimeperiodtype d = icalproperty_get_rdate(p);
        const icaltimetype t = icaltime_is_null_time(d.time) ? d.period.start : d.time;
        if (!icaltime_is_null_time(t) && !t.is_date)
          e.extraDates.push_back(instant(t, p, calendar, floating));
        break;
      }
      case ICAL_EXDATE_PROPERTY: {
        const icaltimetype t = icalproperty_get_exdate(p);
        if (!icaltime_is_null_time(t)) e.exdates.push_back(instant(t, p, calendar, floating));
        break;
      }
      case ICAL_RECURRENCEID_PROPERTY: {
        const icaltimetype t = icalproperty_get_recurrenceid(p);
        if (!icaltime_is_null_time(t)) e.recurrenceId = instant(t, p, calendar, floating).at;
        break;
      }
      default:
        break;
    }
  }
  if (e.recurrenceId) replaced[e.uid].insert(*e.recurrenceId);
  records.push_back(std::move(e));
}

bool IcsCalendarFile::Impl::excluded(const EventRecord& e, const Instant& occurrence) const {
  for (const Instant& x : e.exdates) {
    // A DATE exclusion takes out the whole day in the event's own zone.
    if (x.local.is_date ? sameDate(x.local, occurrence.local) : x.at == occurrence.at) return true;
  }
  if (e.uid.empty()) return false;
  const auto moved = replaced.find(e.uid);
  return moved != replaced.end() && moved->second.count(occurrence.at) > 0;
}

void IcsCalendarFile::Impl::expand(const EventRecord& e, std::time_t from, std::time_t to,
                                   std::vector<BatteryControlCalendarEvent>& out) const {
  if (e.cancelled) return;
  std::vector<Instant> found;
  auto consider = [&](const Instant& i) {
    if (i.at >= from && i.at <= to) found.push_back(i);
  };
  // A moved instance is an event of its own at its new time.
  const bool recurring = !e.recurrenceId && (!e.rules.empty() || !e.extraDates.empty());
  consider(e.start);
  if (recurring) {
    for (const icalrecurrencetype& rule : e.rules) {
      std::unique_ptr<icalrecur_iterator, IteratorDeleter> it(
          icalrecur_iterator_new(rule, e.start.local));
      if (!it) continue;
      // Years of a weekly meeting need not be walked through: without COUNT the iterator can
      // start a little before the window. A day's margin covers any zone offset. Rules by the
      // hour or finer lose their phase when started late, so they are walked from the start.
      const std::time_t lead = from - 2 * 86400;
      const bool dayOrCoarser =
          rule.freq == ICAL_DAILY_RECURRENCE || rule.freq == ICAL_WEEKLY_RECURRENCE ||
          rule.freq == ICAL_MONTHLY_RECURRENCE || rule.freq == ICAL_YEARLY_RECURRENCE;
      if (rule.count == 0 && dayOrCoarser && lead > e.start.at) {
        icalrecur_iterator_set_start(it.get(), wallTimeLike(lead, e.start.local, floating));
      }
      for (int step = 0; step < kMaxOccurrencesPerRule; ++step) {
        icaltimetype next = icalrecur_iterator_next(it.get());
        if (icaltime_is_null_time(next)) break;
        next.zone = e.start.local.zone;
        const Instant occurrence{next, absoluteTime(next, floating)};
        if (occurrence.at > to) break;
        consider(occurrence);
      }
    }
    for (const Instant& extra : e.extraDates) consider(extra);
  }
  std::sort(found.begin(), found.end(),
            [](const Instant& a, const Instant& b) { return a.at < b.at; });
  found.erase(std::unique(found.begin(), found.end(),
                          [](const Instant& a, const Instant& b) { return a.at == b.at; }),
              found.end());
  for (const Instant& i : found) {
    if (!e.recurrenceId && excluded(e, i)) continue;
    out.push_back({e.title, std::chrono::system_clock::from_time_t(i.at)});
  }
}

IcsCalendarFile::IcsCalendarFile(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
IcsCalendarFile::~IcsCalendarFile() {
  std::lock_guard lock(libraryMutex());
  impl_.reset();
}

std::shared_ptr<const IcsCalendarFile> IcsCalendarFile::parse(std::string_view text,
                                                              const std::string& floatingTimeZone,
                                                              ParseError* error) {
  auto fail = [&](std::string message) -> std::shared_ptr<const IcsCalendarFile> {
    if (error) error->message = std::move(message);
    return nullptr;
  };
  const std::string terminated(text);
  std::lock_guard lock(libraryMutex());
  std::unique_ptr<icalcomponent, ComponentDeleter> root(
      icalparser_parse_string(terminated.c_str()));
  icalerror_clear_errno();
  if (!root) return fail("no iCalendar object in it");
  auto impl = std::make_unique<Impl>();
  if (!floatingTimeZone.empty()) {
    impl->floating = icaltimezone_get_builtin_timezone(floatingTimeZone.c_str());
  }
  auto readCalendar = [&](icalcomponent* calendar) {
    for (icalcomponent* c = icalcomponent_get_first_component(calendar, ICAL_VEVENT_COMPONENT); c;
         c = icalcomponent_get_next_component(calendar, ICAL_VEVENT_COMPONENT)) {
      impl->read(c, calendar);
    }
  };
  switch (icalcomponent_isa(root.get())) {
    case ICAL_VCALENDAR_COMPONENT:
      readCalendar(root.get());
      break;
    case ICAL_XROOT_COMPONENT:
      // Several calendars one after the other in one file.
      for (icalcomponent* c = icalcomponent_get_first_component(root.get(), ICAL_ANY_COMPONENT); c;
           c = icalcomponent_get_next_component(root.get(), ICAL_ANY_COMPONENT)) {
        if (icalcomponent_isa(c) != ICAL_VCALENDAR_COMPONENT) return fail("no VCALENDAR in it");
        readCalendar(c);
      }
      break;
    case ICAL_VEVENT_COMPONENT:
      impl->read(root.get(), nullptr);
      break;
    default:
      return fail("it holds no VCALENDAR");
  }
  impl->root = std::move(root);
  return std::shared_ptr<const IcsCalendarFile>(new IcsCalendarFile(std::move(impl)));
}

std::vector<BatteryControlCalendarEvent> IcsCalendarFile::events(TimePoint from,
                                                                 TimePoint to) const {
  std::vector<BatteryControlCalendarEvent> out;
  if (to < from) return out;
  std::lock_guard lock(libraryMutex());
  // Whole seconds: iCalendar has no finer times, and an event at the very edge still counts.
  const std::time_t lo =
      std::chrono::system_clock::to_time_t(std::chrono::ceil<std::chrono::seconds>(from));
  const std::time_t hi =
      std::chrono::system_clock::to_time_t(std::chrono::floor<std::chrono::seconds>(to));
  for (const EventRecord& e : impl_->records) impl_->expand(e, lo, hi, out);
  return out;
}

}  // namespace quorel
