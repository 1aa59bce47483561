// The windowed reader: when it fetches, when it answers from what it has, and what it fetches from a peer.
#include "be/rollup/read_rollup.h"

#include <gtest/gtest.h>

#include "be/rollup/to_nnt.h"
#include "fake_reader.h"
#include "support/fake_clock.h"

namespace {

using namespace velmar_be_rollup;

class read_rollup : public testing::Test {
 protected:
  // A minute apart from 6000 to 12000 s; the value is the time.
  void SetUp() override {
    fill(6000, 12'000);
    m_rollup =
        std::make_unique<read_rollup_c>(locator_of("m"), 60, 2, make_read_rollup_local(&m_reader), &m_clock);
  }
  void fill(uint64_t from, uint64_t to) {
    m_reader.runs = {{from * 1000, 60'000, {}}};
    for (uint64_t t = from; t < to; t += 60) m_reader.runs[0].cells.push_back(cell_of(t));
    m_reader.epoch_ms = from * 1000;
    m_reader.last_ms = (to - 60) * 1000;
  }
  int read(uint64_t t, uint64_t deadline_us = 0) { return m_rollup->read(t, 10, 20, deadline_us, &m_cell); }
  size_t fetches() const { return m_reader.keys.size(); }

  fake_reader_c m_reader;
  fake_clock_c m_clock;
  std::unique_ptr<read_rollup_c> m_rollup;
  nnt_multitype m_cell;
};

TEST_F(read_rollup, one_fetch_serves_a_window) {
  EXPECT_EQ(read(7230), read_rollup_c::FOUND);
  EXPECT_EQ(m_cell.value.v_uint64, 7200U);
  ASSERT_EQ(fetches(), 1U);
  EXPECT_EQ(m_reader.keys[0].m_start, 6'600'000U);
  EXPECT_EQ(m_reader.keys[0].m_end, (6600 + 2 * 30 * 60) * 1000U);
  EXPECT_EQ(m_reader.keys[0].m_rollup_span, 60'000U);
  EXPECT_EQ(read(6600), read_rollup_c::FOUND);
  EXPECT_EQ(read(10'199), read_rollup_c::FOUND);
  EXPECT_EQ(fetches(), 1U);
  EXPECT_EQ(read(10'200), read_rollup_c::FOUND);
  EXPECT_EQ(fetches(), 2U);
}

TEST_F(read_rollup, outside_of_the_metrics_range_nothing_is_fetched) {
  EXPECT_EQ(read(7200), read_rollup_c::FOUND);
  EXPECT_EQ(read(5999), read_rollup_c::EMPTY);
  EXPECT_EQ(read(12'000), read_rollup_c::EMPTY);
  EXPECT_EQ(read(11'999), read_rollup_c::FOUND) << "the last cell is in the range";
  EXPECT_EQ(fetches(), 2U);
  // the end is asked for again when what is known of it is old
  m_clock.advance_s(300);
  fill(6000, 12'600);
  EXPECT_EQ(read(12'000), read_rollup_c::FOUND);
  EXPECT_EQ(fetches(), 3U);
}

TEST_F(read_rollup, after_a_failure_it_waits) {
  m_reader.error = db::kv::code_e::INTERNAL;
  EXPECT_EQ(read(7200), read_rollup_c::UNAVAILABLE);
  m_reader.error = db::kv::code_e::NONE;
  m_clock.advance_s(299);
  EXPECT_EQ(read(7200), read_rollup_c::UNAVAILABLE);
  EXPECT_EQ(fetches(), 1U);
  m_clock.advance_s(1);
  EXPECT_EQ(read(7200), read_rollup_c::FOUND);
}

TEST_F(read_rollup, past_the_end_without_a_window) {
  EXPECT_EQ(read(7200), read_rollup_c::FOUND);
  m_reader.error = db::kv::code_e::INTERNAL;
  EXPECT_EQ(read(11'000), read_rollup_c::UNAVAILABLE);  // the window went with the fetch
  EXPECT_EQ(fetches(), 2U);
  EXPECT_EQ(read(12'000), read_rollup_c::UNAVAILABLE);
  EXPECT_EQ(fetches(), 2U);
}

TEST_F(read_rollup, no_fetch_past_the_deadline) {
  EXPECT_EQ(read(7200, m_clock.now_us()), read_rollup_c::UNAVAILABLE);
  EXPECT_EQ(fetches(), 0U);
}

TEST_F(read_rollup, times_near_zero) {
  EXPECT_EQ(m_rollup->read(120, 100, 0, 0, &m_cell), read_rollup_c::EMPTY);
  EXPECT_EQ(m_reader.keys[0].m_start, 0U);
  EXPECT_EQ(m_rollup->read(7200, 0, 0, 0, &m_cell), read_rollup_c::FOUND) << "at least the cell itself";
}

}  // namespace
