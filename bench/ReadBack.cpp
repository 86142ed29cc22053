#include "ReadBack.h"

#include <json/reader.h>
#include <json/value.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <numeric>
#include <optional>
#include <stdexcept>

#include "Exchange.h"

namespace bench {
namespace {

/// The most of urls that is asked for at once: an answer has 16 MB at most.
constexpr std::size_t kPageBytes = 8'000'000;
constexpr std::size_t kPageRecords = 1000;

[[noreturn]] void Fail(const std::string& what) {
  throw std::runtime_error("the log is not what was reported: " + what);
}

std::int32_t IntAt(const std::string& answer, std::size_t offset) {
  std::int32_t value = 0;
  if (answer.size() < offset + sizeof(value)) throw std::runtime_error("an answer that is too short");
  std::memcpy(&value, answer.data() + offset, sizeof(value));
  return value;
}

/// The JSON text whose length stands at `offset`, to the end of the answer.
Json::Value JsonAt(const std::string& answer, std::size_t offset) {
  const auto length = static_cast<std::size_t>(IntAt(answer, offset));
  const std::size_t begin = offset + sizeof(std::int32_t);
  if (answer.size() != begin + length) throw std::runtime_error("an answer of another length than it says");
  const Json::CharReaderBuilder builder;
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value value;
  if (!reader->parse(answer.data() + begin, answer.data() + answer.size(), &value, nullptr)) {
    throw std::runtime_error("an answer that is no JSON");
  }
  return value;
}

using NewestFirst = std::map<int, Json::Value, std::greater<>>;

/// The next records, going back from an index; none at the end.
NewestFirst Page(const std::string& socket, std::size_t urlSize, int start) {
  const std::size_t most = std::clamp<std::size_t>(kPageBytes / urlSize, 1, kPageRecords);
  const std::string answer = Ask(socket, LogRequest(true, static_cast<int>(most), start));
  NewestFirst records;
  if (IntAt(answer, 0) != 0) return records;
  const Json::Value found = JsonAt(answer, 8);
  for (const std::string& index : found.getMemberNames()) records[std::stoi(index)] = found[index];
  return records;
}

/// Takes each client's records away from the end of what it reported.
class Comparison {
 public:
  Comparison(const Records& reported, const std::vector<unsigned>& answered) : records(reported), left(answered) {}

  std::size_t Left() const { return std::accumulate(left.begin(), left.end(), std::size_t{0}); }

  void Take(int index, const Json::Value& record) {
    const std::string url = record["url"].asString();
    for (unsigned client = 0; client < left.size(); ++client) {
      if (left[client] == 0 || records.Url(client, left[client] - 1) != url) continue;
      if (record["threat"].asString() != Records::Threat(left[client] - 1)) break;
      --left[client];
      return;
    }
    Fail("record " + std::to_string(index) + " is " + url.substr(0, Records::kShortestUrl));
  }

 private:
  const Records& records;
  std::vector<unsigned> left;
};

}  // namespace

std::int64_t RecordsEverAdded(const std::string& socket) {
  return JsonAt(Ask(socket, StatusRequest()), 0)["state"]["count"].asInt64();
}

void ReadBack(const std::string& socket, const Records& records, std::int64_t before,
              const std::vector<unsigned>& answered) {
  Comparison comparison(records, answered);
  const auto reported = static_cast<std::int64_t>(comparison.Left());
  const Json::Value status = JsonAt(Ask(socket, StatusRequest()), 0);
  const std::int64_t added = status["state"]["count"].asInt64() - before;
  if (added != reported) Fail(std::to_string(reported) + " were answered, " + std::to_string(added) + " were added");

  const std::int64_t kept = status["in_storage"]["count"].asInt64();
  const auto most = status["config"]["max_file_size"].asInt64();
  if (kept < std::min(reported, most)) Fail("only " + std::to_string(kept) + " are kept");
  std::int64_t toCompare = std::min(reported, kept);
  for (int start = -1; toCompare > 0;) {
    const NewestFirst page = Page(socket, records.urlSize, start);
    if (page.empty()) Fail(std::to_string(toCompare) + " are missing");
    for (const auto& [index, record] : page) {
      if (toCompare-- > 0) comparison.Take(index, record);
    }
    start = page.rbegin()->first - 1;
    if (start < 0 && toCompare > 0) Fail(std::to_string(toCompare) + " are missing");
  }
}

}  // namespace bench
