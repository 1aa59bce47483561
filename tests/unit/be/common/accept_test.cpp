#include "be/common/accept.h"

#include <gtest/gtest.h>

namespace {

std::string find(std::string_view header) {
  velmar_be_accept_types_t types;
  velmar_be_common_init_accept_types(&types, {"application/json", "text/plain", "text/csv"});
  return velmar_be_common_find_accept_type(types, header).value_or("none");
}

TEST(accept, the_highest_q_wins_and_the_first_among_equals) {
  EXPECT_EQ(find("text/plain"), "text/plain");
  EXPECT_EQ(find("text/plain;q=0.5, text/csv"), "text/csv");
  EXPECT_EQ(find("text/csv, text/plain"), "text/csv");
  EXPECT_EQ(find("text/csv;q=0.123, text/plain;q=0.124"), "text/plain");
  EXPECT_EQ(find("TEXT/PLAIN ; q=1.000"), "text/plain");
}

TEST(accept, wildcards_give_the_first_that_fits) {
  EXPECT_EQ(find("*/*"), "application/json");
  EXPECT_EQ(find("text/*"), "text/plain");
  EXPECT_EQ(find("image/*, */*;q=0.1"), "application/json");
}

TEST(accept, what_cannot_win) {
  EXPECT_EQ(find(""), "none");
  EXPECT_EQ(find("image/png"), "none");
  EXPECT_EQ(find("text/plain;q=0"), "none");
  EXPECT_EQ(find("text/plain;q=1.001, text/csv;q=0.1"), "text/csv");
  EXPECT_EQ(find("text/plain;q=2"), "none");
  EXPECT_EQ(find("text, text/csv"), "text/csv");
  EXPECT_EQ(find("text/, text/csv"), "text/csv");
}

TEST(accept, other_parameters_are_read_and_do_not_confuse) {
  EXPECT_EQ(find("text/plain;charset=utf-8;q=0.2, text/csv;q=0.1"), "text/plain");
  EXPECT_EQ(find(R"(text/plain;a="x, y\"; q=0.1";q=0.9, text/csv;q=0.5)"), "text/plain");
  EXPECT_EQ(find("text/plain;a=\"open, text/csv"), "none");
}

}  // namespace
