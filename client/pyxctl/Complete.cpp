#include <CLI/CLI.hpp>
#include <memory>

#include "Completions.h"
#include "Verbs.h"

namespace zav::pyxctl {

Action DeclareComplete(CLI::App& command) {
  auto words = std::make_shared<std::vector<std::string>>();
  command.add_option("WORDS", *words, "The words of a command line, behind --")->type_name("");
  return [words](Session& session) {
    static constexpr const char* kColumns[] = {"word", "meaning"};
    const auto completions = CompletionsOf(*words);
    std::vector<Json::Value> rows;
    for (const auto& [word, meaning] : completions) {
      rows.emplace_back();
      rows.back()["word"] = word;
      rows.back()["meaning"] = meaning;
    }
    Json::Value document;
    Json::Value& list = document["completions"] = Json::Value(Json::arrayValue);
    for (const Json::Value& row : rows) list.append(row);
    session.output.WriteRows(kColumns, rows, document, [&completions](std::ostream& out) {
      for (const auto& [word, meaning] : completions) out << word << '\t' << meaning << '\n';
    });
    return ExitStatus::kDone;
  };
}

}  // namespace zav::pyxctl
