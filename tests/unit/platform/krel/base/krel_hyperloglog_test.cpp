#include "platform/krel/base/krel_hyperloglog.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>

namespace {

TEST(krel_hyperloglog, counts_distinct_keys_within_its_error) {
  for (int precision : {4, 12}) {
    const double error = 1.04 / std::sqrt(std::pow(2, precision));
    krel_hyperloglog_t *hll = krel_hyperloglog_alloc(precision);
    EXPECT_EQ(krel_hyperloglog_size(hll), 0u);
    uint64_t added = 0;
    for (uint64_t upto : {1, 10, 100, 1000, 10000, 100000}) {
      for (; added < upto; ++added) {
        const std::string key =
            "web.requests.latency" + std::to_string(added) + "|ST[host:h" + std::to_string(added % 7) + "]";
        for (int twice = 0; twice < 2; ++twice) krel_hyperloglog_add(hll, key.data(), key.size());
      }
      EXPECT_NEAR(static_cast<double>(krel_hyperloglog_size(hll)), static_cast<double>(upto),
                  4 * error * static_cast<double>(upto) + 0.5)
          << "precision " << precision;
    }
    krel_hyperloglog_destroy(hll);
  }
}

}  // namespace
