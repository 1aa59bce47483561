#include "platform/krel/base/krel_compress.h"

#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <string>

namespace {

const std::string TEXT = "the quick brown fox jumps over the lazy dog, the quick brown fox";

// Made by gzip 1.12 and lz4 1.9.4 from TEXT.
const std::string GZIP_TEXT(
    "\x1f\x8b\x08\x00\x00\x00\x00\x00\x02\x03\x2b\xc9\x48\x55\x28\x2c\xcd\x4c\xce\x56\x48\x2a\xca\x2f\xcf\x53"
    "\x48"
    "\xcb\xaf\x50\xc8\x2a\xcd\x2d\x28\x56\xc8\x2f\x4b\x2d\x52\x28\x01\x4a\xe7\x24\x56\x55\x2a\xa4\xe4\xa7\xeb"
    "\x80"
    "\x79\x68\x8a\x01\x1d\xc4\xb4\xb4\x40\x00\x00\x00",
    66);
const std::string LZ4_TEXT(
    "\x04\x22\x4d\x18\x64\x40\xa7\x38\x00\x00\x00\xf0\x10\x74\x68\x65\x20\x71\x75\x69\x63\x6b\x20\x62\x72\x6f"
    "\x77"
    "\x6e\x20\x66\x6f\x78\x20\x6a\x75\x6d\x70\x73\x20\x6f\x76\x65\x72\x20\x1f\x00\x91\x6c\x61\x7a\x79\x20\x64"
    "\x6f"
    "\x67\x2c\x0e\x00\x06\x2d\x00\x50\x6e\x20\x66\x6f\x78\x00\x00\x00\x00\xb6\xe7\x1f\x54",
    75);

// Sizes of the pieces that go in and of the room that there is: up to a limit, at random.
struct steps_t {
  std::mt19937_64 random;
  size_t limit;
  size_t next() { return random() % limit + 1; }
};

struct decoded_t {
  std::string text;
  bool corrupt = false;
  bool complete = false;
};

decoded_t decode(krel_stream_decompress_ctx_t *ctx, krel_compress_type_e type, std::string_view in,
                 steps_t steps) {
  decoded_t result;
  EXPECT_EQ(krel_stream_decompress_init(ctx, type), 0);
  bool full = false;
  while (!in.empty() || full) {
    size_t taken = std::min(in.size(), steps.next());
    const size_t room = steps.next();
    const std::string piece(in.substr(0, taken));  // of its own, so that a read past it is found
    const std::unique_ptr<char[]> out(new char[room]);
    size_t written = room;
    const size_t offered = taken;
    const int failed = krel_stream_decompress(ctx, piece.data(), &taken, out.get(), &written);
    EXPECT_LE(taken, offered);
    EXPECT_LE(written, room);
    result.text.append(out.get(), written);
    in.remove_prefix(taken);
    full = written == room;
    if (failed != 0) {
      result.corrupt = true;
      break;
    }
    if (taken == 0 && written == 0 && offered != 0) {
      ADD_FAILURE() << "stuck at " << in.size();
      break;
    }
  }
  result.complete = krel_stream_decompress_finish(ctx) == 0;
  return result;
}

// Flushes now and then, and checks at each flush that what went in can be decoded.
std::string encode(krel_stream_compress_ctx_t *ctx, krel_compress_type_e type, std::string_view in,
                   steps_t steps, bool flushing) {
  std::string result;
  const std::string_view whole = in;
  EXPECT_EQ(krel_stream_compress_init(ctx, type), 0);
  bool full = false;
  const auto run = [&](auto step) {
    const size_t room = steps.next();
    const std::unique_ptr<char[]> out(new char[room]);
    size_t written = room;
    const int code = step(out.get(), &written);
    EXPECT_LE(written, room);
    result.append(out.get(), written);
    full = written == room;
    return code;
  };
  while (!in.empty() || full) {
    size_t taken = std::min(in.size(), steps.next());
    const std::string piece(in.substr(0, taken));
    EXPECT_EQ(run([&](char *out, size_t *room) {
                return krel_stream_compress(ctx, piece.data(), &taken, out, room);
              }),
              0);
    in.remove_prefix(taken);
    if (!flushing || steps.next() != 1) continue;
    while (run([&](char *out, size_t *room) { return krel_stream_compress_flush(ctx, out, room); }) == 1) {
    }
    const krel_stream_decompress_ptr decoder(krel_create_stream_decompress_ctx());
    EXPECT_EQ(decode(decoder.get(), type, result, {std::mt19937_64(1), 5000}).text,
              whole.substr(0, whole.size() - in.size()));
  }
  while (run([&](char *out, size_t *room) { return krel_stream_compress_finish(ctx, out, room); }) == 1) {
  }
  return result;
}

std::string some_text(size_t size, unsigned seed) {
  std::mt19937_64 random(seed);
  std::string text;
  while (text.size() < size) {
    if (random() % 4 == 0) {
      text += static_cast<char>(random());  // what does not compress
    } else {
      text += TEXT.substr(random() % 30, random() % 30);
    }
  }
  return text;
}

class krel_compress : public testing::TestWithParam<krel_compress_type_e> {
 protected:
  krel_stream_decompress_ptr m_decoder{krel_create_stream_decompress_ctx()};
  krel_stream_compress_ptr m_encoder{krel_create_stream_compress_ctx()};
  std::string golden() const { return GetParam() == KREL_COMPRESS_GZIP ? GZIP_TEXT : LZ4_TEXT; }
};

TEST_P(krel_compress, round_trips_in_pieces_of_any_size) {
  for (const auto &[size, limit] :
       {std::pair<size_t, size_t>{0, 1}, {1, 1}, {700, 1}, {5000, 7}, {300000, 3000}, {300000, 200000}}) {
    const std::string text = some_text(size, 5);
    for (bool flushing : {false, size <= 5000}) {
      const std::string bytes =
          encode(m_encoder.get(), GetParam(), text, {std::mt19937_64(size), limit}, flushing);
      const decoded_t back = decode(m_decoder.get(), GetParam(), bytes, {std::mt19937_64(size + 1), limit});
      ASSERT_TRUE(back.text == text && back.complete && !back.corrupt) << size << " in steps up to " << limit;
    }
  }
}

TEST_P(krel_compress, reads_what_other_programs_wrote_also_one_after_another) {
  const std::string twice = golden() + golden();
  for (size_t limit : {1, 3, 1000}) {
    const decoded_t back = decode(m_decoder.get(), GetParam(), twice, {std::mt19937_64(limit), limit});
    EXPECT_TRUE(back.complete && !back.corrupt);
    EXPECT_EQ(back.text, TEXT + TEXT);
  }
}

TEST_P(krel_compress, tells_a_cut_stream_from_a_whole_one) {
  const std::string twice = golden() + golden();
  for (size_t cut = 0; cut <= twice.size(); ++cut) {
    const decoded_t back =
        decode(m_decoder.get(), GetParam(), twice.substr(0, cut), {std::mt19937_64(cut), 40});
    EXPECT_FALSE(back.corrupt) << cut;
    EXPECT_EQ(back.complete, cut % golden().size() == 0) << cut;
  }
}

TEST_P(krel_compress, reports_damage_and_stays_failed) {
  const std::string text = some_text(2000, 9);
  const std::string bytes = encode(m_encoder.get(), GetParam(), text, {std::mt19937_64(1), 5000}, false);
  size_t found = 0;
  for (size_t at = 0; at < bytes.size(); ++at) {
    // The header of gzip has fields that say nothing of the content.
    if (GetParam() == KREL_COMPRESS_GZIP && at >= 3 && at < 10) continue;
    std::string damaged = bytes;
    damaged[at] = static_cast<char>(damaged[at] ^ 0x10);
    const decoded_t back = decode(m_decoder.get(), GetParam(), damaged, {std::mt19937_64(at), 3000});
    // A match may come to stand for an equal one elsewhere; nothing else may pass.
    ASSERT_TRUE(!back.complete || back.text == text) << at;
    found += !back.complete;
  }
  EXPECT_TRUE(
      decode(m_decoder.get(), GetParam(), golden() + "garbage behind it", {std::mt19937_64(2), 9}).corrupt);
  char out[8];
  size_t taken = 1, written = sizeof out;
  EXPECT_EQ(krel_stream_decompress(m_decoder.get(), "x", &taken, out, &written), -1);
  EXPECT_EQ(taken + written, 0u);
}

TEST_P(krel_compress, a_small_input_never_writes_more_than_its_room) {
  const std::string zeros(20 << 20, '\0');
  const std::string bomb = encode(m_encoder.get(), GetParam(), zeros, {std::mt19937_64(1), 1 << 20}, false);
  ASSERT_LT(bomb.size(), zeros.size() / 100);
  ASSERT_EQ(krel_stream_decompress_init(m_decoder.get(), GetParam()), 0);
  std::string out(1000, 'x');
  size_t taken = bomb.size(), written = 900;
  EXPECT_EQ(krel_stream_decompress(m_decoder.get(), bomb.data(), &taken, out.data(), &written), 0);
  EXPECT_EQ(written, 900u);
  EXPECT_EQ(out.substr(900), std::string(100, 'x'));
}

INSTANTIATE_TEST_SUITE_P(codings, krel_compress, testing::Values(KREL_COMPRESS_GZIP, KREL_COMPRESS_LZ4F),
                         [](const auto &param) { return std::string(krel_compress_type_name(param.param)); });

TEST(krel_compress_more, one_shot_frames) {
  const krel_stream_decompress_ptr decoder(krel_create_stream_decompress_ctx());
  for (size_t size : {size_t{0}, size_t{1}, size_t{200000}}) {
    const std::string text = some_text(size, 3);
    std::string out = "before";
    ASSERT_TRUE(krel_compress_lz4f(text.data(), text.size(), &out));
    ASSERT_EQ(out.substr(0, 6), "before");
    const decoded_t back =
        decode(decoder.get(), KREL_COMPRESS_LZ4F, out.substr(6), {std::mt19937_64(1), 70000});
    EXPECT_TRUE(back.text == text && back.complete);
  }
}

TEST(krel_compress_more, names_of_codings) {
  const std::pair<std::string_view, int> cases[] = {{"gzip", KREL_COMPRESS_GZIP},
                                                    {"X-GZip", KREL_COMPRESS_GZIP},
                                                    {"LZ4F", KREL_COMPRESS_LZ4F},
                                                    {"identity", KREL_COMPRESS_NONE},
                                                    {{}, KREL_COMPRESS_NONE},
                                                    {"lz4", -1},
                                                    {"gzip ", -1},
                                                    {"br", -1}};
  for (const auto &[name, want] : cases) {
    krel_compress_type_e type = KREL_COMPRESS_NONE;
    const bool known = krel_compress_type_parse(name, &type);
    EXPECT_EQ(known ? type : -1, want) << name;
  }
}

}  // namespace
