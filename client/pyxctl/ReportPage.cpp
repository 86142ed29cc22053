#include <iostream>
#include <memory>
#include <optional>
#include <random>

#include "Options.h"
#include "PageDocument.h"
#include "Records.h"
#include "Text.h"
#include "Verbs.h"
#include "WholeFile.h"

namespace zav::pyxctl {
namespace {

constexpr const char* kStandardOutput = "-";
/// A page of that many is still quick to search.
constexpr std::int32_t kUsualLines = 10000;

struct Asked {
  std::string path;
  std::string title = "Threat log";
  std::int32_t lines = kUsualLines;
};

std::string Nonce() {
  constexpr std::string_view kDigits = "0123456789abcdef";
  std::random_device device;
  std::string nonce;
  for (int i = 0; i < 32; ++i) nonce += kDigits[device() % kDigits.size()];
  return nonce;
}

/// Whatever the status, the records are worth a page.
std::optional<pyxclient::Status> ReadableStatus(pyxclient::Client& client) {
  try {
    return client.Status();
  } catch (const pyxclient::Error& error) {
    if (error.failure() != pyxclient::Failure::kMalformed) throw;
    return std::nullopt;
  }
}

/// Keeps of each record only what the page shows: the whole may be a thousand times as much.
void ReadRecords(pyxclient::Client& client, const Asked& asked, PageContent& content) {
  pyxclient::Log log = client.Log({.maxCount = asked.lines, .reverse = true});
  while (const auto record = NextThatFits(log, content.unreadable)) content.records.push_back(PageRecordOf(*record));
}

PageContent Gather(pyxclient::Client& client, const Asked& asked) {
  PageContent content;
  content.title = asked.title;
  content.isEnabled = client.IsEnabled();
  content.isLogging = client.IsLogging();
  content.status = ReadableStatus(client);
  ReadRecords(client, asked, content);
  content.made = std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now());
  content.zone = SystemZone(content.made);
  content.nonce = Nonce();
  return content;
}

void WriteFile(const Asked& asked, const std::string& page, std::size_t records, Output& output) {
  static constexpr const char* kColumns[] = {"path", "bytes", "records"};
  WriteWholeFile(asked.path, page);
  Json::Value row;
  row["path"] = asked.path;
  row["bytes"] = static_cast<Json::UInt64>(page.size());
  row["records"] = static_cast<Json::UInt64>(records);
  output.WriteRow(kColumns, row, [&](std::ostream& out) {
    out << "The page is written to " << Printable(asked.path) << ", with " << records
        << (records == 1 ? " record" : " records") << ".\n";
  });
}

}  // namespace

Action DeclareReportPage(CLI::App& command) {
  auto asked = std::make_shared<Asked>();
  command.add_option("OUT.html", asked->path, "The file to write, whole or not at all; - is standard output")
      ->required()
      ->check(CLI::Validator([](const std::string& path) { return path.empty() ? "no file is named" : ""; }, ""))
      ->type_name("");
  command.add_option("--title", asked->title, "What the page is called")->capture_default_str()->type_name("TEXT");
  DeclareNumber(command, "-n,--lines", asked->lines, "NUMBER",
                "Show the newest so many records, 0 for all (default: 10000)");
  return [asked](Session& session) {
    const PageContent content = Gather(session.client, *asked);
    const std::string page = PageDocument(content);
    if (asked->path == kStandardOutput) {
      // The page has one form only.
      std::cout << page;
    } else {
      WriteFile(*asked, page, content.records.size(), session.output);
    }
    return ExitStatus::kDone;
  };
}

}  // namespace zav::pyxctl
