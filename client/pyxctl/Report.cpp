#include <CLI/CLI.hpp>
#include <memory>

#include "Verbs.h"

namespace zav::pyxctl {
namespace {

struct Visit {
  std::string url;
  std::string threat;
  bool atLeastOnce = false;
};

}  // namespace

Action DeclareReport(CLI::App& command) {
  auto visit = std::make_shared<Visit>();
  command.add_option("URL", visit->url, "The URL that was visited; after -- it may begin with a dash")
      ->required()
      ->type_name("");
  command.add_option("--threat", visit->threat, "What kind of threat it is (default: undefined)")->type_name("NAME");
  command.add_flag("--at-least-once", visit->atLeastOnce,
                   "Report it again where nothing tells whether it was logged; it may be logged twice then");
  return [visit](Session& session) {
    static constexpr const char* kColumns[] = {"logged"};
    pyxclient::Options options = session.options;
    options.atLeastOnce = visit->atLeastOnce;
    pyxclient::Client(options).Report(visit->url, visit->threat);
    Json::Value row;
    row["logged"] = true;
    session.output.WriteRow(kColumns, row, [](std::ostream& out) { out << "The report is logged.\n"; });
    return ExitStatus::kDone;
  };
}

}  // namespace zav::pyxctl
