#include "platform/krel/base/krel_buffer.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

TEST(krel_buffer_test, grows_out_of_its_first_block_and_keeps_every_byte) {
  krel_dyn_buffer_t buffer;
  krel_dyn_buffer_init(&buffer);
  std::string expected;
  for (int i = 0; i < 5000; i++) {
    std::string piece(static_cast<size_t>(i % 37), static_cast<char>('a' + i % 26));
    krel_dyn_buffer_add(&buffer, piece.data(), piece.size());
    krel_dyn_buffer_add_printf(&buffer, "<%d>", i);
    expected += piece + "<" + std::to_string(i) + ">";
  }
  EXPECT_EQ(krel_dyn_buffer_view(&buffer), expected);
  krel_dyn_buffer_reset(&buffer);
  EXPECT_EQ(krel_dyn_buffer_used(&buffer), 0u);
  EXPECT_GE(krel_dyn_buffer_size(&buffer), expected.size());
  krel_dyn_buffer_destroy(&buffer);
}

TEST(krel_buffer_test, printf_over_the_edge_of_the_block) {
  for (size_t before = KREL_DYN_BUFFER_FIRST - 8; before <= KREL_DYN_BUFFER_FIRST; before++) {
    krel_dyn_buffer_t buffer;
    krel_dyn_buffer_init(&buffer);
    std::string text(before, 'x');
    krel_dyn_buffer_add(&buffer, text.data(), text.size());
    krel_dyn_buffer_add_printf(&buffer, "%s", "12345");
    EXPECT_EQ(krel_dyn_buffer_view(&buffer), text + "12345");
    krel_dyn_buffer_destroy(&buffer);
  }
}

TEST(krel_buffer_test, written_by_hand_and_moved) {
  for (size_t size : {size_t{5}, KREL_DYN_BUFFER_FIRST * 3}) {
    krel_dyn_buffer_t from, to;
    krel_dyn_buffer_init(&from);
    krel_dyn_buffer_ensure(&from, size);
    std::memset(krel_dyn_buffer_write_pointer(&from), 'm', size);
    krel_dyn_buffer_advance(&from, size);
    krel_dyn_buffer_move(&to, &from);
    EXPECT_EQ(krel_dyn_buffer_view(&to), std::string(size, 'm'));
    EXPECT_EQ(krel_dyn_buffer_used(&from), 0u);
    krel_dyn_buffer_add(&from, "again", 5);
    EXPECT_EQ(krel_dyn_buffer_view(&from), "again");
    EXPECT_EQ(krel_dyn_buffer_view(&to), std::string(size, 'm'));
    krel_dyn_buffer_destroy(&from);
    krel_dyn_buffer_destroy(&to);
  }
}

TEST(krel_buffer_test, advancing_past_the_end_is_fatal) {
  krel_dyn_buffer_t buffer;
  krel_dyn_buffer_init(&buffer);
  EXPECT_DEATH(krel_dyn_buffer_advance(&buffer, KREL_DYN_BUFFER_FIRST + 1), "");
  krel_dyn_buffer_destroy(&buffer);
}

}  // namespace
