// What was written reads back; what was broken is noticed or absent, and never read beyond its end.
#include <gtest/gtest.h>

#include <random>

#include "db/surrogate3/codec/fbs_oil_encoder.h"
#include "db/surrogate3/codec/fbs_surrogate_encoder.h"
#include "db/surrogate3/codec/oil_decoder_composite.h"
#include "db/surrogate3/codec/surrogate_codec_factory.h"
#include "support/log_capture.h"
#include "support/surrogate_metrics.h"

namespace db::surrogate3 {

namespace {

using bytes_t = std::vector<uint8_t>;

bytes_t copy_of(std::span<const uint8_t> bytes) {
  return {bytes.begin(), bytes.end()};
}

surrogate_decoder_sp open_metadata(const bytes_t &bytes, decode_error_e *error, uint64_t file_id = 1) {
  return build_decoder(encoded_data_file_c({file_id, "m", 0, surrogate::metadata}, bytes), error);
}

oil_decoder_sp open_activity(const bytes_t &bytes, decode_error_e *error, uint64_t file_id = 1) {
  return build_oil_decoder(encoded_data_file_c({file_id, "a", 0, surrogate::activity}, bytes), error);
}

bytes_t small_metadata_file() {
  fbs_surrogate_encoder_c encoder;
  encoder.accept(make_stored_metric(3, "cpu|ST[host:a,role:db]", 1, 5));
  encoder.accept(make_stored_metric(4, "mem|ST[host:a]|MT{x:y}", 2));
  encoder.accept(make_stored_metric(9, "", 2));
  encoder.accept_tombstone(1);
  encoder.commit(1);
  return copy_of(encoder.buffer());
}

bytes_t small_activity_file() {
  fbs_oil_encoder_c encoder;
  encoder.accept(3, oil_from_pairs({{10, 12}, {500, 600}}));
  encoder.accept(7, oil_from_pairs({{20, 20}}));
  encoder.accept_tombstone(2);
  encoder.commit(1);
  return copy_of(encoder.buffer());
}

// Reads all there is, by every way. Every metric that comes back must be one of those stored.
void read_everything(const bytes_t &bytes) {
  decode_error_e error;
  const std::vector<metric_locator_sp> stored = {make_metric("cpu|ST[host:a,role:db]", 1),
                                                 make_metric("mem|ST[host:a]|MT{x:y}", 2), make_metric("", 2)};
  if (const surrogate_decoder_sp decoder = open_metadata(bytes, &error)) {
    std::vector<metric_locator_sp> found;
    for (size_t i = 0; i < decoder->get_num_entries(); ++i)
      found.push_back(decoder->build_metric_locator_at(i));
    for (uint64_t id = 0; id < 12; ++id) found.push_back(decoder->build_metric_locator(id));
    for (const auto &metric : stored) decoder->get_surrogate_id_from_key(metric_key_c(metric.get()));
    for (const auto &metric : found)
      EXPECT_TRUE(!metric || std::any_of(stored.begin(), stored.end(), [&](const auto &known) {
        return velmar_metric_locator_equal(known.get(), metric.get());
      }));
  }
  if (const oil_decoder_sp decoder = open_activity(bytes, &error)) {
    uint64_t id;
    std::vector<oil_interval_t> pairs;
    for (size_t i = 0; i < decoder->get_num_entries(); ++i) decoder->get_oil_at(i, &id, &pairs);
    for (uint64_t i = 0; i < 12; ++i) EXPECT_TRUE(oil_valid(decoder->find(i).get()));
  }
}

}  // namespace

TEST(Decoder, FindsWhatWasStoredAndNothingElse) {
  std::mt19937_64 random(7);
  for (const size_t n : {1, 2, 3, 100, 1500}) {
    fbs_surrogate_encoder_c encoder;
    std::vector<metric_locator_sp> stored;
    uint64_t id = random() % 5 + 1;
    const bool dense = random() % 2;
    for (size_t i = 0; i < n; ++i, id += dense ? 1 : random() % 4 + 1) {
      const std::string name = "m" + std::to_string(random() % 1000) + "." + std::to_string(i) +
                               (i % 3 ? "|ST[host:h" + std::to_string(i % 10) + ",dc:x]" : "");
      stored.push_back(make_stored_metric(id, name, static_cast<uint8_t>(i % 4), static_cast<int32_t>(i) - 5,
                                          static_cast<velmar_metric_locator_metric_type_e>(i % 7)));
    }
    std::vector<metric_locator_sp> accepted = stored;
    std::shuffle(accepted.begin(), accepted.end(), random);
    for (const auto &metric : accepted) encoder.accept(metric);
    encoder.commit(1);
    decode_error_e error;
    const bytes_t bytes = copy_of(encoder.buffer());
    const surrogate_decoder_sp decoder = open_metadata(bytes, &error);
    ASSERT_EQ(error, decode_error_e::none);
    ASSERT_EQ(decoder->get_num_entries(), n);
    EXPECT_EQ(decoder->get_max_surrogate_id(), velmar_metric_locator_get_surrogate_id(stored.back().get()));

    uint64_t next = 0;
    for (const auto &metric : stored) {
      const uint64_t expected = velmar_metric_locator_get_surrogate_id(metric.get());
      EXPECT_EQ(decoder->get_surrogate_id_from_key(metric_key_c(metric.get())), expected);
      for (; next < expected; ++next) EXPECT_FALSE(decoder->build_metric_locator(next)) << next;
      ++next;
      const metric_locator_sp found = decoder->build_metric_locator(expected);
      ASSERT_TRUE(found);
      EXPECT_TRUE(velmar_metric_locator_equal(found.get(), metric.get()));
      EXPECT_TRUE(velmar_metric_locator_matches(found.get(), metric.get()));
      EXPECT_EQ(velmar_metric_locator_get_surrogate_id(found.get()), expected);
      EXPECT_EQ(found->account_id, metric->account_id);
      EXPECT_EQ(found->type, metric->type);
      EXPECT_EQ(found->immutable->untagged_metric_name_len, metric->immutable->untagged_metric_name_len);
      const auto *tags = velmar_metric_locator_get_stream_tags(found.get());
      const auto *expected_tags = velmar_metric_locator_get_stream_tags(metric.get());
      EXPECT_EQ(tags->count, expected_tags->count);
      EXPECT_EQ(std::string(tags->text ? tags->text : "", tags->text_size),
                std::string(expected_tags->text ? expected_tags->text : "", expected_tags->text_size));
    }
    EXPECT_EQ(decoder->get_surrogate_id_from_key(metric_key_c(make_metric("never").get())), 0u);
    EXPECT_FALSE(decoder->build_metric_locator(next));
  }
}

TEST(Decoder, TombstonesAloneMakeAFile) {
  decode_error_e error;
  fbs_surrogate_encoder_c metadata;
  EXPECT_TRUE(metadata.empty());
  metadata.accept_tombstone(30);
  metadata.accept_tombstone(10);
  EXPECT_FALSE(metadata.empty());
  metadata.commit(1);
  bytes_t bytes = copy_of(metadata.buffer());
  const surrogate_decoder_sp decoder = open_metadata(bytes, &error);
  ASSERT_TRUE(decoder);
  EXPECT_EQ(decoder->get_max_surrogate_id(), 30u);
  EXPECT_TRUE(decoder->has_tombstone(10));
  EXPECT_FALSE(decoder->has_tombstone(11));
  EXPECT_EQ(decoder->get_surrogate_id_from_key(metric_key_c(make_metric("a").get())), 0u);
  EXPECT_FALSE(decoder->build_metric_locator(10));
  metadata.reset();
  EXPECT_TRUE(metadata.empty());

  fbs_oil_encoder_c activity;
  activity.accept_tombstone(5);
  activity.commit(1);
  bytes = copy_of(activity.buffer());
  const oil_decoder_sp oils = open_activity(bytes, &error);
  ASSERT_TRUE(oils);
  EXPECT_FALSE(oils->find(5));
}

TEST(Decoder, NewestActivityWinsAndTombstonesHide) {
  const auto file = [](const std::vector<std::pair<uint64_t, uint32_t>> &oils, std::vector<uint64_t> gone) {
    fbs_oil_encoder_c encoder;
    for (const auto &[id, unit] : oils) encoder.accept(id, oil_from_pairs({{unit, unit}}));
    for (const uint64_t id : gone) encoder.accept_tombstone(id);
    encoder.commit(1);
    return copy_of(encoder.buffer());
  };
  const std::vector<bytes_t> files = {file({{1, 10}, {2, 10}, {3, 10}, {4, 10}}, {}),
                                      file({{2, 20}, {5, 20}}, {4}), file({{3, 30}}, {5})};
  decode_error_e error;
  std::vector<oil_decoder_sp> decoders;
  for (size_t i = files.size(); i > 0; --i) decoders.push_back(open_activity(files[i - 1], &error, i));
  oil_decoder_composite_c composite;
  composite.replace(decoders);
  uint32_t first = 0, last = 0;
  ASSERT_TRUE(oil_epoch_apoc(composite.find(2).get(), &first, &last));
  EXPECT_EQ(first, 20u);
  EXPECT_FALSE(composite.find(6));

  std::map<uint64_t, uint32_t> walked;
  std::reverse(decoders.begin(), decoders.end());
  for (delegate_iterator_c it(decoders); !it.is_done(); it.next())
    EXPECT_TRUE(walked.emplace(it.id(), it.pairs().at(0).first).second);
  EXPECT_EQ(walked, (std::map<uint64_t, uint32_t>{{1, 10}, {2, 20}, {3, 30}}));
  EXPECT_TRUE(delegate_iterator_c({}).is_done());
}

TEST(Decoder, EveryCutIsSeenAsACut) {
  for (const bool metadata : {true, false}) {
    const bytes_t whole = metadata ? small_metadata_file() : small_activity_file();
    for (size_t size = 1; size < whole.size(); ++size) {
      const bytes_t cut(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(size));
      decode_error_e error;
      if (metadata)
        open_metadata(cut, &error);
      else
        open_activity(cut, &error);
      EXPECT_EQ(error, decode_error_e::cut_short) << size << " of " << whole.size();
    }
    bytes_t longer = whole;  // room that was never written
    std::fill(longer.begin(), longer.end(), 0);
    decode_error_e error;
    open_metadata(longer, &error);
    EXPECT_EQ(error, decode_error_e::cut_short);
  }
}

TEST(Decoder, NoFlippedBitMisleads) {
  const log_capture_c log("error");
  for (const bytes_t &whole : {small_metadata_file(), small_activity_file()}) {
    bytes_t bytes = whole;
    for (size_t bit = 0; bit < 8 * whole.size(); ++bit) {
      bytes[bit / 8] = static_cast<uint8_t>(bytes[bit / 8] ^ (1 << bit % 8));
      read_everything(bytes);
      bytes[bit / 8] = whole[bit / 8];
    }
  }
}

TEST(Decoder, RandomDamageNeverReadsBeyondTheFile) {
  const log_capture_c log("error");
  std::mt19937_64 random(11);
  for (int round = 0; round < 20000; ++round) {
    bytes_t bytes = round % 2 ? small_metadata_file() : small_activity_file();
    for (uint64_t hits = random() % 4 + 1; hits > 0; --hits) {
      const size_t place = random() % (bytes.size() / 8) * 8;
      const uint64_t values[] = {0, 1, 8, bytes.size(), UINT64_MAX, UINT64_MAX / 8, random(), random() % 1024};
      memcpy(&bytes[place], &values[random() % std::size(values)], 8);
    }
    read_everything(bytes);
  }
}

TEST(Decoder, OtherFormatsAreTold) {
  decode_error_e error;
  bytes_t bytes = small_metadata_file();
  bytes[11] = '1';
  open_metadata(bytes, &error);
  EXPECT_EQ(error, decode_error_e::older_format);
  bytes[11] = 'x';
  open_metadata(bytes, &error);
  EXPECT_EQ(error, decode_error_e::damaged);
}

}  // namespace db::surrogate3
