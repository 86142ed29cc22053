#include "Verbs.h"

#include <array>

namespace zav::pyxctl {
namespace {

constexpr std::array kVerbs = {
    Verb{"state", "Show whether the feature is enabled", DeclareState},
    Verb{"logging", "Show whether threats are logged", DeclareLogging},
    Verb{"report", "Report a visit to a threatening URL", DeclareReport},
    Verb{"status", "Show the log's counters and settings", DeclareStatus},
    Verb{"log", "Show the records of the log", DeclareLog},
    Verb{"follow", "Show new records as they come", DeclareFollow},
    Verb{"top", "Show the most frequent threats and hosts", DeclareTop},
    Verb{"count", "Count the records of the log", DeclareCount},
    Verb{"export", "Write the records for another program", DeclareExport, Format::kNdjson},
    Verb{"report-page", "Write a page that shows the log in a browser", DeclareReportPage},
    Verb{"ping", "See whether the service answers", DeclarePing},
    Verb{"doctor", "Examine the plug-in's files and service", DeclareDoctor},
    Verb{"reset", "Delete every record of the log", DeclareReset},
    Verb{"complete", "Complete the last word of a command line", DeclareComplete, Format::kHuman, true},
};

}  // namespace

std::span<const Verb> Verbs() {
  return kVerbs;
}

}  // namespace zav::pyxctl
