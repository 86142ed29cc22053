#include "ipc/service/Service.h"

#include <poll.h>
#include <sys/select.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <exception>

#include "common/Descriptor.h"
#include "common/ErrorText.h"
#include "common/Log.h"
#include "common/SignalBlock.h"
#include "ipc/service/RequestTable.h"

namespace zav::ipc {
namespace {

using std::chrono::steady_clock;

/// How long a pass waits for the connection that is being served to end, before it refuses the next one.
constexpr std::chrono::milliseconds kIdleWait{100};
/// How often a stop looks after the connection that it waits for.
constexpr std::chrono::milliseconds kStopLook{50};

/// What a wait on the listening descriptor came to.
struct Readiness {
  /// As select and poll return it.
  int result = 0;
  bool listener = false;
  /// What select looked at.
  fd_set readable{};
};

Readiness Select(int listener) {
  Readiness ready;
  FD_SET(listener, &ready.readable);
  ready.result = select(listener + 1, &ready.readable, nullptr, nullptr, nullptr);
  ready.listener = ready.result > 0 && FD_ISSET(listener, &ready.readable);
  return ready;
}

Readiness Poll(int listener) {
  pollfd readable{listener, POLLIN, 0};
  Readiness ready;
  ready.result = poll(&readable, 1, -1);
  ready.listener = readable.revents != 0;
  return ready;
}

/// A descriptor set has room for descriptors below FD_SETSIZE only; the host may have that many open.
Readiness WaitReadable(int listener) {
  return listener < FD_SETSIZE ? Select(listener) : Poll(listener);
}

/// Whether the next wait may well succeed: nobody was there any more, or a signal came between.
bool IsPassing(int error) {
  return error == EAGAIN || error == EWOULDBLOCK || error == EINTR || error == ECONNABORTED;
}

}  // namespace

void Service::prepare() {
  const std::lock_guard guard(serviceMutex.inner());
  run = Run::kIdle;
  connection.resume();
}

void Service::stop() {
  {
    const std::lock_guard guard(serviceMutex.inner());
    run = Run::kStopped;
    serviceBusy = true;
  }
  serviceCondition.notify_all();
  connection.stop();
  // Whoever holds the token is a connection that ends by itself, or a client that is cut off in time.
  while (!serviceMutex.try_lock_until(steady_clock::now() + kStopLook)) {
    connection.cutOverdue(steady_clock::now());
  }
  const std::lock_guard token(serviceMutex, std::adopt_lock);
  socket.shutdown();
}

void Service::start() {
  const common::SignalBlock signals;
  if (!open()) return;
  LOG_INFO("PYXPlugin service started");
  while (running()) {
    try {
      onePass();
    } catch (const std::exception& exception) {
      LOG_WARNING(exception.what());
    }
  }
  close();
}

/// Under the token, so that a stop either comes before the socket is made or finds it listening.
bool Service::open() {
  const std::lock_guard token(serviceMutex);
  {
    const std::lock_guard guard(serviceMutex.inner());
    if (run == Run::kStopped) return false;
    run = Run::kRunning;
    serviceBusy = false;
  }
  socket.retire();
  return socket.listen();
}

void Service::onePass() {
  const auto begin = steady_clock::now();
  if (!clientWaits()) return;
  connection.cutOverdue(steady_clock::now());
  common::Descriptor client(socket.accept());
  if (client.get() <= 0) {
    const int error = errno;
    if (client.release() == -1 && !IsPassing(error)) pause();
    return;
  }
  sleep(begin);
  if (!takeToken()) {
    refuse(client.release());
    return;
  }
  handOver(client.get());
  client.release();
}

/// Waits for the connection that is being served to end: a moment, and first for what is left of a moment since the
/// pass began. Only once a client waits: who ends a connection that nobody waits for wakes nobody.
void Service::sleep(steady_clock::time_point begin) {
  if (!serviceBusy) return;
  const auto deadline = std::max(begin + kIdleWait, steady_clock::now()) + kIdleWait;
  std::unique_lock guard(serviceMutex.inner());
  serviceCondition.wait_until(guard, deadline, [this] { return !serviceBusy || !running(); });
}

/// Waits where the next pass would fail at once again, such as for want of descriptors.
void Service::pause() {
  std::unique_lock guard(serviceMutex.inner());
  serviceCondition.wait_until(guard, steady_clock::now() + kIdleWait, [this] { return !running(); });
}

/// Waits for a client, without a time-out: a service at rest has no timer.
bool Service::clientWaits() {
  const Readiness ready = WaitReadable(socket.descriptor());
  const int error = errno;
  if (ready.result == -1 && !IsPassing(error)) pause();
  if (ready.result <= 0) return false;
  if (!ready.listener) {
    common::LogLine(common::Priority::kWarning, LOG_SITE_OF("accept"), "unknown case! socket : ", socket.descriptor(),
                    " : ", &ready.readable);
  }
  return ready.listener;
}

bool Service::takeToken() {
  if (!running() || serviceBusy || !serviceMutex.try_lock()) return false;
  // A stop that came and went since the first look watches over no connection any more; one that comes from here on
  // waits for the token.
  if (running()) return true;
  serviceMutex.unlock();
  return false;
}

/// Gives the client to a thread of its own; the token goes with it. When it throws, the token is free again and the
/// client still the caller's.
void Service::handOver(int client) {
  serviceBusy = true;
  try {
    joinConnection();
    connectionThread = std::make_unique<std::thread>([this, client] { serve(client); });
  } catch (...) {
    ReleaseService();
    throw;
  }
}

void Service::joinConnection() {
  if (!connectionThread) return;
  connectionThread->join();
  connectionThread.reset();
}

void Service::close() {
  joinConnection();
  socket.shutdown();
  // Shut, it takes no more clients; those that wait in it already are told.
  refuseBacklog();
  common::LogLine(common::Priority::kInfo, LOG_SITE_OF("start"), "PYXPlugin service stopped");
}

void Service::refuseBacklog() {
  for (int client = socket.accept(); client >= 0; client = socket.accept()) {
    if (client > 0) refuse(client);
  }
  if (errno == EAGAIN || errno == EWOULDBLOCK) return;
  // For want of descriptors or memory they cannot be accepted: with the listener they end, too.
  const std::lock_guard token(serviceMutex);
  socket.retire();
}

void Service::refuse(int client) {
  common::LogLine(common::Priority::kInfo, LOG_SITE_OF("start"), "SHUTDOWN : ", client);
  Socket(client).shutdown();
}

void Service::serve(int fd) {
  {
    Socket client(fd);
    try {
      connection.enter(fd);
      handle(client);
    } catch (const std::exception& exception) {
      LOG_ERROR(exception.what());
    } catch (...) {
      LOG_ERROR("unknown exception");
    }
    connection.leave();
  }
  ReleaseService();
}

void Service::handle(Socket& client) {
  client.fillAddress();
  PackageBytes<Header> bytes{};
  unsigned size = Header::kSize;
  // What is logged below is the error of this receive, or none.
  errno = 0;
  Header header;
  const bool received = client.descriptor() != -1 && client.receiveValue(size, bytes.data()) == kSocketOk;
  if (received) header = Decode<Header>(bytes);
  if (!received || header.tag != kHeaderTag) {
    const int error = errno;
    common::LogLine(common::Priority::kError, LOG_SITE_OF("serve"), client.descriptor(), " ", common::ErrorText{error});
    return;
  }
  common::LogLine(common::Priority::kDebug, LOG_SITE_OF("serve"), client.descriptor(), " method : ", header.method,
                  " module : ", header.module);
  switchMethod(header, client);
}

void Service::switchMethod(const Header& header, Socket& client) {
  const RequestHandler handler = FindRequestHandler(header.method);
  if (handler == nullptr) {
    LOG_ERROR("not implemented");
    return;
  }
  Request request{client, connection};
  handler(request);
}

}  // namespace zav::ipc
