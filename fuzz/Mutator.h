#pragma once

#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace zav::fuzz {

using Bytes = std::string;

/// Makes new inputs of known ones: flips bits, replaces, inserts and removes bytes, cuts off, puts two together, and
/// puts words of a dictionary in. The same seed gives the same inputs, on any machine.
class Mutator {
 public:
  /// @param inputs  not empty.
  /// @param words   may be empty.
  Mutator(std::vector<Bytes> inputs, std::vector<Bytes> words, std::uint64_t seed);

  /// @return a new input of at most `kMaxSize` bytes.
  Bytes Next();

  static constexpr std::size_t kMaxSize = 16384;

 private:
  std::size_t Below(std::size_t bound);
  const Bytes& OneOf(const std::vector<Bytes>& choices);
  char AnyByte();
  void Change(Bytes& bytes);

  void FlipBit(Bytes& bytes);
  void ReplaceByte(Bytes& bytes);
  void ReplaceNumber(Bytes& bytes);
  void InsertBytes(Bytes& bytes);
  void InsertWord(Bytes& bytes);
  void RepeatPart(Bytes& bytes);
  void RemovePart(Bytes& bytes);
  void CutOff(Bytes& bytes);
  void Splice(Bytes& bytes);

  std::vector<Bytes> known;
  std::vector<Bytes> dictionary;
  std::mt19937_64 random;
};

}  // namespace zav::fuzz
