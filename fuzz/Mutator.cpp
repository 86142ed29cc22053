#include "Mutator.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <utility>

namespace zav::fuzz {
namespace {

constexpr std::size_t kMostChanges = 6;
constexpr std::size_t kLongestPart = 64;

/// Where sizes, times and indexes have their edges.
constexpr std::array<std::uint32_t, 16> kNumbers{0,          1,          8,          0xff,      2000,      2001,
                                                 0xffff,     0x10000,    0xffffff,   0x1000000, 0x1000001, 0x7ffffffe,
                                                 0x7fffffff, 0x80000000, 0x80000001, 0xffffffff};

}  // namespace

Mutator::Mutator(std::vector<Bytes> inputs, std::vector<Bytes> words, std::uint64_t seed)
    : known(std::move(inputs)), dictionary(std::move(words)), random(seed) {}

Bytes Mutator::Next() {
  Bytes bytes = OneOf(known);
  for (std::size_t changes = 1 + Below(kMostChanges); changes > 0; --changes) Change(bytes);
  if (bytes.size() > kMaxSize) bytes.resize(kMaxSize);
  return bytes;
}

// Not the distributions of the library: those differ from one library to the next.
std::size_t Mutator::Below(std::size_t bound) {
  return bound == 0 ? 0 : static_cast<std::size_t>(random() % bound);
}

const Bytes& Mutator::OneOf(const std::vector<Bytes>& choices) {
  return choices[Below(choices.size())];
}

char Mutator::AnyByte() {
  return static_cast<char>(Below(256));
}

void Mutator::Change(Bytes& bytes) {
  using Step = void (Mutator::*)(Bytes&);
  constexpr std::array<Step, 12> kSteps{&Mutator::FlipBit,     &Mutator::FlipBit,       &Mutator::ReplaceByte,
                                        &Mutator::ReplaceByte, &Mutator::InsertWord,    &Mutator::InsertWord,
                                        &Mutator::InsertBytes, &Mutator::ReplaceNumber, &Mutator::RepeatPart,
                                        &Mutator::RemovePart,  &Mutator::CutOff,        &Mutator::Splice};
  (this->*kSteps[Below(kSteps.size())])(bytes);
}

void Mutator::FlipBit(Bytes& bytes) {
  if (bytes.empty()) return;
  char& byte = bytes[Below(bytes.size())];
  byte = static_cast<char>(static_cast<unsigned char>(byte) ^ (1U << Below(8)));
}

void Mutator::ReplaceByte(Bytes& bytes) {
  if (!bytes.empty()) bytes[Below(bytes.size())] = AnyByte();
}

void Mutator::ReplaceNumber(Bytes& bytes) {
  const std::uint32_t number = kNumbers[Below(kNumbers.size())];
  if (bytes.size() >= sizeof(number)) {
    std::memcpy(bytes.data() + Below(bytes.size() - sizeof(number) + 1), &number, sizeof(number));
  }
}

void Mutator::InsertBytes(Bytes& bytes) {
  bytes.insert(Below(bytes.size() + 1), 1 + Below(8), AnyByte());
}

void Mutator::InsertWord(Bytes& bytes) {
  if (!dictionary.empty()) bytes.insert(Below(bytes.size() + 1), OneOf(dictionary));
}

void Mutator::RepeatPart(Bytes& bytes) {
  const Bytes part = bytes.substr(Below(bytes.size()), 1 + Below(kLongestPart));
  bytes.insert(Below(bytes.size() + 1), part);
}

void Mutator::RemovePart(Bytes& bytes) {
  bytes.erase(Below(bytes.size()), 1 + Below(kLongestPart));
}

void Mutator::CutOff(Bytes& bytes) {
  bytes.resize(Below(bytes.size() + 1));
}

void Mutator::Splice(Bytes& bytes) {
  const Bytes& other = OneOf(known);
  bytes = bytes.substr(0, Below(bytes.size() + 1)) + other.substr(Below(other.size() + 1));
}

}  // namespace zav::fuzz
