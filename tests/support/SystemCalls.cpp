#include "support/SystemCalls.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <ctime>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <utility>

namespace zav::test {
namespace {

struct Gate {
  /// Looked at first, so that a call without a hook orders nothing between threads: that would hide their races.
  std::atomic<bool> hooked{false};
  std::shared_mutex mutex;
  CallHook::Action action;
};

/// Never ended: threads call until the very end of the process.
Gate& GateOf(Call call) {
  static auto& gates = *new std::array<Gate, static_cast<size_t>(Call::kWrite) + 1>;
  return gates[static_cast<size_t>(call)];
}

std::optional<long> Ask(Call call, const CallArguments& arguments) {
  Gate& gate = GateOf(call);
  if (!gate.hooked.load(std::memory_order_acquire)) return std::nullopt;
  const std::shared_lock guard(gate.mutex);
  return gate.action ? gate.action(arguments) : std::nullopt;
}

std::chrono::nanoseconds Duration(const timespec& time) {
  return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

CallArguments Bytes(int fd, size_t size, int flags) {
  CallArguments arguments;
  arguments.fd = fd;
  arguments.size = size;
  arguments.flags = flags;
  return arguments;
}

CallArguments Path(const char* path, size_t size = 0, int flags = 0) {
  CallArguments arguments = Bytes(-1, size, flags);
  arguments.data = const_cast<char*>(path);
  return arguments;
}

}  // namespace

CallHook::CallHook(Call of, Action action) : call(of) {
  Gate& gate = GateOf(call);
  const std::lock_guard guard(gate.mutex);
  previous = std::exchange(gate.action, std::move(action));
  gate.hooked = true;
}

CallHook::~CallHook() {
  Gate& gate = GateOf(call);
  const std::lock_guard guard(gate.mutex);
  gate.action = std::move(previous);
  gate.hooked = gate.action != nullptr;
}

CallHook::Action Fail(int error, int times) {
  auto left = std::make_shared<std::atomic<int>>(times);
  return [error, left](const CallArguments&) -> std::optional<long> {
    if (left->load() == 0) return std::nullopt;
    if (left->load() > 0) --*left;
    errno = error;
    return -1;
  };
}

// The functions stand under the C library's names by an assembler label: its own declarations, inline ones among them,
// then do not get in the way.
#define INTERPOSED(name) __asm__(#name) __attribute__((visibility("default"), used))

int Accept4(int fd, sockaddr* address, socklen_t* length, int flags) INTERPOSED(accept4);
int Bind(int fd, const sockaddr* address, socklen_t length) INTERPOSED(bind);
int Close(int fd) INTERPOSED(close);
int Fcntl(int fd, int command, ...) INTERPOSED(fcntl);
int Fcntl64(int fd, int command, ...) INTERPOSED(fcntl64);
int Fsync(int fd) INTERPOSED(fsync);
int Listen(int fd, int backlog) INTERPOSED(listen);
int Mkdir(const char* path, mode_t mode) INTERPOSED(mkdir);
int Nanosleep(const timespec* time, timespec* left) INTERPOSED(nanosleep);
int Open(const char* path, int flags, ...) INTERPOSED(open);
int OpenChecked(const char* path, int flags) INTERPOSED(__open_2);
int PollDescriptors(pollfd* descriptors, nfds_t count, int milliseconds) INTERPOSED(poll);
int PthreadCreate(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*), void* argument)
    INTERPOSED(pthread_create);
ssize_t Read(int fd, void* data, size_t size) INTERPOSED(read);
ssize_t Recv(int fd, void* data, size_t size, int flags) INTERPOSED(recv);
int Rename(const char* from, const char* to) INTERPOSED(rename);
int Select(int count, fd_set* readable, fd_set* writable, fd_set* special, timeval* timeout) INTERPOSED(select);
ssize_t Send(int fd, const void* data, size_t size, int flags) INTERPOSED(send);
int Shutdown(int fd, int how) INTERPOSED(shutdown);
int Socket(int domain, int type, int protocol) INTERPOSED(socket);
int Stat(const char* path, struct stat* info) INTERPOSED(stat);
int Statvfs(const char* path, struct statvfs* info) INTERPOSED(statvfs);
ssize_t Write(int fd, const void* data, size_t size) INTERPOSED(write);

namespace {

template <class Function>
Function* Find(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

/// The functions that a call goes on to.
struct Functions {
  decltype(Accept4)* accept4 = Find<decltype(Accept4)>("accept4");
  decltype(Bind)* bind = Find<decltype(Bind)>("bind");
  decltype(Close)* close = Find<decltype(Close)>("close");
  decltype(Fcntl)* fcntl = Find<decltype(Fcntl)>("fcntl");
  decltype(Fsync)* fsync = Find<decltype(Fsync)>("fsync");
  decltype(Listen)* listen = Find<decltype(Listen)>("listen");
  decltype(Mkdir)* mkdir = Find<decltype(Mkdir)>("mkdir");
  decltype(Nanosleep)* nanosleep = Find<decltype(Nanosleep)>("nanosleep");
  decltype(Open)* open = Find<decltype(Open)>("open");
  decltype(PollDescriptors)* poll = Find<decltype(PollDescriptors)>("poll");
  decltype(PthreadCreate)* pthread_create = Find<decltype(PthreadCreate)>("pthread_create");
  decltype(Read)* read = Find<decltype(Read)>("read");
  decltype(Recv)* recv = Find<decltype(Recv)>("recv");
  decltype(Rename)* rename = Find<decltype(Rename)>("rename");
  decltype(Select)* select = Find<decltype(Select)>("select");
  decltype(Send)* send = Find<decltype(Send)>("send");
  decltype(Shutdown)* shutdown = Find<decltype(Shutdown)>("shutdown");
  decltype(Socket)* socket = Find<decltype(Socket)>("socket");
  decltype(Stat)* stat = Find<decltype(Stat)>("stat");
  decltype(Statvfs)* statvfs = Find<decltype(Statvfs)>("statvfs");
  decltype(Write)* write = Find<decltype(Write)>("write");
};

const Functions& Next() {
  static const Functions functions;
  return functions;
}

// Looked for while there is one thread: while a library is being unloaded, its threads would wait for ever for the
// loader's lock.
[[maybe_unused]] const Functions& atTheStart = Next();

}  // namespace

int Accept4(int fd, sockaddr* address, socklen_t* length, int flags) {
  const auto result = Ask(Call::kAccept4, Bytes(fd, 0, flags));
  return result ? static_cast<int>(*result) : Next().accept4(fd, address, length, flags);
}

int Bind(int fd, const sockaddr* address, socklen_t length) {
  CallArguments arguments = Bytes(fd, length, 0);
  arguments.data = const_cast<sockaddr*>(address);
  const auto result = Ask(Call::kBind, arguments);
  return result ? static_cast<int>(*result) : Next().bind(fd, address, length);
}

int Close(int fd) {
  const auto result = Ask(Call::kClose, Bytes(fd, 0, 0));
  return result ? static_cast<int>(*result) : Next().close(fd);
}

int Fcntl(int fd, int command, ...) {
  va_list list;
  va_start(list, command);
  void* const argument = va_arg(list, void*);
  va_end(list);
  const auto result = Ask(Call::kFcntl, Bytes(fd, 0, command));
  return result ? static_cast<int>(*result) : Next().fcntl(fd, command, argument);
}

int Fcntl64(int fd, int command, ...) {
  va_list list;
  va_start(list, command);
  void* const argument = va_arg(list, void*);
  va_end(list);
  return Fcntl(fd, command, argument);
}

int Fsync(int fd) {
  const auto result = Ask(Call::kFsync, Bytes(fd, 0, 0));
  return result ? static_cast<int>(*result) : Next().fsync(fd);
}

int Listen(int fd, int backlog) {
  const auto result = Ask(Call::kListen, Bytes(fd, static_cast<size_t>(backlog), 0));
  return result ? static_cast<int>(*result) : Next().listen(fd, backlog);
}

int Mkdir(const char* path, mode_t mode) {
  const auto result = Ask(Call::kMkdir, Path(path, mode));
  return result ? static_cast<int>(*result) : Next().mkdir(path, mode);
}

int Nanosleep(const timespec* time, timespec* left) {
  CallArguments arguments;
  arguments.time = Duration(*time);
  arguments.data = left;
  const auto result = Ask(Call::kNanosleep, arguments);
  return result ? static_cast<int>(*result) : Next().nanosleep(time, left);
}

int Open(const char* path, int flags, ...) {
  va_list list;
  va_start(list, flags);
  const auto mode = va_arg(list, mode_t);
  va_end(list);
  const auto result = Ask(Call::kOpen, Path(path, mode, flags));
  return result ? static_cast<int>(*result) : Next().open(path, flags, mode);
}

/// What a call without a mode is compiled to where the library checks its flags.
int OpenChecked(const char* path, int flags) {
  return Open(path, flags, mode_t{0});
}

int PollDescriptors(pollfd* descriptors, nfds_t count, int milliseconds) {
  CallArguments arguments = Bytes(count > 0 ? descriptors->fd : -1, count, 0);
  if (milliseconds >= 0) arguments.time = std::chrono::milliseconds(milliseconds);
  const auto result = Ask(Call::kPoll, arguments);
  return result ? static_cast<int>(*result) : Next().poll(descriptors, count, milliseconds);
}

int PthreadCreate(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*), void* argument) {
  // Gives its error number as its result.
  if (Ask(Call::kPthreadCreate, CallArguments())) return errno;
  return Next().pthread_create(thread, attributes, body, argument);
}

ssize_t Read(int fd, void* data, size_t size) {
  const auto result = Ask(Call::kRead, Bytes(fd, size, 0));
  return result ? *result : Next().read(fd, data, size);
}

ssize_t Recv(int fd, void* data, size_t size, int flags) {
  const auto result = Ask(Call::kRecv, Bytes(fd, size, flags));
  return result ? *result : Next().recv(fd, data, size, flags);
}

int Rename(const char* from, const char* to) {
  const auto result = Ask(Call::kRename, Path(from));
  return result ? static_cast<int>(*result) : Next().rename(from, to);
}

int Select(int count, fd_set* readable, fd_set* writable, fd_set* special, timeval* timeout) {
  CallArguments arguments = Bytes(count, 0, 0);
  arguments.data = readable;
  if (timeout != nullptr) {
    arguments.time = std::chrono::seconds(timeout->tv_sec) + std::chrono::microseconds(timeout->tv_usec);
  }
  const auto result = Ask(Call::kSelect, arguments);
  return result ? static_cast<int>(*result) : Next().select(count, readable, writable, special, timeout);
}

ssize_t Send(int fd, const void* data, size_t size, int flags) {
  const auto result = Ask(Call::kSend, Bytes(fd, size, flags));
  return result ? *result : Next().send(fd, data, size, flags);
}

int Shutdown(int fd, int how) {
  const auto result = Ask(Call::kShutdown, Bytes(fd, 0, how));
  return result ? static_cast<int>(*result) : Next().shutdown(fd, how);
}

int Socket(int domain, int type, int protocol) {
  const auto result = Ask(Call::kSocket, Bytes(domain, static_cast<size_t>(protocol), type));
  return result ? static_cast<int>(*result) : Next().socket(domain, type, protocol);
}

int Stat(const char* path, struct stat* info) {
  const auto result = Ask(Call::kStat, Path(path));
  return result ? static_cast<int>(*result) : Next().stat(path, info);
}

int Statvfs(const char* path, struct statvfs* info) {
  const auto result = Ask(Call::kStatvfs, Path(path));
  return result ? static_cast<int>(*result) : Next().statvfs(path, info);
}

ssize_t Write(int fd, const void* data, size_t size) {
  CallArguments arguments = Bytes(fd, size, 0);
  arguments.data = const_cast<void*>(data);
  const auto result = Ask(Call::kWrite, arguments);
  return result ? *result : Next().write(fd, data, size);
}

}  // namespace zav::test
