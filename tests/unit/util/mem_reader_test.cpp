#include "util/mem_reader.h"

#include <gtest/gtest.h>

#include "util/intrusive_ptr.h"
#include "util/rw_buffer.h"
#include "util/strdup_reader.h"

static mem_reader_t reader_of(std::string_view text) {
  return {text.data(), text.size()};
}

TEST(MemReader, FindsTheByteBehindASeparatorFromBothEnds) {
  const mem_reader_t text = reader_of("a,b,c");
  mem_reader_t rest;
  EXPECT_EQ(mem_reader_find_pos_after_sep(&text, ',', &rest), 2u);
  EXPECT_EQ(mem_reader_view(rest), "b,c");
  EXPECT_EQ(mem_reader_find_pos_after_sep_from_end(&text, ',', &rest), 4u);
  EXPECT_EQ(mem_reader_view(rest), "c");

  const mem_reader_t last = reader_of("ab,");
  EXPECT_EQ(mem_reader_find_pos_after_sep(&last, ',', &rest), 3u);
  EXPECT_EQ(mem_reader_view(rest), "");
}

TEST(MemReader, WithoutASeparatorTheRestStaysAndThePositionIsBeyondTheText) {
  const mem_reader_t text = reader_of("ab"), empty = reader_of("");
  mem_reader_t rest = reader_of("kept");
  EXPECT_EQ(mem_reader_find_pos_after_sep(&text, ',', &rest), 3u);
  EXPECT_EQ(mem_reader_find_pos_after_sep_from_end(&text, ',', &rest), 3u);
  EXPECT_EQ(mem_reader_find_pos_after_sep(&empty, ',', &rest), 0u);
  EXPECT_EQ(mem_reader_view(rest), "kept");
}

TEST(MemReader, NeverMovesPastItsEnds) {
  mem_reader_t reader = reader_of("abc");
  EXPECT_FALSE(mem_reader_try_advance(&reader, 4));
  EXPECT_FALSE(mem_reader_try_truncate(&reader, 4));
  EXPECT_EQ(mem_reader_view(reader), "abc");
  EXPECT_TRUE(mem_reader_try_advance(&reader, 1));
  EXPECT_TRUE(mem_reader_try_truncate(&reader, 1));
  EXPECT_EQ(mem_reader_view(reader), "b");
  mem_reader_truncate_to(&reader, 5);
  EXPECT_EQ(mem_reader_view(reader), "b");
  EXPECT_FALSE(mem_reader_advance_if_match(&reader, "bc"));
  EXPECT_TRUE(mem_reader_advance_if_match(&reader, "b"));
  EXPECT_EQ(mem_reader_view(reader), "");
}

TEST(RwBuffer, WritesOnlyBytesOfItsOwnBeforeAReader) {
  char bytes[] = "xab,cdx";
  rw_buffer_t buffer;
  rw_buffer_fill(&buffer, bytes + 1, 5);  // "ab,cd"
  const auto write_before = [&](const char *at) {
    const mem_reader_t reader = {at, 0};
    return rw_buffer_write_preceding_byte(&buffer, &reader, '!');
  };
  EXPECT_FALSE(write_before(bytes));      // outside
  EXPECT_FALSE(write_before(bytes + 1));  // at the start: the byte before is not the buffer's
  EXPECT_FALSE(write_before(bytes + 7));
  EXPECT_STREQ(bytes, "xab,cdx");
  EXPECT_TRUE(write_before(bytes + 4));
  EXPECT_TRUE(write_before(bytes + 6));  // an empty rest at the end
  EXPECT_STREQ(bytes, "xab!c!x");
}

TEST(StrdupReader, KeepsACopyOfTheLastString) {
  strdup_reader_t reader;
  strdup_reader_init(&reader);
  std::string text = "first";
  ASSERT_TRUE(strdup_reader_try_fill(&reader, text.c_str()));
  text[0] = 'x';
  EXPECT_STREQ(strdup_reader_get_buffer(&reader), "first");
  ASSERT_TRUE(strdup_reader_try_fill(&reader, "second"));
  EXPECT_STREQ(strdup_reader_get_buffer(&reader), "second");
  strdup_reader_cleanup(&reader);
  EXPECT_EQ(strdup_reader_get_buffer(&reader), nullptr);
}

namespace {
struct counted_t {
  int refs = 1;
};
void intrusive_ptr_add_ref(counted_t *c) {
  c->refs++;
}
void intrusive_ptr_release(counted_t *c) {
  c->refs--;
}
}  // namespace

TEST(IntrusivePtr, EveryWayOfHandingOnKeepsTheCount) {
  using ptr = util::mem::intrusive_ptr<counted_t>;
  counted_t a, b;
  {
    ptr first(&a);
    EXPECT_EQ(a.refs, 2);
    ptr second = first;
    EXPECT_EQ(a.refs, 3);
    ptr moved = std::move(second);
    EXPECT_EQ(a.refs, 3);
    EXPECT_FALSE(second);
    moved = moved;
    EXPECT_EQ(a.refs, 3);
    moved.reset(&b);
    EXPECT_EQ(a.refs, 2);
    EXPECT_EQ(b.refs, 2);
    swap(first, moved);
    EXPECT_EQ(first, &b);
    EXPECT_EQ(moved.detach(), &a);  // one reference is ours now
  }
  EXPECT_EQ(a.refs, 2);
  EXPECT_EQ(b.refs, 1);
  { const ptr adopted(&a, false); }
  EXPECT_EQ(a.refs, 1);
}
