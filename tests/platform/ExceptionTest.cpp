#include <gtest/gtest.h>
#include <klay/Exception.h>

#include <type_traits>

#include "klay/database/Connection.h"
#include "platform/OpenFlags.h"

namespace {

TEST(AKlayException, HoldsACopyOfItsText) {
  std::string text = "reason";
  const klay::Exception exception(text);
  text = "changed";
  EXPECT_STREQ(exception.what(), "reason");
}

TEST(AKlayException, IsAStandardExceptionAndNoneOfItsKinds) {
  EXPECT_TRUE((std::is_base_of_v<std::exception, klay::Exception>));
  EXPECT_FALSE((std::is_base_of_v<std::runtime_error, klay::Exception>));
  EXPECT_FALSE((std::is_base_of_v<std::logic_error, klay::Exception>));
}

TEST(AKlayException, KeepsItsTextWhenItIsCopied) {
  const klay::Exception exception("reason");
  klay::Exception copy("other");
  copy = exception;
  EXPECT_STREQ(klay::Exception(copy).what(), "reason");
}

TEST(AKlayException, ThrownByTheLibraryIsCaughtByItsTypeOutsideOfIt) {
  EXPECT_THROW(klay::database::Connection("/nowhere/file", kReadWriteCreate, true), klay::Exception);
}

}  // namespace
