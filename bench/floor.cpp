// bench-floor: the least that could do what the plug-in does, to hold the plug-in against. It takes a thread a
// connection and speaks the same bytes; a read is answered with bytes that were read from a file at the start, and a
// report is written to a database with the same table, statement and settings, whose file is then copied to a backup.
// Nothing is looked at, kept or logged, and no client that is slow or lies is provided for. Where the plug-in's system
// calls are asked for, it makes those as well, and so tells what they alone cost of a read.

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>

namespace {

constexpr std::size_t kHeaderSize = 16;
constexpr std::size_t kMethodOffset = 12;
constexpr std::size_t kFirstRead = 4096;
constexpr std::size_t kCopyChunk = 262'144;
constexpr std::int32_t kReport = 6;
/// Its answer is a text: its length, and then its bytes.
constexpr std::int32_t kStatus = 16;

struct Options {
  std::string socket;
  /// METHOD=FILE
  std::vector<std::string> answers;
  /// Where reports go; empty: they are not served.
  std::string directory;
  std::size_t rowSize = 0;
  bool oneAtATime = false;
  bool pluginCalls = false;
};

void Check(bool holds, const char* what) {
  if (!holds) throw std::runtime_error(std::string(what) + ": " + std::strerror(errno));
}

/// The database with its backup, as the platform's connection sets it up and the plug-in writes it.
class Store {
 public:
  Store(const std::string& directory, std::size_t rowSize)
      : path(directory + "/.data.db"), backup(path + ".bak"), row(rowSize, 'x') {
    if (sqlite3_open_v2(path.c_str(), &database, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr) != SQLITE_OK) {
      throw std::runtime_error(path + " cannot be opened");
    }
    Execute("PRAGMA journal_mode = PERSIST");
    Execute("PRAGMA synchronous = FULL");
    Execute(
        "CREATE TABLE IF NOT EXISTS PYXPlugin (name TEXT NOT NULL, value TEXT, "
        "PRIMARY KEY (name) ON CONFLICT REPLACE)");
    const char* const insertion = "INSERT INTO PYXPlugin(name, value) VALUES(?, ?)";
    if (sqlite3_prepare_v2(database, insertion, -1, &insert, nullptr) != SQLITE_OK) Fail();
    sqlite3_bind_text(insert, 1, "Storage", -1, SQLITE_STATIC);
  }
  ~Store() {
    sqlite3_finalize(insert);
    sqlite3_close(database);
  }
  Store(const Store&) = delete;
  Store& operator=(const Store&) = delete;

  /// Writes a row that begins with the text.
  void Write(const char* text, std::size_t size) {
    const std::lock_guard guard(mutex);
    std::copy_n(text, std::min(size, row.size()), row.data());
    sqlite3_bind_text(insert, 2, row.data(), static_cast<int>(row.size()), SQLITE_STATIC);
    if (sqlite3_step(insert) != SQLITE_DONE) Fail();
    sqlite3_reset(insert);
    CopyToBackup();
  }

 private:
  [[noreturn]] void Fail() const { throw std::runtime_error(sqlite3_errmsg(database)); }

  void Execute(const char* sql) const {
    if (sqlite3_exec(database, sql, nullptr, nullptr, nullptr) != SQLITE_OK) Fail();
  }

  // The kernel's own ways of copying are not faster on a disk.
  void CopyToBackup() {
    const std::string beside = backup + ".new";
    const int from = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    const int to = open(beside.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, S_IRUSR | S_IWUSR);
    Check(from != -1 && to != -1, "open");
    struct stat info {};
    Check(fstat(from, &info) == 0, "fstat");
    for (off_t left = info.st_size; left > 0;) {
      const ssize_t count = read(from, chunk.data(), chunk.size());
      Check(count > 0 && write(to, chunk.data(), static_cast<std::size_t>(count)) == count, "copy");
      left -= count;
    }
    Check(fchmod(to, info.st_mode & 0777U) == 0, "fchmod");
    close(from);
    close(to);
    Check(rename(beside.c_str(), backup.c_str()) == 0, "rename");
  }

  std::string path;
  std::string backup;
  sqlite3* database = nullptr;
  sqlite3_stmt* insert = nullptr;
  std::mutex mutex;
  /// Guarded by `mutex`, as the statement.
  std::string row;
  std::string chunk = std::string(kCopyChunk, '\0');
};

/// What one connection is answered with.
class Server {
 public:
  explicit Server(const Options& options) : pluginCalls(options.pluginCalls) {
    for (const std::string& each : options.answers) {
      const std::size_t equals = each.find('=');
      if (equals == std::string::npos) throw std::runtime_error("METHOD=FILE is wanted in place of " + each);
      std::ifstream file(each.substr(equals + 1), std::ios::binary);
      answers[std::stoi(each.substr(0, equals))] = {std::istreambuf_iterator<char>(file), {}};
    }
    if (!options.directory.empty()) store = std::make_unique<Store>(options.directory, options.rowSize);
  }

  /// Serves a connection and closes it.
  void Serve(int client) {
    try {
      Answer(client);
    } catch (const std::exception& error) {
      std::cerr << "bench-floor: " << error.what() << '\n';
    }
    Look(client);
    close(client);
  }

  /// @return a client, or -1.
  int Accept(int listener) const {
    if (pluginCalls) {
      fd_set readable{};
      FD_SET(listener, &readable);
      if (select(listener + 1, &readable, nullptr, nullptr, nullptr) != 1) return -1;
      sockaddr_un peer{};
      socklen_t size = sizeof(peer);
      return accept4(listener, reinterpret_cast<sockaddr*>(&peer), &size, SOCK_CLOEXEC);
    }
    return accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
  }

 private:
  /// What the plug-in does before each transfer, and before it closes a connection.
  void Look(int client) const {
    if (pluginCalls && fcntl(client, F_GETFD) == -1) std::cerr << "bench-floor: a connection is closed already\n";
  }

  void Answer(int client) {
    char request[kFirstRead];
    Look(client);
    const ssize_t size = recv(client, request, pluginCalls ? kHeaderSize : sizeof(request), 0);
    if (size < static_cast<ssize_t>(kHeaderSize)) return;
    std::int32_t method = 0;
    std::memcpy(&method, request + kMethodOffset, sizeof(method));
    if (method == kReport && store) {
      Report(client, request, static_cast<std::size_t>(size));
      return;
    }
    // What follows the header has come with it.
    const auto answer = answers.find(method);
    if (answer == answers.end()) return;
    if (pluginCalls) {
      SendAsThePluginDoes(client, method, answer->second);
    } else {
      Send(client, answer->second);
    }
  }

  void SendAsThePluginDoes(int client, std::int32_t method, std::string_view answer) const {
    if (method == kStatus) {
      Look(client);
      Send(client, answer.substr(0, sizeof(std::uint32_t)));
      answer.remove_prefix(sizeof(std::uint32_t));
      Look(client);
      int room = 0;
      socklen_t size = sizeof(room);
      Check(getsockopt(client, SOL_SOCKET, SO_SNDBUF, &room, &size) == 0, "getsockopt");
    }
    Look(client);
    Send(client, answer);
  }

  void Report(int client, const char* first, std::size_t size) {
    std::string text(first + kHeaderSize, size - kHeaderSize);
    const std::uint32_t url = Length(client, text, 0);
    const std::uint32_t threat = Length(client, text, sizeof(url) + url);
    Fill(client, text, 2 * sizeof(url) + url + threat);
    store->Write(text.data() + sizeof(url), url);
    Send(client, std::string(sizeof(std::int32_t), '\0'));
  }

  static std::uint32_t Length(int client, std::string& text, std::size_t offset) {
    std::uint32_t length = 0;
    Fill(client, text, offset + sizeof(length));
    std::memcpy(&length, text.data() + offset, sizeof(length));
    return length;
  }

  /// Receives until the text is so long.
  static void Fill(int client, std::string& text, std::size_t size) {
    std::size_t received = text.size();
    if (received >= size) return;
    text.resize(size);
    while (received < size) {
      const ssize_t count = recv(client, text.data() + received, size - received, 0);
      Check(count > 0, "a report is cut off");
      received += static_cast<std::size_t>(count);
    }
  }

  static void Send(int client, std::string_view bytes) {
    std::size_t sent = 0;
    while (sent < bytes.size()) {
      const ssize_t count = send(client, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
      if (count <= 0) return;
      sent += static_cast<std::size_t>(count);
    }
  }

  bool pluginCalls;
  std::map<std::int32_t, std::string> answers;
  std::unique_ptr<Store> store;
};

int Listen(const std::string& path) {
  const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof(address.sun_path)) throw std::runtime_error(path + " is too long for a socket");
  path.copy(address.sun_path, path.size());
  Check(bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0, "bind");
  constexpr int kBacklog = 16;
  Check(listen(listener, kBacklog) == 0, "listen");
  return listener;
}

/// A thread for each, however many there are.
[[noreturn]] void ServeAll(Server& server, int listener) {
  while (true) {
    const int client = server.Accept(listener);
    if (client != -1) std::thread([&server, client] { server.Serve(client); }).detach();
  }
}

/// One after the other, as the plug-in does: who has waited for 100 ms is shut.
[[noreturn]] void ServeOneAtATime(Server& server, int listener) {
  std::mutex mutex;
  std::condition_variable ended;
  bool busy = false;
  std::thread thread;
  while (true) {
    const int client = server.Accept(listener);
    if (client == -1) continue;
    {
      std::unique_lock guard(mutex);
      if (!ended.wait_for(guard, std::chrono::milliseconds(100), [&] { return !busy; })) {
        shutdown(client, SHUT_RDWR);
        close(client);
        continue;
      }
      busy = true;
    }
    if (thread.joinable()) thread.join();
    thread = std::thread([&, client] {
      server.Serve(client);
      {
        const std::lock_guard guard(mutex);
        busy = false;
      }
      ended.notify_one();
    });
  }
}

void Describe(CLI::App& app, Options& options) {
  app.add_option("--socket", options.socket, "Where it listens")->required();
  app.add_option("--answer", options.answers, "METHOD=FILE: what a method is answered with");
  app.add_option("--directory", options.directory, "Where reports are kept");
  app.add_option("--row", options.rowSize, "How long the text of the row is that a report writes, bytes");
  app.add_flag("--plugin-calls", options.pluginCalls,
               "Makes the system calls that the plug-in makes for a read as well")
      ->excludes("--directory");
  app.add_flag("--one-at-a-time", options.oneAtATime, "Serves one connection at a time, as the plug-in does");
}

}  // namespace

int main(int argc, char** argv) {
  try {
    Options options;
    CLI::App app("The least that could do what the plug-in does. Serves until it is ended by a signal.");
    Describe(app, options);
    CLI11_PARSE(app, argc, argv);
    Server server(options);
    const int listener = Listen(options.socket);
    if (options.oneAtATime) ServeOneAtATime(server, listener);
    ServeAll(server, listener);
  } catch (const std::exception& error) {
    std::cerr << "bench-floor: " << error.what() << '\n';
    return 1;
  }
}
