#include "platform/krel/http/http_encoding.h"

#include <gmock/gmock.h>

#include "http_test_rules.h"
#include "support/http_memory_client.h"

using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

namespace {

std::string encode(krel_compress_type_e type, const std::string &text) {
  http_encoder_c encoder;
  http_queue_c out;
  EXPECT_TRUE(encoder.start(type) && encoder.encode(text.data(), text.size(), out) && encoder.finish(out));
  std::string bytes;
  while (!out.empty()) {
    struct iovec piece;
    out.pieces(&piece, 1);
    bytes.append(static_cast<const char *>(piece.iov_base), piece.iov_len);
    out.consume(piece.iov_len);
  }
  return bytes;
}

std::string decode(krel_compress_type_e type, const std::string &bytes) {
  const krel_stream_decompress_ptr decoder(krel_create_stream_decompress_ctx());
  EXPECT_EQ(krel_stream_decompress_init(decoder.get(), type), 0);
  std::string text;
  char buffer[4096];
  for (size_t at = 0;;) {
    size_t taken = bytes.size() - at, made = sizeof(buffer);
    if (krel_stream_decompress(decoder.get(), bytes.data() + at, &taken, buffer, &made) != 0) return "corrupt";
    at += taken;
    text.append(buffer, made);
    if (at == bytes.size() && made < sizeof(buffer)) break;
  }
  return krel_stream_decompress_finish(decoder.get()) == 0 ? text : "cut off";
}

std::string varied(size_t size) {
  std::string text;
  for (size_t i = 0; text.size() < size; i++) text += std::to_string(i * i) + ",";
  text.resize(size);
  return text;
}

class http_encoding : public testing::Test {
 protected:
  void SetUp() override { http_test_register_rules(); }
};

constexpr krel_compress_type_e codings[] = {KREL_COMPRESS_GZIP, KREL_COMPRESS_LZ4F};

}  // namespace

TEST_F(http_encoding, the_clients_preference) {
  const int both = KREL_HTTP_COMPRESS;
  struct case_t {
    const char *accept;
    int allowed;
    krel_compress_type_e chosen;
  } cases[] = {
      {"gzip", both, KREL_COMPRESS_GZIP},
      {"gzip", KREL_HTTP_LZ4F, KREL_COMPRESS_NONE},
      {"GZIP , deflate", both, KREL_COMPRESS_GZIP},
      {"gzip, lz4f", both, KREL_COMPRESS_GZIP},
      {"lz4f, gzip", both, KREL_COMPRESS_LZ4F},
      {"gzip;q=0.5, lz4f;q=0.9", both, KREL_COMPRESS_LZ4F},
      {"gzip;q=0.5, lz4f;q=0.9", KREL_HTTP_GZIP, KREL_COMPRESS_GZIP},
      {"gzip;q=0", both, KREL_COMPRESS_NONE},
      {"gzip; q=0.000, *", both, KREL_COMPRESS_NONE},
      {"gzip;q=2, lz4f;q=0.1", both, KREL_COMPRESS_LZ4F},
      {"gzip;q=0.1234", both, KREL_COMPRESS_NONE},
      {"*", both, KREL_COMPRESS_GZIP},
      {"*;q=0", both, KREL_COMPRESS_NONE},
      {"identity, br", both, KREL_COMPRESS_NONE},
      {",,;q=1,", both, KREL_COMPRESS_NONE},
      {"", both, KREL_COMPRESS_NONE},
  };
  for (const case_t &c : cases) EXPECT_EQ(http_accepted_encoding(c.accept, c.allowed), c.chosen) << c.accept;
}

TEST_F(http_encoding, encoded_uploads_arrive_decoded_in_pieces_of_any_size) {
  const std::string text = varied(100000);
  for (const krel_compress_type_e type : codings) {
    const std::string body = encode(type, text);
    for (const size_t piece : {size_t{1}, size_t{999}, body.size()}) {
      http_memory_client_c client;
      client.feed("PUT /echo?piece=" + std::to_string(1 + piece % 1500) +
                  " HTTP/1.1\r\nHost: h\r\nContent-Encoding: " + krel_compress_type_name(type) +
                  "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n");
      for (size_t at = 0; at < body.size(); at += piece) client.feed(std::string_view(body).substr(at, piece));
      EXPECT_THAT(client.take(), EndsWith("PUT 100000 " + text)) << piece;
    }
    // Chunks and members are boundaries of different things.
    http_memory_client_c client;
    client.feed(
        std::string("MERGE /echo HTTP/1.1\r\nHost: h\r\nTransfer-Encoding: chunked\r\nContent-Encoding: ") +
        krel_compress_type_name(type) + "\r\n\r\n");
    const std::string twice = body + body;
    for (size_t at = 0; at < twice.size(); at += 16) {
      const std::string piece = twice.substr(at, 16);
      char size[16];
      snprintf(size, sizeof(size), "%zx\r\n", piece.size());
      client.feed(size + piece + "\r\n");
    }
    client.feed("0\r\n\r\n");
    EXPECT_THAT(client.take(), EndsWith("MERGE 200000 " + text + text));
  }
}

TEST_F(http_encoding, corrupt_and_cut_uploads_are_told_from_complete_ones) {
  for (const krel_compress_type_e type : codings) {
    const std::string good = encode(type, varied(5000));
    std::string flipped = good;
    flipped[good.size() / 2] = static_cast<char>(flipped[good.size() / 2] ^ 0x55);
    for (const std::string &body : {good.substr(0, good.size() - 1), good.substr(0, 5), flipped, good + "x",
                                    std::string("no such coding at all")}) {
      http_memory_client_c client;
      client.feed(std::string("PUT /echo HTTP/1.1\r\nHost: h\r\nContent-Encoding: ") +
                  krel_compress_type_name(type) + "\r\nContent-Length: " + std::to_string(body.size()) +
                  "\r\n\r\n" + body);
      EXPECT_THAT(client.take(), EndsWith("broken body")) << body.size();
    }
  }
}

TEST_F(http_encoding, a_bomb_is_decoded_only_as_it_is_pulled) {
  static size_t total;
  total = 0;
  krel_http_rest_register("PUT", "/count", "^$", [](krel_http_rest_closure_t *restc, int, char **) {
    char buffer[1000];
    int mask;
    const ssize_t n = krel_http_session_req_consume(restc->http_ctx, buffer, sizeof(buffer), &mask);
    if (n > 0) total += static_cast<size_t>(n);
    return total < 1000000 ? KRELEV_READ : 0;  // stops long before the end
  });
  const std::string bomb = encode(KREL_COMPRESS_GZIP, std::string(20000000, '\0'));
  ASSERT_LT(bomb.size(), 200000u);
  http_memory_client_c client;
  client.feed("PUT /count HTTP/1.1\r\nHost: h\r\nContent-Encoding: gzip\r\nContent-Length: " +
              std::to_string(bomb.size()) + "\r\n\r\n" + bomb);
  for (int i = 0; i < 10 && total < 1000000; i++) client.turn();
  EXPECT_EQ(total, 1000000u);
}

TEST_F(http_encoding, responses_are_encoded_when_the_handler_lets_and_the_client_asks) {
  for (const krel_compress_type_e type : codings) {
    for (const size_t size : {size_t{0}, size_t{10}, size_t{1000000}}) {
      const std::string text = varied(size), option = type == KREL_COMPRESS_GZIP ? "4" : "8";
      const std::string head = "PUT /echo?options=" + option +
                               " HTTP/1.1\r\nHost: h\r\nContent-Length: " + std::to_string(size) +
                               "\r\nAccept-Encoding: ";
      http_memory_client_c client;
      client.feed(head + krel_compress_type_name(type) + "\r\n\r\n" + text);
      const std::string answer = client.take(), header = answer.substr(0, answer.find("\r\n\r\n") + 2);
      EXPECT_THAT(header,
                  HasSubstr(std::string("\r\nContent-Encoding: ") + krel_compress_type_name(type) + "\r\n"));
      EXPECT_THAT(header, HasSubstr("\r\nVary: Accept-Encoding\r\n"));
      std::string body;
      if (size < 1000000) {
        EXPECT_THAT(header, HasSubstr("\r\nContent-Length: "));
        body = answer.substr(header.size() + 2);
      } else {
        EXPECT_THAT(header, HasSubstr("\r\nTransfer-Encoding: chunked\r\n"));
        for (size_t at = header.size() + 2; at < answer.size();) {
          const size_t n = strtoul(answer.c_str() + at, nullptr, 16);
          at = answer.find("\r\n", at) + 2;
          body += answer.substr(at, n);
          at += n + 2;
        }
      }
      EXPECT_EQ(decode(type, body), "PUT " + std::to_string(size) + " " + text);
      client.feed(head + "deflate\r\n\r\n" + text);
      EXPECT_THAT(client.take(), Not(HasSubstr("Content-Encoding")));
    }
  }
}

TEST_F(http_encoding, each_flush_of_an_encoded_stream_can_be_read_at_once) {
  static int part;
  part = 0;
  krel_http_rest_register("GET", "/parts", "^$", [](krel_http_rest_closure_t *restc, int, char **) {
    krel_http_session_t *session = restc->http_ctx;
    EXPECT_EQ(krel_http_response_option_set(session, KREL_HTTP_GZIP), part == 0);  // not behind the header
    krel_http_response_appendf(session, "part %d", ++part);
    krel_http_response_flush(session, part == 2);
    return part == 2 ? 0 : KRELEV_READ;
  });
  http_memory_client_c client;
  client.feed("GET /parts HTTP/1.1\r\nHost: h\r\nAccept-Encoding: gzip\r\n\r\n");
  const std::string first = client.take();
  const size_t at = first.find("\r\n\r\n") + 4;
  const size_t n = strtoul(first.c_str() + at, nullptr, 16);
  EXPECT_EQ(decode(KREL_COMPRESS_GZIP, first.substr(first.find("\r\n", at) + 2, n)), "cut off");
  const krel_stream_decompress_ptr decoder(krel_create_stream_decompress_ctx());
  krel_stream_decompress_init(decoder.get(), KREL_COMPRESS_GZIP);
  char text[100];
  size_t taken = n, made = sizeof(text);
  krel_stream_decompress(decoder.get(), first.data() + first.find("\r\n", at) + 2, &taken, text, &made);
  EXPECT_EQ(std::string(text, made), "part 1");
  client.turn();
  EXPECT_THAT(client.take(), EndsWith("\r\n0\r\n\r\n"));
}
