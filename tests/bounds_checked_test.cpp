#include "base/bounds_checked.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <string.h>

#include <string>

namespace {

// Eight bytes that a call may fill, between bytes that none may touch.
class BoundsChecked : public testing::Test {
 protected:
  static constexpr size_t kSize = 8;
  ~BoundsChecked() override {
    EXPECT_EQ(std::string(3, '#'), std::string(bytes_, 3));
    EXPECT_EQ(std::string(3, '#'), std::string(bytes_ + 3 + kSize, 3));
  }
  char bytes_[3 + kSize + 3 + 1] = "###........###";
  char* dest_ = bytes_ + 3;
  std::string Content() const { return {dest_, kSize}; }
};

TEST_F(BoundsChecked, MemoryCallsFillTheDestinationAndNoMore) {
  EXPECT_EQ(0, memset_s(dest_, kSize, 'a', kSize));
  EXPECT_EQ("aaaaaaaa", Content());
  EXPECT_EQ(0, memcpy_s(dest_, kSize, "12345678", kSize));
  EXPECT_EQ("12345678", Content());
}

TEST_F(BoundsChecked, MemoryCallsThatDoNotFitWriteNothing) {
  EXPECT_EQ(ERANGE, memset_s(dest_, kSize, 'a', kSize + 1));
  EXPECT_EQ(ERANGE, memcpy_s(dest_, kSize, "123456789", kSize + 1));
  EXPECT_EQ("........", Content());
}

TEST_F(BoundsChecked, NullPointersAreRefused) {
  EXPECT_EQ(EINVAL, memset_s(nullptr, kSize, 0, 1));
  EXPECT_EQ(EINVAL, memcpy_s(nullptr, kSize, "", 1));
  EXPECT_EQ(EINVAL, memcpy_s(dest_, kSize, nullptr, 1));
  EXPECT_EQ(EINVAL, strncat_s(nullptr, kSize, "", 1));
  EXPECT_EQ(EINVAL, strncat_s(dest_, kSize, nullptr, 1));
  EXPECT_EQ(-1, snprintf_s(nullptr, kSize, kSize, "%d", 1));
}

TEST_F(BoundsChecked, TextIsAppendedUpToTheLastByteButOne) {
  strcpy(dest_, "abc");
  EXPECT_EQ(0, strncat_s(dest_, kSize, "defgXXX", 4));
  EXPECT_STREQ("abcdefg", dest_);
  EXPECT_EQ(ERANGE, strncat_s(dest_, kSize, "h", 1));
  EXPECT_STREQ("abcdefg", dest_);
}

TEST_F(BoundsChecked, TextWithoutAnEndIsNotSearchedBeyondItsSize) {
  EXPECT_EQ(ERANGE, strncat_s(dest_, kSize, "", 0));
  EXPECT_EQ("........", Content());
}

TEST_F(BoundsChecked, FormattedTextFitsWholeOrFails) {
  EXPECT_EQ(7, snprintf_s(dest_, kSize, kSize - 1, "%07d", 42));
  EXPECT_STREQ("0000042", dest_);
  EXPECT_EQ(-1, snprintf_s(dest_, kSize, kSize - 1, "%08d", 42));
  EXPECT_STREQ("", dest_);
  EXPECT_EQ(-1, snprintf_s(dest_, kSize, 6, "%07d", 42)) << "more than its count";
}

}  // namespace
