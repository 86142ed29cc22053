#include "UrlHost.h"

#include <algorithm>
#include <optional>

namespace zav::pyxctl {
namespace {

constexpr std::string_view kSlashes = "/\\";

bool IsDigit(char c) {
  return c >= '0' && c <= '9';
}

bool IsLetter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

char Lower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

/// What a name may have in it: also the bytes of letters that are not ASCII.
bool IsOfName(char c) {
  return IsLetter(c) || IsDigit(c) || c == '-' || c == '.' || c == '_' || static_cast<unsigned char>(c) >= 0x80;
}

bool IsOfScheme(char c) {
  return IsLetter(c) || IsDigit(c) || c == '+' || c == '-' || c == '.';
}

std::string WithoutWhatBrowsersPassOver(std::string_view url) {
  const auto isBlank = [](char c) { return static_cast<unsigned char>(c) <= ' '; };
  while (!url.empty() && isBlank(url.front())) url.remove_prefix(1);
  while (!url.empty() && isBlank(url.back())) url.remove_suffix(1);
  std::string result(url);
  std::erase_if(result, [](char c) { return c == '\t' || c == '\n' || c == '\r'; });
  return result;
}

/// What stands behind the scheme and its colon.
std::optional<std::string_view> BehindScheme(std::string_view url) {
  const auto end = std::find_if_not(url.begin(), url.end(), IsOfScheme);
  if (end == url.begin() || end == url.end() || *end != ':' || !IsLetter(url.front())) return std::nullopt;
  return url.substr(static_cast<std::size_t>(end - url.begin()) + 1);
}

bool BeginsWithTwoSlashes(std::string_view text) {
  return text.size() >= 2 && kSlashes.find(text[0]) != std::string_view::npos &&
         kSlashes.find(text[1]) != std::string_view::npos;
}

std::string_view AuthorityOf(std::string_view behindSlashes) {
  return behindSlashes.substr(0, behindSlashes.find_first_of("/\\?#"));
}

std::string_view WithoutPort(std::string_view authority) {
  const auto colon = authority.rfind(':');
  if (colon == std::string_view::npos) return authority;
  const std::string_view port = authority.substr(colon + 1);
  return std::all_of(port.begin(), port.end(), IsDigit) ? authority.substr(0, colon) : authority;
}

std::string HostOfAuthority(std::string_view authority) {
  const auto at = authority.rfind('@');
  if (at != std::string_view::npos) authority.remove_prefix(at + 1);
  // An address in brackets has colons of its own.
  const std::string_view bare = authority.ends_with(']') ? authority : WithoutPort(authority);
  std::string host(bare);
  if (host.size() > 1 && host.ends_with('.')) host.pop_back();
  std::transform(host.begin(), host.end(), host.begin(), Lower);
  return host;
}

/// "bank.example/login", "bank.example:8080"; but neither "mailto:a@b.example" nor "nonsense".
std::string HostWithoutScheme(std::string_view url) {
  const std::string host = HostOfAuthority(AuthorityOf(url));
  const bool isName = std::all_of(host.begin(), host.end(), IsOfName);
  return isName && host.find('.') != std::string::npos && host.front() != '.' ? host : "";
}

}  // namespace

std::string UrlHost(std::string_view url) {
  const std::string text = WithoutWhatBrowsersPassOver(url);
  const std::string_view behind = BehindScheme(text).value_or(text);
  if (BeginsWithTwoSlashes(behind)) return HostOfAuthority(AuthorityOf(behind.substr(2)));
  const bool hasPort = !behind.empty() && IsDigit(behind.front());
  return behind.size() == text.size() || hasPort ? HostWithoutScheme(text) : "";
}

}  // namespace zav::pyxctl
