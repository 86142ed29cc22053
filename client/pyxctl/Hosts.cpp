#include "Hosts.h"

#include <algorithm>
#include <cctype>

namespace zav::pyxctl {
namespace {

constexpr std::string_view kSlashes = "//";

/// What stands before the first of some characters.
std::string_view Before(std::string_view text, std::string_view ends) {
  return text.substr(0, text.find_first_of(ends));
}

/// Without ":443"; an address in brackets keeps its colons.
std::string_view WithoutPort(std::string_view host) {
  if (host.starts_with('[')) {
    const auto end = host.find(']');
    return end == std::string_view::npos ? host : host.substr(0, end + 1);
  }
  return Before(host, ":");
}

}  // namespace

std::string HostOf(std::string_view url) {
  const auto slashes = Before(url, "/?#").ends_with(':') || url.starts_with(kSlashes) ? url.find(kSlashes) : url.npos;
  if (slashes != url.npos) url.remove_prefix(slashes + kSlashes.size());
  std::string_view authority = Before(url, "/?#\\");
  if (const auto at = authority.rfind('@'); at != authority.npos) authority.remove_prefix(at + 1);
  std::string host(WithoutPort(authority));
  std::transform(host.begin(), host.end(), host.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return host.empty() ? "(none)" : host;
}

}  // namespace zav::pyxctl
