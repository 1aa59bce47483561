// Listeners by configuration, TLS, files and /capa, over real sockets.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <sys/stat.h>

#include <fstream>
#include <memory>

#include "http_test_rules.h"
#include "http_test_server.h"
#include "platform/krel/base/krel_json.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

namespace {

class http_services : public testing::Test {
 protected:
  void SetUp() override { http_test_register_rules(); }
  void TearDown() override { EXPECT_EQ(test_upload_t::living, 0); }
};

void write_file(const std::string &path, const std::string &text) {
  std::ofstream(path, std::ios::binary) << text;
}

// A key and a certificate for it that signs itself.
void make_certificate(const std::string &key_file, const std::string &certificate_file) {
  const std::unique_ptr<EVP_PKEY, void (*)(EVP_PKEY *)> key(EVP_EC_gen("P-256"), EVP_PKEY_free);
  const std::unique_ptr<X509, void (*)(X509 *)> x(X509_new(), X509_free);
  X509_gmtime_adj(X509_getm_notBefore(x.get()), 0);
  X509_gmtime_adj(X509_getm_notAfter(x.get()), 3600);
  X509_set_pubkey(x.get(), key.get());
  X509_sign(x.get(), key.get(), EVP_sha256());
  const std::unique_ptr<FILE, int (*)(FILE *)> k(fopen(key_file.c_str(), "w"), fclose);
  PEM_write_PrivateKey(k.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr);
  const std::unique_ptr<FILE, int (*)(FILE *)> c(fopen(certificate_file.c_str(), "w"), fclose);
  PEM_write_X509(c.get(), x.get());
}

class tls_client_c {
 public:
  explicit tls_client_c(int port)
      : m_tcp(port), m_context(SSL_CTX_new(TLS_client_method())), m_ssl(SSL_new(m_context)) {
    SSL_set_fd(m_ssl, m_tcp.fd());
    EXPECT_EQ(SSL_connect(m_ssl), 1);
  }
  ~tls_client_c() {
    SSL_free(m_ssl);
    SSL_CTX_free(m_context);
  }
  std::string exchange(const std::string &request) {
    std::thread writer(
        [&] { EXPECT_EQ(SSL_write(m_ssl, request.data(), static_cast<int>(request.size())), request.size()); });
    writer.join();
    std::string all;
    char buffer[20000];
    for (int n; (n = SSL_read(m_ssl, buffer, sizeof(buffer))) > 0;) all.append(buffer, static_cast<size_t>(n));
    return all;
  }

 private:
  http_test_client_c m_tcp;
  SSL_CTX *m_context;
  SSL *m_ssl;
};

int serve_files(krel_http_rest_closure_t *restc, int npats, char **pats) {
  return krel_rest_simple_file_handler(restc, npats, pats);
}

}  // namespace

TEST_F(http_services, tls_carries_uploads_streams_and_small_answers) {
  const temp_dir_c dir;
  make_certificate(dir / "key", dir / "certificate");
  make_certificate(dir / "other", dir / "unused");
  EXPECT_EQ(http_tls_context_new((dir / "none").c_str(), (dir / "key").c_str(), nullptr), nullptr);
  EXPECT_EQ(http_tls_context_new((dir / "certificate").c_str(), (dir / "other").c_str(), nullptr), nullptr);
  http_tls_context_t *context = http_tls_context_new((dir / "certificate").c_str(), (dir / "key").c_str(), "");
  ASSERT_NE(context, nullptr);
  http_test_server_c server({}, context);
  const std::string body(300000, 'u');
  tls_client_c client(server.port);
  const std::string all = client.exchange(
      "GET /hello HTTP/1.1\r\nHost: h\r\n\r\nPUT /echo HTTP/1.1\r\nHost: h\r\nContent-Length: 300000\r\n\r\n" +
      body + "GET /stream/1000000 HTTP/1.1\r\nHost: h\r\nConnection: close\r\n\r\n");
  EXPECT_THAT(all, HasSubstr("\r\n\r\nhelloHTTP/1.1 200 OK\r\n"));
  EXPECT_THAT(all, HasSubstr("PUT 300000 " + body + "HTTP"));
  EXPECT_THAT(all, EndsWith("sss\r\n0\r\n\r\n"));
  EXPECT_EQ(std::count(all.begin() + 300100, all.end(), 's') / 1000, 1000);

  http_test_client_c plain(server.port);
  plain.send("GET /hello HTTP/1.1\r\nHost: h\r\n\r\n");
  EXPECT_THAT(plain.rest(), Not(HasSubstr("hello")));
}

TEST_F(http_services, files_come_from_below_the_root_only) {
  const temp_dir_c dir;
  const std::string root = dir / "root";
  mkdir(root.c_str(), 0755);
  mkdir((root + "/sub").c_str(), 0755);
  write_file(dir / "secret.txt", "secret");
  write_file(root + "/.hidden", "secret");
  write_file(root + "/index.html", "<p>index</p>");
  write_file(root + "/sub/a b.js", "let a;");
  const std::string big(3000000, 'f');
  write_file(root + "/big.bin", big);
  ASSERT_EQ(symlink((dir / "secret.txt").c_str(), (root + "/link.txt").c_str()), 0);
  ASSERT_EQ(symlink(dir.path().c_str(), (root + "/up").c_str()), 0);
  ASSERT_EQ(mkfifo((root + "/pipe").c_str(), 0644), 0);
  ASSERT_TRUE(krel_conf_load_text("<velmar><rest document_root=\"" + root + "\"/></velmar>", "test.conf"));
  krel_http_rest_init();
  krel_rest_mountpoint_set_catch_all(krel_http_rest_new_rule("GET", "/", "^(.*)$", serve_files), true);
  http_test_server_c server;
  http_test_client_c client(server.port);
  const std::string index = client.get("/");
  EXPECT_THAT(index, StartsWith("HTTP/1.1 200 OK\r\n"));
  EXPECT_THAT(index, HasSubstr("\r\nContent-Type: text/html; charset=utf-8\r\n"));
  EXPECT_THAT(index, EndsWith("<p>index</p>"));
  EXPECT_THAT(client.get("/sub/a%20b.js"), EndsWith("let a;"));
  EXPECT_THAT(client.get("//sub//a%20b.js"), EndsWith("let a;"));
  EXPECT_THAT(client.get("/big.bin"), EndsWith("\r\n\r\n" + big));
  EXPECT_THAT(client.get("/big.bin", "Accept-Encoding: gzip\r\n"), EndsWith(big));  // no text
  for (const char *path :
       {"/../secret.txt", "/sub/../../secret.txt", "/%2e%2e/secret.txt", "/sub/%2e%2e%2f../x", "/link.txt",
        "/up/secret.txt", "/.hidden", "/sub", "/sub/", "/pipe", "/none", "/..%2fsecret.txt"})
    EXPECT_THAT(client.get(path), StartsWith("HTTP/1.1 404 ")) << path;

  const auto field = [&](const std::string &name) {
    const size_t at = index.find("\r\n" + name + ": ") + name.size() + 4;
    return index.substr(at, index.find("\r\n", at) - at);
  };
  EXPECT_THAT(client.get("/", "If-None-Match: W/\"x\", " + field("ETag") + "\r\n"),
              StartsWith("HTTP/1.1 304 "));
  EXPECT_THAT(client.get("/", "If-None-Match: \"x\"\r\n"), EndsWith("index</p>"));
  EXPECT_THAT(client.get("/", "If-Modified-Since: " + field("Last-Modified") + "\r\n"),
              StartsWith("HTTP/1.1 304 "));
  EXPECT_THAT(client.get("/", "If-Modified-Since: Thu, 01 Jan 1970 00:00:00 GMT\r\n"), EndsWith("index</p>"));
  EXPECT_THAT(client.get("/", "If-Modified-Since: long ago\r\n"), EndsWith("index</p>"));
}

TEST_F(http_services, configured_listeners_are_opened_and_told) {
  static std::string seen;
  seen.clear();
  krel_listener_register_type("shout", [](int fd, const std::string &peer, void *config) {
    std::string word;
    krel_conf_get_string(*static_cast<krel_conf_section_t *>(config), "config/word", &word);
    EXPECT_THAT(peer, StartsWith("127.0.0.1:"));
    EXPECT_EQ(::send(fd, word.data(), word.size(), MSG_NOSIGNAL), static_cast<ssize_t>(word.size()));
    ::close(fd);
  });
  ASSERT_TRUE(
      krel_conf_load_text("<velmar><listeners>"
                          "<listener type=\"http_rest_api\" address=\"127.0.0.1\" port=\"0\"/>"
                          "<listener type=\"shout\" address=\"127.0.0.1\" port=\"0\">"
                          "<config><word>heard</word></config></listener></listeners></velmar>",
                          "test.conf"));
  http_test_server_c server;
  int first = 0;
  while (krel_listener_port(first) >= 0) first++;
  const log_capture_c log("notice");
  krel_listener_init("velmar");
  const int http = krel_listener_port(first), shout = krel_listener_port(first + 1);
  EXPECT_EQ(krel_listener_port(first + 2), -1);
  EXPECT_TRUE(log.contains("listening on 127.0.0.1:" + std::to_string(http) + " (http_rest_api)\n"));
  EXPECT_TRUE(log.contains("listening on 127.0.0.1:" + std::to_string(shout) + " (shout)\n"));
  EXPECT_THAT(http_test_client_c(http).get("/hello"), EndsWith("hello"));
  EXPECT_EQ(http_test_client_c(shout).rest(), "heard");
}

TEST_F(http_services, capa_tells_features_version_and_queues) {
  krel_capabilities_listener_init();
  krel_capabilities_add_feature("raw:store", "1.0");
  krel_capabilities_add_feature("find \"quoted\"", nullptr);
  krel_http_set_version("7.1");
  http_test_server_c server;
  const std::string answer = http_test_client_c(server.port).get("/capa");
  const krel_json_ptr all(krel_json_tokener_parse(answer.substr(answer.find("\r\n\r\n") + 4)));
  ASSERT_NE(all, nullptr) << answer;
  const auto at = [](krel_json_object *in, const char *key) { return krel_json_object_object_get(in, key); };
  EXPECT_STREQ(krel_json_object_get_string(at(all.get(), "version")), "7.1");
  EXPECT_STREQ(krel_json_object_get_string(at(at(all.get(), "features"), "raw:store")), "1.0");
  EXPECT_STREQ(krel_json_object_get_string(at(at(all.get(), "features"), "find \"quoted\"")), "");
  krel_json_object *work = at(at(all.get(), "jobqs"), "work");
  ASSERT_NE(work, nullptr);
  EXPECT_EQ(krel_json_object_get_int(at(work, "concurrency")), 4);
  for (const char *key :
       {"backlog", "in_flight", "total", "wait_mean_us", "wait_p99_us", "run_mean_us", "run_p99_us"})
    EXPECT_NE(at(work, key), nullptr) << key;
  EXPECT_EQ(krel_json_object_get_int(at(at(at(all.get(), "loops"), "default"), "concurrency")), 2);
  EXPECT_THAT(krel_capabilities_get_features(), HasSubstr("\"raw:store\":\"1.0\""));
}
