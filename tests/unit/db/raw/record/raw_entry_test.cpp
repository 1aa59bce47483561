#include "db/raw/record/raw_entry.h"

#include <gtest/gtest.h>

#include <cstring>

using db::raw::raw_value_c;

// Leaks and double frees are the sanitizer's to find.
TEST(RawValue, OwnsCopiesAndLooksAtTheRest) {
  char text[] = "text";
  const dorn_record_m_value_t view = {VELMAR_METRIC_STRING, false, {.v_string = text}};
  raw_value_c copied, looking;
  EXPECT_FALSE(copied.is_valid());
  EXPECT_DEATH(copied.get_data(), "_valid");
  copied.set_data(view, 3);
  looking.set_data_non_owner(view, 0);
  EXPECT_EQ(copied.get_generation(), 3);
  EXPECT_NE(copied.get_data().storage.v_string, text);
  EXPECT_EQ(looking.get_data().storage.v_string, text);

  raw_value_c moved = std::move(copied);
  EXPECT_FALSE(copied.is_valid());  // NOLINT: what a move leaves behind is told
  EXPECT_STREQ(moved.get_data().storage.v_string, "text");
  moved = std::move(looking);
  EXPECT_EQ(moved.get_data().storage.v_string, text);

  dorn_record_m_value_t taken = moved.take_data();  // of what it only looked at: a copy
  EXPECT_FALSE(moved.is_valid());
  EXPECT_NE(taken.storage.v_string, text);
  moved.set_data(std::move(taken), 1);
  taken = moved.take_data();
  EXPECT_STREQ(taken.storage.v_string, "text");
  dorn_record_data_release(&taken);
}
