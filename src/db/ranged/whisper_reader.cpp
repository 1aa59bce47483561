#include "db/ranged/whisper_reader.h"

#include <algorithm>
#include <cstring>

#include "db/ranged/whisper_file.h"
#include "platform/krel/base/krel_conf.h"
#include "platform/krel/base/krel_log.h"
#include "platform/krel/base/krel_util.h"

namespace velmar::ranged::from::whisper {

namespace {

std::array<uint8_t, 16> check_of(const metric_locator_sp &locator) {
  std::array<uint8_t, 16> uuid;
  memcpy(uuid.data(), velmar_metric_locator_get_check_uuid(locator.get()), uuid.size());
  return uuid;
}

directory_t read_section(const krel_conf_section_t &section, int index) {
  directory_t directory;
  std::string account, check;
  uint64_t account_id = 0;
  krel_uuid_t uuid;
  if (!krel_conf_get_string(section, "@directory", &directory.path) || directory.path.empty())
    krel_fatal("whisper config %d has invalid or missing directory\n", index);
  if (!krel_conf_get_string(section, "@account_id", &account) || !krel_parse_uint64(account, &account_id) ||
      account_id > INT32_MAX)
    krel_fatal("whisper config %d has invalid or missing account_id\n", index);
  if (!krel_conf_get_string(section, "@check_uuid", &check) || krel_uuid_parse(check.c_str(), uuid) != 0)
    krel_fatal("whisper config %d has unparseable check_uuid\n", index);
  directory.account_id = static_cast<int32_t>(account_id);
  memcpy(directory.check_uuid.data(), uuid, directory.check_uuid.size());
  return directory;
}

}  // namespace

size_t ctx_c::uuid_hash_t::operator()(const std::array<uint8_t, 16> &uuid) const {
  size_t words[2];
  memcpy(words, uuid.data(), sizeof words);
  return words[0] ^ words[1] * 0x9e3779b97f4a7c15;
}

std::unique_ptr<ctx_c> ctx_c::from_conf() {
  const auto sections = krel_conf_get_sections_read(KREL_CONF_ROOT, "//graphite/whisper");
  auto ctx = std::make_unique<ctx_c>();
  for (size_t i = 0; i < sections.size(); i++) ctx->add(read_section(sections[i], static_cast<int>(i)));
  krel_log(krel_notice, "Configured %d whisper directories\n", static_cast<int>(ctx->m_directories.size()));
  return ctx->m_directories.empty() ? nullptr : std::move(ctx);
}

void ctx_c::add(directory_t directory) {
  const auto uuid = directory.check_uuid;
  const std::string path = directory.path;
  if (!m_directories.try_emplace(uuid, std::move(directory)).second)
    krel_log(krel_error, "Failed to add whisper directory %s (duplicate uuid)\n", path.c_str());
}

const directory_t *ctx_c::find(const metric_locator_sp &locator) const {
  const auto found = m_directories.find(check_of(locator));
  return found == m_directories.end() ? nullptr : &found->second;
}

size_t ctx_c::whisper_get_range(uint64_t start, const metric_locator_sp &locator, size_t count, unsigned period,
                                nnt_multitype *v, std::string *error) const {
  const directory_t *directory = find(locator);
  if (!directory) return 0;
  // without a dot left, no part of the path leads out of the directory
  std::string name(metric_locator_c(locator, false).get_name_with_tags());
  std::replace(name.begin(), name.end(), '.', '/');
  const auto file = whisper_file_c::open(directory->path + "/" + name + ".wsp", error, m_files);
  return file ? file->fill(v, start, period, count) : 0;
}

}  // namespace velmar::ranged::from::whisper
