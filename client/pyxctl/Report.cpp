#include <CLI/CLI.hpp>
#include <memory>

#include "Verbs.h"

namespace zav::pyxctl {
namespace {

struct Visit {
  std::string url;
  std::string threat;
};

}  // namespace

Action DeclareReport(CLI::App& command) {
  auto visit = std::make_shared<Visit>();
  command.add_option("URL", visit->url, "The URL that was visited; after -- it may begin with a dash")
      ->required()
      ->type_name("");
  command.add_option("--threat", visit->threat, "What kind of threat it is (default: undefined)")->type_name("NAME");
  return [visit](pyxclient::Client& client, const Output& output) {
    client.Report(visit->url, visit->threat);
    Json::Value document;
    document["logged"] = true;
    output.Write(document, [](std::ostream& out) { out << "The report is logged.\n"; });
  };
}

}  // namespace zav::pyxctl
