#include "util/wyhash.h"

#include <gtest/gtest.h>

#include <string>

// What files of older versions were written with: these numbers never change.
TEST(Wyhash, GivesTheHashesThatFilesOnDiskHold) {
  struct row_t {
    size_t length;
    uint64_t increasing, zero, ones, mixed;  // byte number i is i, 0, 255, 167 * i + 13
  };
  static const row_t rows[] = {
      {0, 0x42bc986dc5eec4d3, 0x42bc986dc5eec4d3, 0x42bc986dc5eec4d3, 0x42bc986dc5eec4d3},
      {1, 0x22a2d5db3856770f, 0x22a2d5db3856770f, 0x21cf9fbcdc500496, 0x1263dfc3c0b25894},
      {2, 0x0d5ca7737b2b2d14, 0x0257174972dfea3b, 0x0c6cb3272865b70d, 0x31433d1bd6906891},
      {3, 0x99270162f23e47b5, 0xe25d5026b5449d56, 0x168da8ca646fd984, 0xa185a7d6c4b18b49},
      {4, 0x40bf1ace4f6a5248, 0xc2958626d3f0b923, 0xb36312f09cb19eed, 0xbe85dce78174b9c3},
      {5, 0x78c50dffd4f00c32, 0xa29bc39416782c5f, 0x9302aff63f5833be, 0xedd55614090bde00},
      {7, 0xf5a3e46eeef4f45d, 0x62b65eff836951a7, 0x4cc7b5f8f68b56d8, 0x39a64616ae3a3814},
      {8, 0x501e4cebb6d7706a, 0x426aa7db91aa5b32, 0x2dd1be9335d66126, 0x3f4227f25b8d05a7},
      {9, 0x700a2f2e50792f56, 0x2210e149d413ce6e, 0x0df74b96487113f5, 0xa8668bf8a041a04e},
      {12, 0x669a058470266472, 0xc243ad94efcc0f82, 0xac5f8ae587743462, 0x92ed6647114e9151},
      {15, 0x9ade83fd5d7acebb, 0x62646a6e5f22a806, 0x4c322ded914fcc57, 0x1d1eecc26930538c},
      {16, 0x276be32b79eb1583, 0x43d8b349ad67b191, 0x2ecc1685d0ad149f, 0x31d8dcff410d5253},
      {17, 0xc2ca9c29c57033e4, 0x85f448648e43528c, 0x371b4e0257757c00, 0xdec6ff018d4f1651},
      {31, 0x751ebf441fe7cae5, 0x1558daf2522cbd7d, 0x48235805325732ed, 0xa2cede2666c1a8ff},
      {32, 0x8d6cd0bec59db5eb, 0x43df9d67ebf0e61e, 0xcb71176d0d47bb1b, 0x1c20836fac41ff0d},
      {33, 0x0721d40dc35567cf, 0xf3b8ab5598a2d851, 0x8ef55720ca1be35d, 0x93445f039308eace},
      {47, 0x762f947e99134711, 0x753a2c3d81149315, 0xf3b1e3f08831e1ab, 0x69084d997abc31bc},
      {48, 0xa0945cf55d2edc0e, 0xbdf4d39988bf633e, 0xa3cb96682ffae52f, 0x1338ef6b552ffcb0},
      {49, 0x02829dac9c460ace, 0x79f37e972135f90e, 0xd143a9d2cbee9fe8, 0xe4220938cbd6c2d7},
      {63, 0x65408f6207b2c61a, 0xc9b9fbff2dc5bb04, 0xe4c4fd44f06c8fe1, 0x10a232ebf69493c3},
      {64, 0x837e3400ef4dccc2, 0xbcf162ad33cfc93b, 0x0f7699ebc311778a, 0x9efd83a0305c5576},
      {95, 0x6764ceef4f8fb1f4, 0x7555f9a4eedaebdd, 0x86382489bf1859a4, 0x2add263c0ddc67af},
      {96, 0xdf127c89875ce87f, 0x0f36c87469cdbab7, 0x88fe447b3d0b4fae, 0x614aea91b5747cb0},
      {97, 0x70e7f2c7c87bf07b, 0x65b38d7983086fb4, 0xf6bd27d00e4322e7, 0x8de2d1464a99004a},
      {100, 0x79ffd87408b29cdc, 0x3197ecf56d191e33, 0x8506e1b73ac126c4, 0x404ad0dc8fa000bf},
      {200, 0x80bbdfe868d24c00, 0x7ebbda235329b392, 0x312e90857468f282, 0x144dda4a2ca20693},
      {1000, 0x7c12633684ac5b4c, 0x7102c841f1b4ec69, 0x7cfa1236af2ca139, 0xe4151cb0a0cb67fc},
  };
  for (const row_t &row : rows) {
    std::string bytes(row.length, '\0');
    EXPECT_EQ(util::wyhash(bytes), row.zero) << row.length;
    bytes.assign(row.length, '\xff');
    EXPECT_EQ(util::wyhash(bytes), row.ones) << row.length;
    for (size_t i = 0; i < row.length; i++) bytes[i] = static_cast<char>(i);
    EXPECT_EQ(util::wyhash(bytes), row.increasing) << row.length;
    for (size_t i = 0; i < row.length; i++) bytes[i] = static_cast<char>(167 * i + 13);
    EXPECT_EQ(util::wyhash(bytes), row.mixed) << row.length;
  }
  EXPECT_EQ(util::wyhash(""), 0x42bc986dc5eec4d3);
  EXPECT_EQ(util::wyhash("a"), 0x6cf84e5a2465e867);
  EXPECT_EQ(util::wyhash("abc"), 0xb4808df22d44ffcf);
  EXPECT_EQ(util::wyhash("hello world"), 0x19f24a02fe04c3ca);
  EXPECT_EQ(util::wyhash("The quick brown fox jumps over the lazy dog"), 0xd986947fb5be3867);
}
