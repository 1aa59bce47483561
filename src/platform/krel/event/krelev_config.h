#pragma once
// Keys of the event system and their values as text.

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/krel/event/krelev_jobq.h"

struct krelev_setup_t {
  uint32_t default_threads;
  std::vector<std::pair<std::string, uint32_t>> further_pools;             // name, threads
  std::vector<std::pair<std::string, krelev_jobq_settings_t>> job_queues;  // always a default queue
};

// "concurrency,min,max[,gc|none][,backlog][,lifo|fifo]", no blanks; 1 <= concurrency, and
// min <= concurrency <= max. Otherwise false and what is wrong.
bool krelev_parse_jobq(std::string_view text, krelev_jobq_settings_t *out, std::string *error);
bool krelev_parse_threads(std::string_view text, uint32_t *out, std::string *error);
// What the keys say, with the defaults for what they do not say. Fatal where they say nonsense.
krelev_setup_t krelev_setup_from(const std::map<std::string, std::string> &keys);
// Puts the elements of //krelev/config over the keys; of several of one name the first counts.
void krelev_read_configuration(std::map<std::string, std::string> *keys);
