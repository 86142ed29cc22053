// Reports a visit, then counts the records of each kind of threat of the last day: threats [URL [THREAT]]
//
//   c++ -std=c++20 threats.cpp -lpyxclient -o threats && ./threats http://malware.example/x phishing
#include <chrono>
#include <iostream>
#include <map>
#include <pyxclient/pyxclient.hpp>

int main(int argc, char** argv) try {
  pyxclient::Client client({.timeout = std::chrono::seconds(2)});
  if (argc > 1) client.Report(argv[1], argc > 2 ? argv[2] : "");

  const auto now = std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now());
  std::map<std::string, int> counts;
  for (const pyxclient::Record& record : client.Log({.from = now - std::chrono::days(1)})) ++counts[record.threat];
  for (const auto& [threat, count] : counts) std::cout << count << ' ' << threat << '\n';
} catch (const pyxclient::Error& error) {
  std::cerr << error.what() << '\n';
  return 1;
}
