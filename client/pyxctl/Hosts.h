#pragma once

#include <string>
#include <string_view>

namespace zav::pyxctl {

/// The host of a url, which may be any text: what stands between "//" (or the beginning, where there is none) and the
/// next '/', '?' or '#', without a user's name and a port; in small letters. "(none)" where that is nothing.
std::string HostOf(std::string_view url);

}  // namespace zav::pyxctl
