// Reports a threat and shows the newest record.
#include <iostream>
#include <pyxclient/pyxclient.hpp>

int main() {
  pyxclient::Client client;
  client.Report("http://cpp.example/", "malware");
  for (const pyxclient::Record& record : client.Log({.maxCount = 1, .reverse = true})) {
    std::cout << record.url << ' ' << record.threat << '\n';
  }
}
