#include "ipc/service/Package.h"

#include <gmock/gmock.h>

#include <climits>
#include <cstring>
#include <initializer_list>
#include <string>
#include <type_traits>

namespace zav::ipc {
namespace {

/// The bytes of 32-bit integers, one after the other, in host byte order.
std::string Words(std::initializer_list<std::int32_t> words) {
  std::string bytes;
  for (const std::int32_t word : words) bytes.append(reinterpret_cast<const char*>(&word), sizeof(word));
  return bytes;
}

template <class P>
std::string Sent(const P& package) {
  const auto bytes = Encode(package);
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

template <class P>
P Received(const std::string& text) {
  PackageBytes<P> bytes{};
  EXPECT_EQ(text.size(), bytes.size());
  std::memcpy(bytes.data(), text.data(), std::min(text.size(), bytes.size()));
  return Decode<P>(bytes);
}

/// Bytes that carry no meaning.
const std::int32_t kNoise = 0x5A5A5A5A;

TEST(APackage, IsThePolymorphicBaseOfAllOthers) {
  EXPECT_TRUE(std::has_virtual_destructor_v<Package>);
  EXPECT_TRUE((std::is_base_of_v<Package, Header>));
  EXPECT_TRUE((std::is_base_of_v<Package, StatePackage>));
  EXPECT_TRUE((std::is_base_of_v<Package, FramePackage>));
  EXPECT_TRUE((std::is_base_of_v<Package, LogPackage>));
}

TEST(AFreshHeader, HoldsModule0Tag8Method0) {
  EXPECT_EQ(Sent(Header()), Words({0, 0, 8, 0}));
}

TEST(AFreshPackage, AsksForEverything) {
  EXPECT_EQ(Sent(StatePackage()), Words({0, 0, 0}));
  EXPECT_EQ(Sent(FramePackage()), Words({0, 0, 0, 0}));
  EXPECT_EQ(Sent(LogPackage()), Words({0, 0, 0, 0, 0, -1}));
}

TEST(AHeader, IsSixteenBytesModuleThenTagThenMethod) {
  Header header;
  header.module = -7;
  header.tag = 9;
  header.method = INT_MIN;
  EXPECT_EQ(Sent(header), Words({0, -7, 9, INT_MIN}));
}

TEST(AHeader, IsReadWhateverItsFirstFourBytesAre) {
  const auto header = Received<Header>(Words({kNoise, -7, 9, INT_MAX}));
  EXPECT_EQ(header.module, -7);
  EXPECT_EQ(header.tag, 9);
  EXPECT_EQ(header.method, INT_MAX);
  EXPECT_EQ(Sent(header), Words({0, -7, 9, INT_MAX}));
}

TEST(AStatePackage, IsTwelveBytesCodeThenState) {
  StatePackage package;
  package.code = 1301;
  package.state = 1;
  EXPECT_EQ(Sent(package), Words({0, 1301, 1}));
}

TEST(AStatePackage, IsReadWhateverItsFirstFourBytesAre) {
  const auto package = Received<StatePackage>(Words({kNoise, 301, -1}));
  EXPECT_EQ(package.code, 301);
  EXPECT_EQ(package.state, -1);
  EXPECT_EQ(Sent(package), Words({0, 301, -1}));
}

TEST(AFramePackage, IsSixteenBytesAWordThenFromThenTo) {
  FramePackage package;
  package.from = -100;
  package.to = 200;
  EXPECT_EQ(Sent(package), Words({0, 0, -100, 200}));
}

TEST(AFramePackage, IsReadWhateverItsFirstFourBytesAre) {
  const auto package = Received<FramePackage>(Words({kNoise, 3, INT_MIN, INT_MAX}));
  EXPECT_EQ(package.word, 3);
  EXPECT_EQ(package.from, INT_MIN);
  EXPECT_EQ(package.to, INT_MAX);
  EXPECT_EQ(Sent(package), Words({0, 3, INT_MIN, INT_MAX}));
}

TEST(ALogPackage, IsTwentyFourBytesAWordThenFromToCountAndStart) {
  LogPackage package;
  package.from = 100;
  package.to = 200;
  package.maxCount = 3;
  package.startIndex = -1;
  EXPECT_EQ(Sent(package), Words({0, 0, 100, 200, 3, -1}));
}

TEST(ALogPackage, IsReadWhateverItsFirstFourBytesAre) {
  const auto package = Received<LogPackage>(Words({kNoise, 4, INT_MIN, INT_MAX, -1, 1999}));
  EXPECT_EQ(package.word, 4);
  EXPECT_EQ(package.from, INT_MIN);
  EXPECT_EQ(package.to, INT_MAX);
  EXPECT_EQ(package.maxCount, -1);
  EXPECT_EQ(package.startIndex, 1999);
  EXPECT_EQ(Sent(package), Words({0, 4, INT_MIN, INT_MAX, -1, 1999}));
}

TEST(TheProtocol, NumbersItsMethods) {
  EXPECT_EQ(static_cast<int>(Method::kGetPyxState), 4);
  EXPECT_EQ(static_cast<int>(Method::kGetLoggingState), 5);
  EXPECT_EQ(static_cast<int>(Method::kLogThreatUrl), 6);
  EXPECT_EQ(static_cast<int>(Method::kGetLogStatus), 16);
  EXPECT_EQ(static_cast<int>(Method::kGetLog), 17);
  EXPECT_EQ(static_cast<int>(Method::kGetLogReverse), 18);
  EXPECT_EQ(static_cast<int>(Method::kResetLog), 19);
  EXPECT_EQ(static_cast<int>(Method::kCountRecords), 20);
}

TEST(TheProtocol, HasFixedCodesAndLimits) {
  EXPECT_EQ(kHeaderTag, 8);
  EXPECT_EQ(kPyxStateCode, 301);
  EXPECT_EQ(kLoggingStateCode, 1301);
  EXPECT_EQ(kMaxStringSize, 16777216u);
}

}  // namespace
}  // namespace zav::ipc
