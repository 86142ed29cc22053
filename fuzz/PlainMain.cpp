// The main program of a target without libFuzzer: replays inputs, then tries seeded random changes of them. It takes
// the options of libFuzzer that it knows in the same words:
//
//   fuzz-NAME [-runs=N] [-seed=N] [-dict=FILE] FILE|DIRECTORY...
//
// -runs  how many changed inputs to try after the given ones (none unless told)
// -seed  where the changes start from; printed, and taken from the clock unless told
// -dict  words to put in, in libFuzzer's format: a name="text" a line, with \xNN for bytes
//
// An input that ends in a finding, or does not end, is left in the current directory, in a file that a second run takes
// as its input.

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

#include "Mutator.h"
#include "Target.h"

extern "C" __attribute__((weak)) void __sanitizer_set_death_callback(void (*callback)());

namespace {

using zav::fuzz::Bytes;
using zav::fuzz::Mutator;

struct Options {
  std::uint64_t runs = 0;
  std::uint64_t seed = static_cast<std::uint64_t>(std::chrono::system_clock::now().time_since_epoch().count());
  std::string dictionary;
  std::vector<std::string> inputs;
};

Options Parse(const std::vector<std::string>& arguments) {
  Options options;
  for (const auto& argument : arguments) {
    const auto value = argument.substr(std::min(argument.size(), argument.find('=') + 1));
    if (argument.starts_with("-runs=")) {
      options.runs = std::stoull(value);
    } else if (argument.starts_with("-seed=")) {
      options.seed = std::stoull(value);
    } else if (argument.starts_with("-dict=")) {
      options.dictionary = value;
    } else {
      options.inputs.push_back(argument);
    }
  }
  return options;
}

Bytes Read(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) throw std::runtime_error("cannot read " + path.string());
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

/// The files, and those of the directories, in the order of their names.
std::vector<std::filesystem::path> FilesAt(const std::vector<std::string>& paths) {
  std::vector<std::filesystem::path> files;
  for (const std::string& path : paths) {
    if (!std::filesystem::is_directory(path)) {
      files.emplace_back(path);
      continue;
    }
    for (const auto& entry : std::filesystem::directory_iterator(path)) files.push_back(entry.path());
  }
  std::sort(files.begin(), files.end());
  return files;
}

/// The text between the quotes of one line of a dictionary.
Bytes Unquoted(const std::string& line) {
  const auto begin = line.find('"') + 1;
  const auto end = line.rfind('"');
  Bytes word;
  for (auto at = begin; at < end; ++at) {
    if (line[at] != '\\') {
      word += line[at];
    } else if (line[at + 1] == 'x') {
      word += static_cast<char>(std::stoi(line.substr(at + 2, 2), nullptr, 16));
      at += 3;
    } else {
      word += line[++at];
    }
  }
  return word;
}

std::vector<Bytes> ReadDictionary(const std::string& path) {
  std::vector<Bytes> words;
  if (path.empty()) return words;
  std::ifstream file(path);
  if (!file) throw std::runtime_error("cannot read " + path);
  for (std::string line; std::getline(file, line);) {
    if (!line.empty() && line[0] != '#') words.push_back(Unquoted(line));
  }
  return words;
}

/// What runs at the moment, for the report of a finding.
Bytes current;
std::string name;
std::string keptAs;

/// How long an input may take before it counts as one that does not end.
constexpr unsigned kLongestRunSeconds = 30;

void KeepCurrent() {
  // By system calls: the heap may be what is broken.
  const int file = open(keptAs.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  const bool kept = file != -1 && write(file, current.data(), current.size()) == static_cast<ssize_t>(current.size());
  if (kept) std::fprintf(stderr, "the input, %s, is kept as %s\n", name.c_str(), keptAs.c_str());
}

extern "C" void OnEnd(int number) {
  if (number == SIGALRM) std::fprintf(stderr, "\nfinding: an input takes over %u s\n", kLongestRunSeconds);
  KeepCurrent();
  std::signal(number, SIG_DFL);
  std::raise(number);
}

void KeepInputsOfFindings(const std::string& program) {
  keptAs = "finding-" + std::filesystem::path(program).filename().string();
  std::signal(SIGABRT, OnEnd);
  std::signal(SIGALRM, OnEnd);
  if (__sanitizer_set_death_callback != nullptr) {
    // A sanitizer reports these itself, and ends the process in its own way.
    __sanitizer_set_death_callback(KeepCurrent);
    return;
  }
  for (const int number : {SIGSEGV, SIGBUS, SIGFPE, SIGILL}) std::signal(number, OnEnd);
}

/// What it throws is a finding, too.
void Run(const Bytes& bytes, const std::string& called) noexcept {
  current = bytes;
  name = called;
  alarm(kLongestRunSeconds);
  LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(current.data()), current.size());
  alarm(0);
}

int Main(const std::vector<std::string>& arguments) {
  const Options options = Parse({arguments.begin() + 1, arguments.end()});
  KeepInputsOfFindings(arguments[0]);
  std::vector<Bytes> inputs;
  const std::vector<std::filesystem::path> files = FilesAt(options.inputs);
  inputs.reserve(files.size());
  for (const auto& file : files) inputs.push_back(Read(file));
  if (inputs.empty()) throw std::runtime_error("there is no input to replay");
  std::printf("%zu inputs, %llu changes of them, seed %llu\n", inputs.size(),
              static_cast<unsigned long long>(options.runs), static_cast<unsigned long long>(options.seed));
  std::fflush(stdout);

  for (std::size_t index = 0; index < inputs.size(); ++index) Run(inputs[index], files[index]);
  Mutator mutator(inputs, ReadDictionary(options.dictionary), options.seed);
  for (std::uint64_t run = 0; run < options.runs; ++run) Run(mutator.Next(), "change " + std::to_string(run));
  return 0;
}

}  // namespace

int main(int count, char** arguments) {
  const std::vector<std::string> words(arguments, arguments + count);
  LLVMFuzzerInitialize(&count, &arguments);
  try {
    return Main(words);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s: %s\n", words[0].c_str(), error.what());
    return 2;
  }
}
