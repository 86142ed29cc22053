#include <gmock/gmock.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "Child.h"
#include "support/TemporaryDirectory.h"

namespace {

using zav::test::TemporaryDirectory;

using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

constexpr const char* kPluginDirectory = "/opt/data/dpm/dplugins/zav-pyx-plugin";
constexpr const char* kRunDirectory = "/tmp/zav-pyx-plugin";

/// The project's shell pieces, run with programs of the test's own in place of the system's.
class TheScripts : public testing::Test {
 protected:
  /// Puts a shell script in front of the program of that name.
  void Fake(const std::string& name, const std::string& script) {
    std::filesystem::create_directories(directory / "bin");
    const std::string path = directory / "bin/" + name;
    std::ofstream(path) << "#!/bin/bash\n" << script << '\n';
    chmod(path.c_str(), 0755);
  }

  /// Runs commands after the named pieces were read.
  Outcome Run(const std::string& pieces, const std::string& commands) const {
    std::string script =
        "set -euo pipefail; for piece in say " + pieces + "; do . scripts/$piece.sh; done; " + commands;
    return RunToEnd({"bash", "-c", script, "project"}, [this] {
      const std::string path = directory / "bin" + ":" + std::getenv("PATH");
      setenv("PATH", path.c_str(), 1);
      std::filesystem::current_path(PROJECT_COPY);
    });
  }

  std::string Calls() const {
    std::ifstream file(directory / "calls");
    return {std::istreambuf_iterator<char>(file), {}};
  }

  void RecordCallsOf(const std::string& program, const std::string& then) {
    Fake(program, "echo \"" + program + " $*\" >> '" + directory / "calls" + "'; " + then);
  }

  /// A machine on which these packages are the only ones that are missing.
  void Lack(const std::string& packages) {
    Fake("dpkg-query", "case \" " + packages + " \" in *\" ${!#} \"*) exit 1;; esac; printf installed");
  }

  static long Lines(const std::string& text) { return std::count(text.begin(), text.end(), '\n'); }

  TemporaryDirectory directory;
};

class ThePackages : public TheScripts {
 protected:
  ThePackages() { RecordCallsOf("apt-get", "exit 0"); }

  void BeUser(int id) { Fake("id", "echo " + std::to_string(id)); }
  void HaveNoSudo() { sudo = "command() { [[ $2 != sudo ]] && builtin command \"$@\"; }; "; }
  Outcome Install() const { return Run("packages", sudo + "install_packages"); }

  std::string sudo;
};

TEST_F(ThePackages, AreLeftAloneWhenNothingIsMissing) {
  Lack("");
  BeUser(1000);
  const Outcome outcome = Install();
  EXPECT_EQ(outcome.status, 0);
  EXPECT_THAT(outcome.output + outcome.errors + Calls(), IsEmpty());
}

TEST_F(ThePackages, CountAsMissingWhenTheyAreOnlyKnown) {
  Fake("dpkg-query", "[[ ${!#} == sqlite3 ]] && printf not-installed || printf installedinstalled");
  EXPECT_EQ(Run("packages", "missing_packages").output, "sqlite3\n");
}

TEST_F(ThePackages, AreInstalledByRoot) {
  Lack("cmake libedit-dev");
  BeUser(0);
  const Outcome outcome = Install();
  EXPECT_EQ(outcome.status, 0) << outcome.errors;
  EXPECT_EQ(outcome.output, "project: installing cmake libedit-dev\n");
  EXPECT_THAT(Calls(), AllOf(HasSubstr("update\n"), EndsWith("--no-install-recommends cmake libedit-dev\n")));
}

TEST_F(ThePackages, OfOnePresetAreInstalledOnlyWhereTheyAreAskedFor) {
  Lack("gcovr");
  BeUser(0);
  EXPECT_THAT(Install().output, IsEmpty());
  EXPECT_EQ(Run("packages coverage", "install_packages \"${coverage_packages[@]}\"").output,
            "project: installing gcovr\n");
}

TEST_F(ThePackages, AreInstalledAlsoWhenTheListsCannotBeFetched) {
  Lack("cmake");
  BeUser(0);
  RecordCallsOf("apt-get", "[[ $* != *update* ]]");
  EXPECT_EQ(Install().status, 0);
}

TEST_F(ThePackages, AreInstalledThroughSudoByAnOrdinaryUser) {
  Lack("cmake");
  BeUser(1000);
  RecordCallsOf("sudo", "[[ $1 != -n ]] || shift; exec \"$@\"");
  EXPECT_EQ(Install().status, 0);
  EXPECT_THAT(Calls(), AllOf(HasSubstr("sudo -n env DEBIAN_FRONTEND=noninteractive apt-get"), EndsWith(" cmake\n")));
}

TEST_F(ThePackages, AreNamedWithTheCommandWhenThereIsNoSudo) {
  Lack("cmake sqlite3");
  BeUser(1000);
  HaveNoSudo();
  const Outcome outcome = Install();
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.errors,
            "project: packages are missing and there is no sudo; run as root: apt-get install cmake sqlite3\n");
  EXPECT_THAT(Calls(), IsEmpty());
}

TEST_F(ThePackages, AreNamedWithTheCommandWhenSudoRefuses) {
  Lack("cmake");
  BeUser(1000);
  Fake("sudo", "exit 1");
  const Outcome outcome = Install();
  EXPECT_EQ(outcome.status, 1);
  EXPECT_THAT(outcome.errors, EndsWith("run as root: apt-get install cmake\n"));
  EXPECT_EQ(Lines(outcome.errors), 1);
}

TEST_F(ThePackages, AreNamedWithTheCommandWhenTheInstallationFails) {
  Lack("cmake");
  BeUser(0);
  RecordCallsOf("apt-get", "echo 'E: no network' >&2; exit 100");
  const Outcome outcome = Install();
  EXPECT_EQ(outcome.status, 1);
  EXPECT_THAT(outcome.errors, AllOf(HasSubstr("E: no network\n"), EndsWith("run as root: apt-get install cmake\n")));
}

class TheResults : public TheScripts {
 protected:
  /// What is counted after a run with this report and exit status of ctest.
  std::string Count(const std::string& attributes, int status) const {
    const std::string file = directory / "results.xml";
    std::ofstream(file) << "<?xml version=\"1.0\"?>\n<testsuite name=\"x\"\n\t" << attributes << "\n>\n";
    return Count(file, std::to_string(status));
  }

  std::string Count(const std::string& file, const std::string& status) const {
    return Run("results", "passed=0 failed=0 skipped=0; count_results '" + file + "' " + status +
                              "; echo $passed $failed $skipped")
        .output;
  }
};

TEST_F(TheResults, AreTakenFromTheReport) {
  EXPECT_EQ(Count("tests=\"7\"\n\tfailures=\"2\"\n\tdisabled=\"0\"\n\tskipped=\"1\"", 8), "4 2 1\n");
  EXPECT_EQ(Count("tests=\"7\" failures=\"0\" disabled=\"1\" skipped=\"0\"", 0), "6 0 1\n");
}

TEST_F(TheResults, ShowAFailureWhenARunFailedWithoutAFailedTest) {
  EXPECT_EQ(Count("tests=\"7\" failures=\"0\" disabled=\"0\" skipped=\"1\"", 8), "6 1 1\n");
}

TEST_F(TheResults, ShowAFailureWhenThereIsNoReport) {
  EXPECT_EQ(Count(directory / "missing", "8"), "0 1 0\n");
}

class TheDevice : public TheScripts {
 protected:
  /// What borrows the real paths is tried on private ones only.
  void SetUp() override {
    const char* root = std::getenv("DEVICE_ROOT");
    if (root == nullptr || std::string(root) != "private") GTEST_SKIP() << "this machine refuses namespaces";
  }

  Outcome Choose(const std::string& commands) const {
    return Run("device", "choose_device '" + directory / "bin/device-root" + "'; echo $device; " + commands);
  }

  void RefuseNamespaces() { Fake("device-root", "echo 'device-root: refused' >&2; exit 1"); }
};

TEST_F(TheDevice, IsPrivateWhereNamespacesAreToBeHad) {
  Fake("device-root", "exit 0");
  EXPECT_EQ(Choose("").output, "private\n");
}

TEST_F(TheDevice, IsNotToBeHadByAnOrdinaryUserWithoutNamespaces) {
  RefuseNamespaces();
  Fake("id", "echo 1000");
  const Outcome outcome = Choose("");
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.output, "project: device-root: refused\n");
  EXPECT_EQ(outcome.errors, "project: without namespaces only root can go on, with the real paths; run it as root\n");
}

TEST_F(TheDevice, IsTheRealOneForRootWithoutNamespacesAndLeavesNothingBehind) {
  RefuseNamespaces();
  Fake("id", "echo 0");
  const Outcome outcome = Choose(
      "borrow_real_paths; put_policy /opt; mkdir /tmp/zav-pyx-plugin; touch /tmp/zav-pyx-plugin/.socket;"
      "cmp host/policy.json /opt/data/dpm/dplugins/zav-pyx-plugin/policy.json && echo there; return_real_paths");
  EXPECT_EQ(outcome.status, 0) << outcome.errors;
  EXPECT_THAT(outcome.output, EndsWith("real\nthere\n"));
  EXPECT_FALSE(std::filesystem::exists("/opt/data"));
  EXPECT_FALSE(std::filesystem::exists(kRunDirectory));
}

TEST_F(TheDevice, KeepsWhatOthersPutBesideThePluginsFiles) {
  RefuseNamespaces();
  Fake("id", "echo 0");
  Choose("borrow_real_paths; put_policy /opt; touch /opt/data/other; return_real_paths");
  EXPECT_TRUE(std::filesystem::exists("/opt/data/other"));
  EXPECT_FALSE(std::filesystem::exists("/opt/data/dpm"));
}

TEST_F(TheDevice, IsNotTheRealOneWhenItsPathsAreInUse) {
  RefuseNamespaces();
  Fake("id", "echo 0");
  for (const char* path : {kPluginDirectory, kRunDirectory}) {
    std::filesystem::create_directories(path);
    const Outcome outcome = Choose("");
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.errors, std::string("project: without namespaces the real ") + path +
                                  " is needed, but it is in use; move it away\n");
    std::filesystem::remove_all(path);
  }
}

class TheDemonstration : public TheScripts {
 protected:
  Outcome Show(const std::string& preparation) const {
    return Run("device",
               preparation + "; exec scripts/demo.sh '" BUILD_DIRECTORY "' '" + directory.path().string() + "'");
  }
};

TEST_F(TheDemonstration, GoesThroughAllItsSteps) {
  const Outcome outcome = Show("put_policy /opt");
  EXPECT_EQ(outcome.status, 0) << outcome.errors;
  EXPECT_THAT(outcome.output, AllOf(HasSubstr("$ pyxctl log --reverse\n"), HasSubstr("dpm> exec GetStatus\n"),
                                    HasSubstr("The host has ended cleanly.")));
  EXPECT_THAT(outcome.errors, IsEmpty());
}

TEST_F(TheDemonstration, FailsWithItsFirstStepThatFails) {
  const Outcome outcome = Show("mkdir -p /opt/data/dpm/dplugins/zav-pyx-plugin");
  EXPECT_EQ(outcome.status, 1);
  EXPECT_THAT(outcome.output, EndsWith("dpm> get\n"));
  EXPECT_THAT(outcome.errors, AllOf(HasSubstr("run: the host gave no answer\n"), HasSubstr("Default policy is empty")));
}

class ACommandOfTheProject : public TheScripts, public testing::WithParamInterface<const char*> {
 protected:
  static Outcome Start(const std::string& argument) {
    return RunToEnd({std::string(PROJECT_COPY) + "/" + GetParam(), argument});
  }
};

TEST_P(ACommandOfTheProject, ShowsItsHelp) {
  const Outcome outcome = Start("--help");
  EXPECT_EQ(outcome.status, 0);
  EXPECT_THAT(outcome.output, StartsWith("Usage: "));
  EXPECT_THAT(outcome.errors, IsEmpty());
}

TEST_P(ACommandOfTheProject, RefusesAnOptionThatItDoesNotHave) {
  const Outcome outcome = Start("--what");
  EXPECT_EQ(outcome.status, 2);
  EXPECT_THAT(outcome.output, IsEmpty());
  EXPECT_THAT(outcome.errors, StartsWith("Usage: "));
}

INSTANTIATE_TEST_SUITE_P(Commands, ACommandOfTheProject, testing::Values("run", "test"),
                         [](const auto& command) { return std::string(command.param); });

TEST_F(TheScripts, NeverClaimSuccessForARunOfTestsThatWasCutShort) {
  Lack("cmake");
  Fake("id", "echo 1000");
  Fake("sudo", "exit 1");
  const Outcome outcome = Run("", "exec ./test");
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.output, "0 passed, 1 failed\n");
  EXPECT_EQ(Lines(outcome.errors), 1);
}

}  // namespace
