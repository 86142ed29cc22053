#include "Host.h"

#include <dlog/dlog.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <exception>

#include "support/WaitUntil.h"

namespace zav::test {
namespace {

/// Where the lines of the plug-in's log go.
Report* lines = nullptr;

}  // namespace
}  // namespace zav::test

/// The platform's log, in the place of the platform's own.
int __dlog_print(int /*buffer*/, int priority, const char* /*tag*/, const char* format, ...) {
  const zav::faults::Counting uncounted(false);
  if (zav::test::lines == nullptr) return 0;
  const int error = errno;
  std::array<char, 512> line;
  const int head = std::snprintf(line.data(), line.size(), "%d ", priority);
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(line.data() + head, line.size() - static_cast<size_t>(head), format, arguments);
  va_end(arguments);
  zav::test::lines->AddLine(line.data());
  errno = error;
  return 0;
}

namespace zav::test {

Host::Host(Report& to) : report(to) {
  lines = &report;
  PolicyStorage::backend = this;
}

Host::~Host() {
  PolicyStorage::backend = nullptr;
}

/// Calls into the plug-in. @return whether it returned instead of throwing, which is noted.
template <class Work>
bool Host::InPlugin(const char* step, Work work) {
  report.At(step);
  const faults::Counting counted(true);
  try {
    work();
    return true;
  } catch (const std::exception& exception) {
    const faults::Counting uncounted(false);
    ++report.thrown;
    report.AddLine((std::string("thrown at the host: ") + exception.what()).c_str());
    return false;
  }
}

bool Host::Load() {
  if (!library) InPlugin("load the library", [&] { library.emplace(); });
  if (!library) return false;
  InPlugin("make the provider", [&] { provider = library->Make(); });
  return provider != nullptr;
}

void Host::Unload() {
  InPlugin("delete the provider", [&] { provider.reset(); });
  InPlugin("unload the library", [&] { library->Unload(); });
  library.reset();
}

int Host::SetStatus(int status) {
  int result = -1;
  if (provider) {
    InPlugin(status == 0 ? "switch off" : "switch on", [&] { result = provider->setStatus(status); });
  }
  return result;
}

std::string Host::Execute(const std::string& command, const std::string& payload) {
  std::string reply;
  if (provider) InPlugin("execute a command", [&] { reply = provider->executeCommand(command, payload); });
  return reply;
}

void Host::WaitForService(std::chrono::milliseconds deadline) const {
  WaitUntil([this] { return report.HasLine("> PYXPlugin service started") || report.HasLine(": ThreadProc("); },
            deadline);
}

bool Host::IsFinal() const {
  return report.HasLine("> Could not make directory for PYX service");
}

int Host::store(const std::string& /*name*/, int status) {
  recorded = status;
  return 0;
}

int Host::read(const std::string& /*name*/) {
  return recorded;
}

}  // namespace zav::test
