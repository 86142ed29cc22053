#include "ipc/socket/SocketAddress.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>

#include "support/Device.h"

namespace zav::test {
namespace {

class TheSocketAddress : public testing::Test {
 protected:
  TheSocketAddress() {
    std::memset(&address, 0x7f, sizeof(address));
    ipc::initSockAddr(address, length);
  }

  sockaddr_un address;
  unsigned int length = 0;
};

TEST_F(TheSocketAddress, IsTheUnixSocketInTheRunDirectory) {
  EXPECT_EQ(address.sun_family, AF_UNIX);
  EXPECT_STREQ(address.sun_path, "/tmp/zav-pyx-plugin/.socket");
}

TEST_F(TheSocketAddress, IsAlwaysOfTheWholeLength) {
  EXPECT_EQ(length, 110U);
  EXPECT_EQ(sizeof(address), 110U);
}

TEST_F(TheSocketAddress, LeavesNothingOfWhatStoodThereBefore) {
  char* const end = address.sun_path + sizeof(address.sun_path);
  EXPECT_TRUE(std::all_of(address.sun_path + kSocketFile.size(), end, [](char rest) { return rest == '\0'; }));
}

TEST_F(TheSocketAddress, IsTheSameTheNextTime) {
  sockaddr_un again;
  std::memset(&again, 0x7f, sizeof(again));
  unsigned int lengthAgain = 3;
  ipc::initSockAddr(again, lengthAgain);
  EXPECT_EQ(std::memcmp(&again, &address, sizeof(address)), 0);
  EXPECT_EQ(lengthAgain, 110U);
}

}  // namespace
}  // namespace zav::test
