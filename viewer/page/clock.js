// SPDX-License-Identifier: MIT
// Times in the zone of the machine that runs `runeflow view`, which need not be the browser's zone.
// All times are microseconds since 1970-01-01 UTC.

const DAY = 86_400_000_000;
const QUARTER = 900_000_000; // zones change their offset at multiples of 15 minutes
const LAST = 8.64e18; // what Date can express
const WEEKDAYS = "Sunday Monday Tuesday Wednesday Thursday Friday Saturday".split(" ");
const MONTHS = "January February March April May June July August September October November December".split(" ");

let formatter = null; // null: UTC, or `fixed`
let fixed = 0;
const offsets = new Map(); // quarter of an hour → microseconds east of UTC

// `zone` is an IANA name, or has one before its first blank: "Europe/Berlin (UTC+1)". A name that the browser does not
// know falls back on the offset in the parentheses.
export function setZone(zone) {
  offsets.clear();
  formatter = null;
  fixed = 0;
  try {
    formatter = new Intl.DateTimeFormat("en-US", {
      timeZone: zone.split(" ")[0], hourCycle: "h23",
      year: "numeric", month: "numeric", day: "numeric", hour: "numeric", minute: "numeric", second: "numeric",
    });
  } catch {
    const parts = /UTC([+-])(\d+)(?::(\d+))?/.exec(zone);
    if (parts) fixed = (parts[1] === "-" ? -1 : 1) * (Number(parts[2]) * 60 + Number(parts[3] ?? 0)) * 60_000_000;
  }
}

function computeOffset(quarter) {
  const milliseconds = (quarter * QUARTER) / 1000;
  const parts = Object.fromEntries(formatter.formatToParts(milliseconds).map(({ type, value }) => [type, Number(value)]));
  return (Date.UTC(parts.year, parts.month - 1, parts.day, parts.hour, parts.minute, parts.second) - milliseconds) * 1000;
}

function offsetAt(time) {
  if (!formatter || time < 0 || time > LAST / 10) return formatter ? 0 : fixed;
  const quarter = Math.floor(time / QUARTER);
  let offset = offsets.get(quarter);
  if (offset === undefined) {
    if (offsets.size > 5000) offsets.clear();
    offset = computeOffset(quarter);
    offsets.set(quarter, offset);
  }
  return offset;
}

const isShown = (time) => Number.isFinite(time) && Math.abs(time) < LAST - DAY;
const two = (number) => String(number).padStart(2, "0");

// The number of the local day, for comparing.
export const dayNumber = (time) => Math.floor((time + offsetAt(time)) / DAY);

// "16:13:41.376", with six digits if `microseconds`, with none if `digits` is 0.
export function clockTime(time, microseconds = false, digits = microseconds ? 6 : 3) {
  if (!isShown(time)) return `${time} µs`;
  const local = time + offsetAt(time);
  const within = local - Math.floor(local / DAY) * DAY;
  const seconds = Math.floor(within / 1_000_000);
  const text = `${two(Math.floor(seconds / 3600))}:${two(Math.floor(seconds / 60) % 60)}:${two(seconds % 60)}`;
  return digits === 0 ? text : `${text}.${String(within % 1_000_000).padStart(6, "0").slice(0, digits)}`;
}

// "Tuesday 17 March 2026"
export function date(time) {
  if (!isShown(time)) return `${time} µs`;
  const local = new Date((time + offsetAt(time)) / 1000);
  const year = local.getUTCFullYear();
  return `${WEEKDAYS[local.getUTCDay()]} ${local.getUTCDate()} ${MONTHS[local.getUTCMonth()]} ${year}`;
}

// "17 March 16:13:38": a day and a time, as short as the span [from, until) allows.
export function moment(time, span) {
  const fine = span && span.until - span.from < 20_000_000;
  const hasSeconds = span && span.until - span.from < 7_200_000_000;
  const text = clockTime(time, false, fine ? 3 : 0);
  if (!isShown(time) || !span || dayNumber(span.from) === dayNumber(span.until - 1)) return text;
  const [, day, month, year] = date(time).split(" ");
  const isLong = span.until - span.from > 300 * DAY;
  return `${day} ${month.slice(0, 3)}${isLong ? ` ${year}` : ""} ${hasSeconds ? text : text.slice(0, 5)}`;
}
