#include "dataupdate/error.h"

#include <gtest/gtest.h>

using vesk::dataupdate::UpdateError;

TEST(UpdateError, ConstructorsWithoutCodeAreGeneral) {
  EXPECT_EQ(UpdateError("x").code(), UpdateError::kGeneral);
  EXPECT_EQ(UpdateError(std::string("x")).code(), UpdateError::kGeneral);
  EXPECT_EQ(static_cast<int>(UpdateError("x", UpdateError::kFileNotExist).code()), 1);
}

TEST(UpdateError, WhatIsExactlyTheGivenTextEvenWhenEmpty) {
  EXPECT_STREQ(UpdateError("Fail to read: /x").what(), "Fail to read: /x");
  EXPECT_STREQ(UpdateError("").what(), "");
  EXPECT_STREQ(UpdateError(std::string("a\nb")).what(), "a\nb");
}

TEST(UpdateError, RethrownCopyKeepsMessageAndCode) {
  try {
    try {
      throw UpdateError("File not exist: /x", UpdateError::kFileNotExist);
    } catch (const UpdateError& e) {
      throw UpdateError(e);
    }
  } catch (const std::exception& e) {
    auto* update_error = dynamic_cast<const UpdateError*>(&e);
    ASSERT_NE(update_error, nullptr);
    EXPECT_STREQ(update_error->what(), "File not exist: /x");
    EXPECT_EQ(update_error->code(), UpdateError::kFileNotExist);
  }
}
