#pragma once

#include <pyxclient/pyxclient.hpp>

#include <optional>
#include <string>
#include <vector>

#include "Periods.h"

namespace zav::pyxctl {

/// One report as the page shows it. Its texts are printable: what a screen cannot show, or what would make a line read
/// as another one, stands as \xNN a byte, and a backslash as two.
struct PageRecord {
  /// Of a text that was reported: what is shown of it, and how many bytes there were.
  struct Text {
    std::string shown;
    std::size_t size = 0;
    bool isCut = false;
  };

  std::int32_t index = 0;
  pyxclient::Time time;
  Text url;
  Text threat;
  /// Empty where the url names none.
  Text host;
};

/// Takes what the page shows of a record: the first 2,048 bytes of its url, 256 of its threat and of its host.
PageRecord PageRecordOf(const pyxclient::Record& record);

/// What a page is made of.
struct PageContent {
  std::string title;
  pyxclient::Time made;
  Zone zone;
  bool isEnabled = false;
  bool isLogging = false;
  /// Nothing where it cannot be read: the names of threats can make it larger than an answer may be.
  std::optional<pyxclient::Status> status;
  /// The newest first.
  std::vector<PageRecord> records;
  /// How many of the log's records could not be read.
  std::size_t unreadable = 0;
  /// A word of ASCII letters and digits that nobody could foresee: style and script that do not name it are not obeyed.
  std::string nonce;
};

/// The page: HTML in UTF-8, complete in itself. It names nothing that would have to be fetched, has no links, and shows
/// nothing from a record as anything but text. Without JavaScript it shows the switches, the settings, the counters and
/// the newest 100 records.
std::string PageDocument(const PageContent& content);

}  // namespace zav::pyxctl
