#pragma once

#include <string>
#include <string_view>

namespace zav::pyxctl {

/// The host that a url names, whatever else the url holds: without user, password, port and a full stop at its end,
/// ASCII letters small, all other bytes as they are. What browsers pass over (blanks and control characters around the
/// url, tabs and line breaks in it) is passed over, and a backslash is a slash. Empty where there is none, as in
/// "mailto:a@b.example".
///
/// A text without a scheme names a host where it begins with two slashes, or with a name that has a full stop.
std::string UrlHost(std::string_view url);

}  // namespace zav::pyxctl
