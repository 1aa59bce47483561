#include "util/histogram_entries.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "support/log_capture.h"
#include "util/raw_record.h"

namespace {

const std::string UUID = "12345678-9abc-def0-1234-56789abcdef0";

metric_locator_sp locator() {
  const uint8_t uuid[16] = {9};
  const mem_reader_t name = {"m", 1};
  return metric_locator_adopt(velmar_metric_locator_create_full(4, METRIC_TYPE_HISTOGRAM, uuid, &name));
}

hist_ptr histogram(uint64_t count) {
  hist_ptr hist(hist_alloc());
  hist_insert(hist.get(), 2.5, count);
  return hist;
}

std::string b64_of(const histogram_t *hist) {
  std::string text(hist_serialize_b64_estimate(hist), '\0');
  text.resize(static_cast<size_t>(hist_serialize_b64(hist, text.data(), text.size())));
  return text;
}

int decode(const std::string &line, histogram_line_t *out) {
  const mem_reader_t reader = {line.data(), line.size()};
  return decode_histogram_string(&reader, out);
}

}  // namespace

TEST(HistogramLine, IsDecodedWithItsMetric) {
  const std::string b64 = b64_of(histogram(12).get()), check = "a`c_31_2::http`" + UUID;
  const std::string line = "H2\t100.25\t" + check + "\tlat|ST[x:y]\t" + b64;
  histogram_line_t out;
  ASSERT_EQ(decode(line, &out), 1);
  EXPECT_EQ(out.whence_ms, 100250u);
  EXPECT_TRUE(out.cumulative);
  EXPECT_EQ(velmar_metric_locator_get_account_id(out.metric_locator.get()), 31);
  EXPECT_STREQ(velmar_metric_locator_get_name_with_tags(out.metric_locator.get()), "lat|ST[x:y]");
  EXPECT_EQ(velmar_metric_locator_get_type(out.metric_locator.get()), METRIC_TYPE_HISTOGRAM);
  EXPECT_EQ(mem_reader_view(out.value), b64);
  EXPECT_EQ(hist_sample_count(out.histogram.get()), 12u);
  ASSERT_EQ(decode("H1" + line.substr(2), &out), 1);
  EXPECT_FALSE(out.cumulative);
}

TEST(HistogramLine, NamesItsFirstBadField) {
  const std::string b64 = b64_of(histogram(1).get()), check = "a`" + UUID;
  histogram_line_t out;
  EXPECT_EQ(decode("", &out), -1);
  EXPECT_EQ(decode("H3\t1\t" + check + "\tn\t" + b64, &out), -1);
  EXPECT_EQ(decode("H1\t", &out), -2);
  EXPECT_EQ(decode("H1\tx\t" + check + "\tn\t" + b64, &out), -2);
  EXPECT_EQ(decode("H1\t1\t" + UUID + "\tn\t" + b64, &out), -3);
  EXPECT_EQ(decode("H1\t1\t" + check, &out), -3);
  EXPECT_EQ(decode("H1\t1\ta" + UUID + "z\tn\t" + b64, &out), -4);
  EXPECT_EQ(decode("H1\t1\t" + check + "\tn", &out), -5);
  EXPECT_EQ(decode("H1\t1\t" + check + "\tn|ST[bad]\t" + b64, &out), -6);
  EXPECT_EQ(decode("H1\t1\t" + check + "\tn\t", &out), -7);
  log_capture_c log("error");
  EXPECT_EQ(decode("H1\t1\t" + check + "\tn\tAAAA", &out), -8);
  EXPECT_NE(log.text().find("Failed to deserialize histogram: |AAAA|"), std::string::npos);
}

TEST(HistogramList, ChainsSamplesInOrder) {
  const metric_locator_sp ml = locator();
  histogram_data_t list;
  const std::string text = "base64";
  const mem_reader_t b64 = {text.data(), text.size()};
  ASSERT_TRUE(add_histogram_to_list(&list, 5, ml.get(), &b64, false, nullptr));
  ASSERT_TRUE(add_materialized_histogram_to_list(&list, 6, ml.get(), histogram(3), true, nullptr));
  EXPECT_EQ(ml->ref_cnt, 3u);
  ASSERT_EQ(list.count, 2);
  EXPECT_EQ(list.head->histogram, "base64");
  EXPECT_EQ(list.head->account_id, 4);
  EXPECT_EQ(list.tail, list.head->next);
  EXPECT_TRUE(list.tail->cumulative);
  EXPECT_EQ(hist_sample_count(list.tail->materialized_histogram.get()), 3u);
}

TEST(HistogramList, SaysWhatIsMissing) {
  log_capture_c log("error");
  histogram_data_t list;
  EXPECT_FALSE(add_histogram_to_list(&list, 5, locator().get(), nullptr, false, nullptr));
  EXPECT_FALSE(add_materialized_histogram_to_list(nullptr, 5, nullptr, histogram(1), false, nullptr));
  EXPECT_EQ(list.count, 0);
  const std::string text = log.text();
  EXPECT_NE(text.find("add_histogram_to_list: couldn't add histogram - list not null, metric_locator not null, "
                      "value null"),
            std::string::npos);
  EXPECT_NE(text.find("add_materialized_histogram_to_list: couldn't add histogram - list null, metric_locator "
                      "null, value not null"),
            std::string::npos);
}

TEST(HistogramList, TheMutexLetsThreadsShareAChain) {
  histogram_data_t list;
  krel_mutex_c mutex;
  const metric_locator_sp ml = locator();
  std::vector<std::thread> threads;
  for (int t = 0; t < 3; t++)
    threads.emplace_back([&] {
      for (uint64_t i = 0; i < 300; i++)
        add_materialized_histogram_to_list(&list, i, ml.get(), histogram(1), false, &mutex);
    });
  for (auto &t : threads) t.join();
  int chained = 0;
  for (const histogram_entries_t *e = list.head; e; e = e->next) chained++;
  EXPECT_EQ(chained, 900);
  EXPECT_EQ(list.count, 900);
}

TEST(HistogramList, CopiesOfAValueShareTheLocatorOnly) {
  const metric_locator_sp ml = locator();
  auto entry = std::make_unique<histogram_entries_t>();
  entry->metric_locator = ml;
  entry->offset = 8;
  entry->materialized_histogram = histogram(2);
  const dorn_record_m_value_t value = {VELMAR_METRIC_HISTOGRAM_ENTRY, false, {.v_histogram = entry.get()}};
  dorn_record_m_value_t copy;
  dorn_record_data_dup(&copy, &value);
  entry.reset();
  EXPECT_EQ(copy.storage.v_histogram->offset, 8u);
  EXPECT_EQ(hist_sample_count(copy.storage.v_histogram->materialized_histogram.get()), 2u);
  EXPECT_EQ(ml->ref_cnt, 2u);
  dorn_record_data_release(&copy);
  EXPECT_EQ(ml->ref_cnt, 1u);
}
