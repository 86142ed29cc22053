#include "PageDocument.h"

#include <json/json.h>

#include <algorithm>
#include <array>
#include <clocale>
#include <map>
#include <set>
#include <stdexcept>
#include <utility>

#include "PageTemplate.h"
#include "Text.h"
#include "Times.h"
#include "UrlHost.h"

namespace zav::pyxctl {
namespace {

using Text = PageRecord::Text;
using Values = std::map<std::string, std::string, std::less<>>;

constexpr std::size_t kLongestUrl = 2048;
constexpr std::size_t kLongestName = 256;
/// A longer one takes too much room in a row.
constexpr std::size_t kFoldedUrl = 300;
/// How many records are there without JavaScript.
constexpr std::size_t kPlainRows = 100;

/// The page is in UTF-8, whatever the system's locale is: as long as this lives, what is printable is that of UTF-8, in
/// this thread. A system that lacks the locale shows more as bytes.
class InUtf8 {
 public:
  InUtf8() {
    static const locale_t kUtf8 = ::newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
    if (kUtf8 != nullptr) before = ::uselocale(kUtf8);
  }
  ~InUtf8() {
    if (before != nullptr) ::uselocale(before);
  }
  InUtf8(const InUtf8&) = delete;
  InUtf8& operator=(const InUtf8&) = delete;

 private:
  locale_t before = nullptr;
};

std::string PrintableOnPage(std::string_view text) {
  const InUtf8 inUtf8;
  return Printable(text);
}

/// The head of a text, with no character cut in two.
std::string_view HeadOf(std::string_view text, std::size_t longest) {
  if (text.size() <= longest) return text;
  const auto isInside = [text](std::size_t at) { return (static_cast<unsigned char>(text[at]) & 0xC0U) == 0x80U; };
  std::size_t end = longest;
  while (end > longest - 3 && isInside(end)) --end;
  return text.substr(0, isInside(end) ? longest : end);
}

Text TextOf(std::string_view text, std::size_t longest) {
  return {PrintableOnPage(HeadOf(text, longest)), text.size(), text.size() > longest};
}

/// A text as a part of HTML, in an element or in an attribute.
std::string Html(std::string_view text) {
  std::string result;
  for (const char c : text) {
    switch (c) {
      case '&':
        result += "&amp;";
        break;
      case '<':
        result += "&lt;";
        break;
      case '>':
        result += "&gt;";
        break;
      case '"':
        result += "&quot;";
        break;
      case '\'':
        result += "&#39;";
        break;
      default:
        result += c;
    }
  }
  return result;
}

std::string Shown(const Text& text) {
  return Html(text.shown) + (text.isCut ? "…" : "");
}

/// "1,234,567"
std::string Grouped(std::int64_t number) {
  std::string digits = std::to_string(number);
  const std::size_t first = number < 0 ? 1 : 0;
  for (std::size_t at = digits.size(); at > first + 3;) digits.insert(at -= 3, ",");
  return digits;
}

std::string Counted(std::size_t count, const std::string& one, const std::string& many) {
  return Grouped(static_cast<std::int64_t>(count)) + " " + (count == 1 ? one : many);
}

/// "1 h 30 min"
std::string PeriodText(std::chrono::seconds period) {
  if (period <= std::chrono::seconds(0)) return std::to_string(period.count()) + " s";
  constexpr std::array<std::pair<std::int64_t, const char*>, 4> kUnits = {
      {{86400, " d "}, {3600, " h "}, {60, " min "}, {1, " s "}}};
  std::string text;
  std::int64_t rest = period.count();
  for (const auto& [length, unit] : kUnits) {
    if (rest >= length) text += Grouped(rest / length) + unit;
    rest %= length;
  }
  text.pop_back();
  return text;
}

/// -- What is there without JavaScript

std::string Cell(const char* kind, const std::string& html) {
  return std::string("<td role=\"cell\" class=\"") + kind + "\">" + html + "</td>";
}

/// A long url has a frame of its own to be moved in.
std::string UrlCell(const Text& url) {
  const bool isLong = url.shown.size() > kFoldedUrl;
  return Cell("url", isLong ? "<div class=\"fold\" tabindex=\"0\">" + Shown(url) + "</div>" : Shown(url));
}

std::string NameCell(const char* kind, const Text& name) {
  if (name.shown.empty()) return Cell(kind, "(none)");
  return Cell(kind, name.shown.find_first_not_of(' ') == std::string::npos ? "(blank)" : Shown(name));
}

std::string Row(const PageRecord& record, const Zone& zone) {
  return "<tr role=\"row\">" + Cell("index", std::to_string(record.index)) + Cell("time", ZoneText(record.time, zone)) +
         NameCell("threat", record.threat) + NameCell("host", record.host) + UrlCell(record.url) + "</tr>\n";
}

std::string Rows(const PageContent& content) {
  std::string rows;
  const std::size_t count = std::min(kPlainRows, content.records.size());
  for (std::size_t i = 0; i < count; ++i) rows += Row(content.records[i], content.zone);
  return rows;
}

std::string PlainNote(const PageContent& content) {
  if (content.records.empty()) return "The log has no records.";
  const std::string all = Counted(content.records.size(), "record", "records");
  if (content.records.size() <= kPlainRows) return all + ", the newest first.";
  return "The newest " + std::to_string(kPlainRows) + " of " + all + "; with JavaScript this page shows all of them.";
}

/// What of the log is not on the page.
std::string LeftOut(const PageContent& content) {
  std::string text;
  if (!content.status) text = "The configuration and the counters could not be read. ";
  const std::int32_t total = content.status ? content.status->stored.total : 0;
  const auto stored = static_cast<std::size_t>(std::max(total, 0));
  const std::size_t here = content.records.size() + content.unreadable;
  if (stored > here) text += "The log has " + Counted(stored - here, "older record", "older records") + " as well. ";
  if (content.unreadable > 0) {
    text += Counted(content.unreadable, "record is", "records are") + " too large to be read and left out.";
  }
  return text;
}

std::string CounterRows(const pyxclient::Status& status) {
  std::map<std::string, std::pair<std::int32_t, std::int32_t>> counts;
  for (const auto& [threat, count] : status.stored.byThreat) counts[threat].first = count;
  for (const auto& [threat, count] : status.reported.byThreat) counts[threat].second = count;
  std::string rows;
  for (const auto& [threat, count] : counts) {
    rows += "<tr><th scope=\"row\">" + Shown(TextOf(threat, kLongestName)) + "</th><td>" + Grouped(count.first) +
            "</td><td>" + (status.reported.byThreat.contains(threat) ? Grouped(count.second) : "–") + "</td></tr>\n";
  }
  return rows;
}

/// How many different texts there are, without those of no bytes.
std::string CountDistinct(const std::vector<PageRecord>& records, Text PageRecord::*field) {
  std::set<std::string_view> values;
  for (const PageRecord& record : records) values.insert((record.*field).shown);
  values.erase("");
  return Grouped(static_cast<std::int64_t>(values.size()));
}

std::string Switch(bool isOn) {
  return isOn ? "on" : "off";
}

/// -- What the script reads

Json::Value ValueOf(const PageRecord& record, const Zone& zone) {
  Json::Value value;
  value["index"] = record.index;
  value["at"] = static_cast<Json::Int64>(record.time.time_since_epoch().count());
  value["time"] = ZoneText(record.time, zone);
  value["threat"] = record.threat.shown + (record.threat.isCut ? "…" : "");
  value["host"] = record.host.shown + (record.host.isCut ? "…" : "");
  value["url"] = record.url.shown;
  if (record.url.isCut) value["size"] = static_cast<Json::UInt64>(record.url.size);
  return value;
}

/// The periods from the oldest record to the newest, or to when the page was made.
Json::Value PeriodsOf(const PageContent& content) {
  Json::Value value;
  value["list"] = Json::arrayValue;
  if (content.records.empty()) return value;
  const auto byTime = [](const PageRecord& a, const PageRecord& b) { return a.time < b.time; };
  const auto [first, last] = std::minmax_element(content.records.begin(), content.records.end(), byTime);
  const Periods periods = PeriodsBetween(first->time, std::max(last->time, content.made), content.zone);
  value["unit"] = periods.unit;
  value["stride"] = periods.stride;
  for (const Period& period : periods.list) {
    Json::Value& member = value["list"].append(Json::objectValue);
    member["from"] = static_cast<Json::Int64>(period.begin.time_since_epoch().count());
    member["to"] = static_cast<Json::Int64>(period.end.time_since_epoch().count() - 1);
    member["label"] = period.label;
    member["tick"] = period.tick;
    if (period.isRound) member["round"] = true;
  }
  return value;
}

/// Pure ASCII without what could end, or comment out, the element that it stands in.
std::string ScriptSafe(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  std::string result;
  for (const char c : Json::writeString(builder, value)) {
    switch (c) {
      case '<':
        result += "\\u003c";
        break;
      case '>':
        result += "\\u003e";
        break;
      case '&':
        result += "\\u0026";
        break;
      default:
        result += c;
    }
  }
  return result;
}

std::string Data(const PageContent& content) {
  Json::Value value;
  value["records"] = Json::arrayValue;
  for (const PageRecord& record : content.records) value["records"].append(ValueOf(record, content.zone));
  value["periods"] = PeriodsOf(content);
  return ScriptSafe(value);
}

/// -- The whole

void AddStatus(Values& values, const pyxclient::Status& status) {
  values["stored"] = Grouped(status.stored.total);
  values["reported"] = Grouped(status.reported.total);
  values["max-records"] = Grouped(status.maxRecords);
  values["max-period"] = PeriodText(status.maxPeriod);
  values["max-period-seconds"] = Grouped(status.maxPeriod.count());
  values["max-index"] = Grouped(status.maxIndex);
  values["counters"] = CounterRows(status);
}

/// In the places of the status, where there is none.
void AddNoStatus(Values& values) {
  for (const char* number : {"stored", "reported", "max-records", "max-period", "max-period-seconds", "max-index"}) {
    values[number] = "?";
  }
  values["counters"] = "";
}

void AddRecords(Values& values, const PageContent& content) {
  values["threats"] = CountDistinct(content.records, &PageRecord::threat);
  values["hosts"] = CountDistinct(content.records, &PageRecord::host);
  const std::string newest = content.records.empty() ? "" : ZoneText(content.records.front().time, content.zone);
  values["newest-time"] = newest.empty() ? "–" : newest.substr(newest.find(' ') + 1);
  values["newest-date"] = newest.empty() ? "none so far" : "on " + newest.substr(0, newest.find(' '));
  values["rows"] = Rows(content);
  values["plain-note"] = PlainNote(content);
  values["left-out"] = LeftOut(content);
  values["data"] = Data(content);
}

Values ValuesOf(const PageContent& content) {
  Values values;
  content.status ? AddStatus(values, *content.status) : AddNoStatus(values);
  AddRecords(values, content);
  values["nonce"] = Html(content.nonce);
  values["title"] = Html(PrintableOnPage(content.title));
  values["made"] = ZoneText(content.made, content.zone);
  values["made-utc"] = Rfc3339Text(content.made);
  values["zone"] = Html(PrintableOnPage(ZoneName(content.made, content.zone)));
  values["version"] = PYXCTL_VERSION;
  values["feature"] = Switch(content.isEnabled);
  values["logging"] = Switch(content.isLogging);
  return values;
}

/// Puts the values into the places that name them as {{name}}. What a value holds is not looked at again.
std::string Filled(std::string_view page, const Values& values) {
  std::string result;
  for (;;) {
    const auto open = page.find("{{");
    result += page.substr(0, open);
    if (open == std::string_view::npos) return result;
    const auto close = page.find("}}", open);
    const auto value = values.find(page.substr(open + 2, close - open - 2));
    if (value == values.end()) throw std::logic_error("the page has a place for something unknown");
    result += value->second;
    page.remove_prefix(close + 2);
  }
}

}  // namespace

PageRecord PageRecordOf(const pyxclient::Record& record) {
  return {record.index, record.time, TextOf(record.url, kLongestUrl), TextOf(record.threat, kLongestName),
          TextOf(UrlHost(record.url), kLongestName)};
}

std::string PageDocument(const PageContent& content) {
  return Filled(kPageTemplate, ValuesOf(content));
}

}  // namespace zav::pyxctl
