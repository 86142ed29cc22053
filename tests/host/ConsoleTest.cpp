#include "Console.h"

#include <gmock/gmock.h>
#include <signal.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <deque>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>

namespace host {
namespace {

using testing::ElementsAre;

class NoProviders : public ProviderSource {
 public:
  AbstractDPluginProvider& Provider() override { throw std::runtime_error("none"); }
  void Reload() override {}
};

/// Lines that are there at once, and after them the end of the input.
class FakeSource : public LineSource {
 public:
  int descriptor() const override {
    if (lines.empty() && atTheEnd) atTheEnd();
    return -1;
  }
  void Read() override {}
  bool HasNext() const override { return !lines.empty(); }
  std::string Next() override {
    std::string line = lines.front();
    lines.pop_front();
    return line;
  }
  void Prompt() override { ++prompts; }

  std::deque<std::string> lines;
  int prompts = 0;
  std::function<void()> atTheEnd;
};

class AConsole : public testing::Test {
 protected:
  AConsole() {
    pthread_sigmask(SIG_SETMASK, nullptr, &before);
    signals = std::make_unique<Signals>();
    EXPECT_EQ(pipe(ends.data()), 0);
    output = fdopen(ends[1], "w");
  }

  ~AConsole() override {
    // What came must not end the process once it is let through again.
    sigset_t all;
    sigfillset(&all);
    const timespec atOnce{};
    while (sigtimedwait(&all, nullptr, &atOnce) > 0) {
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    std::fclose(output);
    close(ends[0]);
  }

  void Run(bool serve) { Console(source, commands, *signals, manager, serve, output).Run(); }

  /// What was written and not kept back.
  std::string Output() const {
    std::array<char, 4096> bytes;
    const ssize_t count = read(ends[0], bytes.data(), bytes.size());
    return {bytes.data(), static_cast<size_t>(count)};
  }

  NoProviders providers;
  CommandTable commands{providers};
  ServiceManager manager;
  FakeSource source;
  sigset_t before;
  std::unique_ptr<Signals> signals;
  std::array<int, 2> ends{};
  std::FILE* output = nullptr;
};

TEST_F(AConsole, AnswersEachLineThatIsNotBlank) {
  source.lines = {"reload", "", "get"};
  Run(false);
  EXPECT_EQ(Output(), "ok\nerror: none\n");
}

TEST_F(AConsole, AsksForTheFirstLineAndAfterEachOther) {
  source.lines = {"reload", "", "quit"};
  Run(false);
  EXPECT_EQ(source.prompts, 3);
}

TEST_F(AConsole, EndsWithItsInput) {
  source.lines = {"reload"};
  source.atTheEnd = [this] { source.lines = {"reload"}; };
  Run(false);
  EXPECT_EQ(Output(), "ok\n");
}

TEST_F(AConsole, GoesOnAfterTheEndOfItsInputWhenItServes) {
  source.lines = {"reload"};
  source.atTheEnd = [this] { source.lines = {"help", "quit"}; };
  Run(true);
  EXPECT_EQ(Output(), "ok\n" + *commands.Run("help") + "\nok\n");
}

TEST_F(AConsole, ServesUntilASignalComes) {
  source.atTheEnd = [] { raise(SIGTERM); };
  Run(true);
}

TEST_F(AConsole, EndsBySignalBeforeTheNextLine) {
  source.lines = {"reload"};
  raise(SIGINT);
  Run(true);
  EXPECT_THAT(source.lines, ElementsAre("reload"));
}

TEST_F(AConsole, ReportsAnAnswerThatCannotBeWritten) {
  source.lines = {"reload"};
  std::FILE* full = std::fopen("/dev/full", "w");
  ASSERT_NE(full, nullptr);
  EXPECT_THROW(Console(source, commands, *signals, manager, false, full).Run(), std::system_error);
  std::fclose(full);
}

}  // namespace
}  // namespace host
