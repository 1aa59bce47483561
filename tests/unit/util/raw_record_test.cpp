#include "util/raw_record.h"

#include <gtest/gtest.h>

#include <cstring>

#include "util/histogram_entries.h"

namespace {

const std::string UUID = "12345678-9abc-def0-1234-56789abcdef0";
const std::string CHECK = "host`disk`c_42_7::http`" + UUID;

// A chunk of one line, with what the parser says of it.
struct parsed_line_t {
  std::string bytes;
  bool ok = false;
  dorn_record_m_t record = {};
};

parsed_line_t parse(const std::string &line) {
  parsed_line_t p = {line + "\n"};
  rw_buffer_t buffer;
  rw_buffer_fill(&buffer, p.bytes.data(), p.bytes.size());
  mem_reader_t chunk = rw_buffer_get_reader(&buffer), text, rest;
  EXPECT_TRUE(dorn_record_get_next_line(&buffer, &chunk, &text));
  const char *type = dorn_record_get_next_field(&buffer, &text, &rest);
  p.ok = type && dorn_record_type_lookup(type) == DORN_RECORD_TYPE_M &&
         dorn_record_parse_m(&buffer, &rest, &p.record);
  return p;
}

parsed_line_t parse_value(const std::string &type, const std::string &value) {
  return parse("M\t100\t" + CHECK + "\tname\t" + type + "\t" + value);
}

}  // namespace

TEST(RawRecord, AMetricLineIsReadInPlace) {
  const parsed_line_t p = parse("M\t100.5\t" + CHECK + "\tcpu|ST[a:b]\ts\tsome text");
  ASSERT_TRUE(p.ok);
  EXPECT_EQ(p.record.whence_ms, 100500u);
  EXPECT_EQ(mem_reader_view(p.record.check_name_buf), "host`disk`c_42_7::http");
  EXPECT_EQ(mem_reader_view(p.record.metric_name_buf), "cpu|ST[a:b]");
  EXPECT_STREQ(p.record.check_name_buf.input_buffer, "host`disk`c_42_7::http");  // terminated
  EXPECT_STREQ(p.record.metric_name_buf.input_buffer, "cpu|ST[a:b]");
  EXPECT_STREQ(p.record.value.storage.v_string, "some text");
  EXPECT_EQ(p.record.account_id, 42u);
  EXPECT_EQ(p.record.check_uuid[0], 0x12);
  EXPECT_GE(p.record.metric_name_buf.input_buffer, p.bytes.data());
}

TEST(RawRecord, AccountsComeFromTheLastPartOfTheCheckName) {
  const auto account = [](const std::string &check_name) -> std::string {
    const parsed_line_t p = parse("M\t1\t" + check_name + "`" + UUID + "\tn\ti\t1");
    return p.ok ? std::to_string(p.record.account_id) : "refused";
  };
  EXPECT_EQ(account("a`c_7"), "7");
  EXPECT_EQ(account("a`c_"), "0");
  EXPECT_EQ(account("a`c_x"), "0");
  EXPECT_EQ(account("a`c_7`b"), "0");
  EXPECT_EQ(account("c_7"), "0");
  EXPECT_EQ(account(""), "0");
  EXPECT_EQ(account("a`c_2147483647"), "2147483647");
  EXPECT_EQ(account("a`c_2147483648"), "refused");
  EXPECT_EQ(account("a`c_99999999999999999999"), "refused");
}

TEST(RawRecord, ValuesFollowTheirLetter) {
  EXPECT_EQ(parse_value("i", "-2147483648").record.value.storage.v_int32, INT32_MIN);
  EXPECT_EQ(parse_value("i", "2147483648").record.value.storage.v_int32, INT32_MIN);  // cut to 32 bits
  EXPECT_EQ(parse_value("I", "4294967297").record.value.storage.v_uint32, 1u);
  EXPECT_EQ(parse_value("l", "-9223372036854775808").record.value.storage.v_int64, INT64_MIN);
  EXPECT_EQ(parse_value("L", "18446744073709551615").record.value.storage.v_uint64, UINT64_MAX);
  EXPECT_EQ(parse_value("n", " +0x1.8p1").record.value.storage.v_double, 3.0);
  EXPECT_EQ(parse_value("n", "-1e-3").record.value.storage.v_double, -0.001);
  const parsed_line_t null = parse_value("n", "[[null]]");
  EXPECT_TRUE(null.ok && null.record.value.is_null);
  EXPECT_EQ(null.record.value.type, VELMAR_METRIC_DOUBLE);
  EXPECT_STREQ(parse_value("s", "").record.value.storage.v_string, "");
  EXPECT_TRUE(parse_value("s", "").ok);
}

TEST(RawRecord, BadValuesAreRefused) {
  const std::pair<const char *, const char *> bad[] = {{"l", "99999999999999999999"},
                                                       {"l", "9223372036854775808"},
                                                       {"l", "-9223372036854775809"},
                                                       {"L", "18446744073709551616"},
                                                       {"L", "-1"},
                                                       {"I", "+1"},
                                                       {"i", ""},
                                                       {"i", "-"},
                                                       {"i", "1 "},
                                                       {"i", " 1"},
                                                       {"n", ""},
                                                       {"n", " "},
                                                       {"n", "1x"},
                                                       {"n", "nan"},
                                                       {"n", "-NaN(1)"},
                                                       {"n", "inf"},
                                                       {"n", "+Infinity"},
                                                       {"n", "1e999"},
                                                       {"n", "0x1p9999"},
                                                       {"n", "+-1"},
                                                       {"n", "1\t2"},
                                                       {"x", "1"},
                                                       {"0", "1"},
                                                       {"h", "AQA="},
                                                       {"H", "AQA="},
                                                       {"ii", "1"},
                                                       {"", "1"}};
  for (const auto &[type, value] : bad) EXPECT_FALSE(parse_value(type, value).ok) << type << " " << value;
}

TEST(RawRecord, BadLinesAreRefusedAndStayReadable) {
  const std::string uuid_less = UUID.substr(1);
  for (const std::string &line :
       {std::string("M"), std::string("M\t"), std::string("M\t1"), "M\t1\t" + CHECK, "M\t1\t" + CHECK + "\tn",
        "M\t1\t" + CHECK + "\tn\ti", "M\t\t" + CHECK + "\tn\ti\t1", "M\tx\t" + CHECK + "\tn\ti\t1",
        "M\t-1\t" + CHECK + "\tn\ti\t1", "M\t1\t" + UUID + "\tn\ti\t1", "M\t1\ta`" + uuid_less + "\tn\ti\t1",
        "M\t1\ta`" + uuid_less + "g\tn\ti\t1", "M\t1\t" + CHECK + "\tn" + std::string(1, '\0') + "\ti\t1",
        "M\t1\t" + CHECK + "\tn\ts\ta" + std::string(1, '\0') + "b"}) {
    const parsed_line_t p = parse(line);
    EXPECT_FALSE(p.ok) << line;
    if (line.size() > 2) {
      EXPECT_EQ(p.bytes.substr(2, line.size() - 2), line.substr(2));
    }
  }
  EXPECT_TRUE(parse("M\t1\t" + CHECK + "\t" + std::string(1000000, 'n') + "\ti\t1").ok);
}

TEST(RawRecord, TimesAreSecondsWithAFraction) {
  const auto ms = [](std::string_view text) {
    uint64_t value;
    EXPECT_TRUE(dorn_record_parse_m_timestamp(text, &value)) << text;
    return value;
  };
  EXPECT_EQ(ms("100"), 100000u);
  EXPECT_EQ(ms("100."), 100000u);
  EXPECT_EQ(ms("100.5"), 100500u);
  EXPECT_EQ(ms("100.x"), 100000u);
  EXPECT_EQ(ms("100x5"), 100000u);
  EXPECT_EQ(ms("100.0009"), 100000u);                     // truncated
  EXPECT_EQ(ms("100.99999999999999999999999"), 101000u);  // rounded to one as a fraction
  EXPECT_EQ(ms("100.5e-1"), 100050u);
  EXPECT_EQ(ms("100.5e1"), 105000u);
  EXPECT_EQ(ms("100.5e-999"), 100000u);
  EXPECT_EQ(ms("100.5e999"), UINT64_MAX);
  EXPECT_EQ(ms("18446744073709551.615"), UINT64_MAX);
  EXPECT_EQ(ms("18446744073709551.616"), UINT64_MAX);
  EXPECT_EQ(ms("99999999999999999999"), UINT64_MAX);
  for (int i = 0; i < 1000; i++) {
    char text[32];
    snprintf(text, sizeof text, "1700000000.%03d", i);
    EXPECT_EQ(ms(text), 1700000000000u + static_cast<unsigned>(i));
  }
  uint64_t unused;
  for (const char *bad : {"", ".5", " 1", "-1", "+1", "x"})
    EXPECT_FALSE(dorn_record_parse_m_timestamp(bad, &unused));
}

TEST(RawRecord, SplittingFindsTheIdentityWithoutAChange) {
  const std::string line = "1\t" + CHECK + "\tname|ST[a:b]\tn\t5";
  const mem_reader_t input = {line.data(), line.size()};
  dorn_record_fields_t fields;
  ASSERT_TRUE(dorn_record_split_m(&input, &fields));
  EXPECT_EQ(mem_reader_view(fields.identity), CHECK + "\tname|ST[a:b]");
  EXPECT_EQ(mem_reader_view(fields.type), "n");
  EXPECT_EQ(mem_reader_view(fields.value), "5");
  ASSERT_TRUE(dorn_record_split_h(&input, &fields));
  EXPECT_EQ(mem_reader_view(fields.value), "n\t5");
}

TEST(RawRecord, LinesAreCutAtNewlinesOnly) {
  std::string bytes = "a\tb\n\nlast";
  rw_buffer_t buffer;
  rw_buffer_fill(&buffer, bytes.data(), bytes.size());
  mem_reader_t chunk = rw_buffer_get_reader(&buffer), line;
  ASSERT_TRUE(dorn_record_get_next_line(&buffer, &chunk, &line));
  EXPECT_EQ(mem_reader_view(line), "a\tb");
  EXPECT_EQ(bytes[3], 0);
  ASSERT_TRUE(dorn_record_get_next_line(&buffer, &chunk, &line));
  EXPECT_EQ(mem_reader_view(line), "");
  EXPECT_FALSE(dorn_record_get_next_line(&buffer, &chunk, &line));
  EXPECT_EQ(mem_reader_view(chunk), "last");
}

TEST(RawRecord, LettersAndRecordTypes) {
  EXPECT_EQ(dorn_metric_type_lookup('0'), VELMAR_METRIC_GUESS);
  EXPECT_EQ(dorn_metric_type_lookup('h'), VELMAR_METRIC_HISTOGRAM);
  for (const char c : {'\0', 'x', static_cast<char>(16), static_cast<char>(32), '\xff'})
    EXPECT_EQ(dorn_metric_type_lookup(c), VELMAR_METRIC_ABSENT);
  EXPECT_EQ(dorn_record_type_lookup("H2"), DORN_RECORD_TYPE_H2);
  EXPECT_EQ(dorn_record_type_lookup("B1"), DORN_RECORD_TYPE_B1);
  EXPECT_EQ(dorn_record_type_lookup(""), DORN_RECORD_TYPE_UNKNOWN);
  EXPECT_EQ(dorn_record_type_lookup("MM"), DORN_RECORD_TYPE_UNKNOWN);
}

TEST(RawRecordData, CopiesOwnTheirMemory) {
  std::string text = "text";
  dorn_record_m_value_t value = {VELMAR_METRIC_STRING, false, {.v_string = text.data()}}, copy;
  dorn_record_data_dup(&copy, &value);
  text = "gone";
  EXPECT_STREQ(copy.storage.v_string, "text");
  dorn_record_data_release(&copy);

  const char with_zero[] = "a\0b";
  value = {VELMAR_METRIC_HISTOGRAM, false, {.v_bytes = dorn_record_bytes_alloc(with_zero, 3)}};
  dorn_record_data_dup(&copy, &value);
  dorn_record_data_release(&value);
  ASSERT_EQ(copy.storage.v_bytes->length, 3u);
  EXPECT_EQ(memcmp(copy.storage.v_bytes->bytes, with_zero, 3), 0);
  dorn_record_data_release(&copy);

  value = {
      VELMAR_METRIC_STRING, true, {.v_string = text.data()}};  // null: whatever stands there is not looked at
  dorn_record_data_dup(&copy, &value);
  EXPECT_TRUE(copy.is_null);
  dorn_record_data_release(&copy);
}
