#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <thread>

#include "faults/disk/PluginProcess.h"
#include "faults/disk/SmallLog.h"
#include "faults/disk/SystemCallTracer.h"
#include "support/Device.h"

namespace zav::test {
namespace {

/// @return the system calls that all threads of the plug-in's process make for one request, of several.
double CallsFor(const std::function<bool(const PluginProcess&)>& request) {
  constexpr int kRequests = 20;
  WriteDefaultPolicy(DefaultPolicies());
  const PluginProcess process;
  process.Start();
  // What is done once is no part of it.
  for (int warmUp = 0; warmUp < 8; ++warmUp) EXPECT_TRUE(request(process));
  SystemCallTracer tracer(process.id());
  int answered = 0;
  std::thread client([&] {
    while (answered < kRequests && request(process)) ++answered;
    process.Kill();
  });
  int calls = 0;
  tracer.Run([&](const SystemCall&) { ++calls; }, [](const SystemCall&) {});
  client.join();
  EXPECT_EQ(answered, kRequests);
  const double each = static_cast<double>(calls) / kRequests;
  std::printf("figures: %.1f system calls a request\n", each);
  return each;
}

// The bounds leave room for the waits of a busy machine; one more call at each transfer of a report is too many.
TEST(TheSystemCalls, OfAReadAreFew) {
  EXPECT_LT(CallsFor([](const PluginProcess& process) { return process.Answers(); }), 28);
}

TEST(TheSystemCalls, OfAReportAreFew) {
  int number = 0;
  EXPECT_LT(CallsFor([&](const PluginProcess& process) { return process.Send(NumberedReport(++number)) == 0; }), 112);
}

}  // namespace
}  // namespace zav::test
