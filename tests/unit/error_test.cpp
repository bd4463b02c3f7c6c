#include "dataupdate/error.h"

#include <gtest/gtest.h>

using vesk::dataupdate::UpdateError;

TEST(UpdateError, TextIsExactAndCodeDefaultsToGeneral) {
  EXPECT_EQ(UpdateError("x").code(), UpdateError::kGeneral);
  EXPECT_EQ(UpdateError(std::string("x")).code(), UpdateError::kGeneral);
  EXPECT_EQ(static_cast<int>(UpdateError("x", UpdateError::kFileNotExist).code()), 1);
  for (const char* text : {"Fail to read: /x", "", "a\nb"})
    EXPECT_STREQ(UpdateError(std::string(text)).what(), text);
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
