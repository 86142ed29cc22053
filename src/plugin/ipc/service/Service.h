#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <thread>

#include "ipc/service/Package.h"
#include "ipc/service/ServedConnection.h"
#include "ipc/service/ServiceToken.h"
#include "ipc/socket/SocketService.h"

namespace zav::ipc {

/// The request service: listens on the local socket and serves one connection at a time.
///
/// Owned by `PYXManager`. `start` runs on the service thread and gives each connection to a thread of its own, which
/// runs `serve`; `stop` and `prepare` are called by another thread. A service may be started again after it was
/// stopped, any number of times.
class Service {
 public:
  /// Fills in the socket's address and removes a stale socket file.
  Service() = default;
  /// Removes the socket file. `start` must have returned.
  virtual ~Service() = default;

  Service(const Service&) = delete;
  Service& operator=(const Service&) = delete;

  /// Takes back an earlier `stop`: the next `start` serves. Not while `start` runs.
  void prepare();

  /// Listens and serves until `stop`. Returns at once, without serving, when a stop was asked for before, or when the
  /// socket cannot be made or set listening, which is logged. All signals are blocked on its thread while it runs, and
  /// on those that it starts.
  void start();

  /// Makes `start` return, also a `start` that is yet to come, until `prepare`. A request that was received whole is
  /// answered first; a client that is silent, or does not take its reply, is cut off. Returns once no connection is
  /// being served and the listening socket is shut. Any thread.
  void stop();

  /// Serves one connection: a request and its reply.
  /// @param fd  the connection's descriptor, which is closed; -1 is none.
  /// Releases the service (`ReleaseService`) at its end, whatever happened. Lets no exception out.
  void serve(int fd);

 private:
  enum class Run : std::uint8_t { kIdle, kRunning, kStopped };

  bool running() const { return run == Run::kRunning; }
  bool open();
  void onePass();
  void sleep(std::chrono::steady_clock::time_point begin);
  void pause();
  bool clientWaits();
  bool takeToken();
  void handOver(int client);
  void joinConnection();
  void close();
  void refuseBacklog();
  void refuse(int client);

  void handle(Socket& client);
  void switchMethod(const Header& header, Socket& client);

  /// Written under the token's inner mutex, so that a wait on `serviceCondition` misses no stop.
  std::atomic<Run> run{Run::kIdle};
  /// Made and retired by `start` while it holds the token; shut by `stop` while it holds the token.
  SocketService socket;
  ServedConnection connection;
  /// The thread of the last connection, until the next one or the end of the loop. Touched by `start` alone.
  std::unique_ptr<std::thread> connectionThread;
};

}  // namespace zav::ipc
