#include "dns/cache.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <string>

#include "bytes.h"

namespace vrox::dns {
namespace {

std::string file_record(const std::string& query, const std::string& reply) {
  return with_length(query) + with_length(reply);
}

class DnsCache : public ::testing::Test {
 protected:
  void SetUp() override { dns_cache_save("/dev/null", false); }
  void TearDown() override {
    dns_cache_save("/dev/null", false);
    (void)unlink(path_.c_str());
  }

  bool load(const std::string& content) {
    std::ofstream(path_, std::ios::binary) << content;
    return dns_cache_load(path_.c_str());
  }
  std::string file() const {
    std::ifstream in(path_, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
  }
  static void store(const std::string& key, const std::string& reply, std::uint8_t limit = 0) {
    dns_cache_store(bytes_of("id" + key), bytes_of(reply), limit);
  }
  // The stored reply without the identifier, "-" for none.
  static std::string lookup(const std::string& key) {
    const auto reply = dns_cache_lookup(bytes_of("ID" + key));
    if (!reply) return "-";
    const std::string text(reply->begin(), reply->end());
    EXPECT_EQ(text.substr(0, 2), "ID") << "carries the identifier of the query";
    return text.substr(2);
  }

  const std::string path_ = ::testing::TempDir() + "dns_cache." + std::to_string(getpid());
};

TEST_F(DnsCache, AFullListKeepsItsNewerHalf) {
  const struct {
    std::uint8_t limit;
    unsigned stores;
    std::size_t kept;
  } cases[] = {{4, 4, 4}, {4, 5, 3}, {4, 6, 4}, {1, 3, 1}, {0, 900, 900}};
  for (const auto& c : cases) {
    dns_cache_save("/dev/null", false);
    for (unsigned i = 0; i < c.stores; ++i) store(std::to_string(i), "..", c.limit);
    EXPECT_EQ(dns_cache_count(), c.kept) << c.stores << " under " << +c.limit;
    for (unsigned i = 0; i < c.stores; ++i) {
      EXPECT_EQ(lookup(std::to_string(i)), i < c.stores - c.kept ? "-" : "")
          << i << " of " << c.stores << " under " << +c.limit;
    }
  }
}

// As when it is asked again before the first reply is there.
TEST_F(DnsCache, RepliesToOneQueryDoNotPileUp) {
  const struct {
    std::uint8_t limit;
    std::size_t kept;
  } cases[] = {{0, 2}, {200, 100}};  // under a limit each counts
  for (const auto& c : cases) {
    dns_cache_save("/dev/null", false);
    for (unsigned i = 1; i <= 100; ++i) store("a", ".." + std::to_string(i), c.limit);
    EXPECT_EQ(dns_cache_count(), c.kept);
    EXPECT_EQ(lookup("a"), "100") << "the newest answers";
    dns_cache_save(path_.c_str(), false);
    ASSERT_TRUE(dns_cache_load(path_.c_str()));
    EXPECT_EQ(lookup("a"), "1") << "the last in the file";
  }
}

TEST_F(DnsCache, AFileIsReadUpToTheFirstBadRecord) {
  const std::string a = file_record("a", "..1");
  const std::string b = file_record("b", "..2");
  const std::string query514(514, 'q');
  const struct {
    const char* why;
    std::string content;
    std::size_t records;
  } cases[] = {
      {"one byte behind", a + b + "x", 2},
      {"one byte short", a + b.substr(0, b.size() - 1), 1},
      {"a query of 515 bytes", a + file_record(query514 + "q", "..") + b, 1},
      {"a query of 514 bytes", a + file_record(query514, "..") + b, 3},
      {"1025 bytes in all", a + file_record(query514, std::string(511, 'r')) + b, 1},
      {"1024 bytes in all", a + file_record(query514, std::string(510, 'r')) + b, 3},
      {"the same query twice", a + b + file_record("a", "..3"), 2},
  };
  for (const auto& c : cases) {
    dns_cache_save("/dev/null", false);
    EXPECT_TRUE(load(c.content)) << c.why;
    EXPECT_EQ(dns_cache_count(), c.records) << c.why;
  }
  EXPECT_EQ(lookup("a"), "3") << "the last in the file";
  ASSERT_TRUE(load(file_record("s", "1") + file_record("t", "")));
  EXPECT_EQ(lookup("s"), "-") << "no room for an identifier in the reply";
}

TEST_F(DnsCache, WhatIsTooLongForTheFileStaysInMemory) {
  store("long", std::string(5000, 'r'));
  store("c", "..3");
  EXPECT_EQ(lookup("long").size(), 4998U);
  EXPECT_EQ(dns_cache_lookup(bytes_of("x")), std::nullopt) << "no room for an identifier";
  dns_cache_save(path_.c_str(), false);
  EXPECT_EQ(file(), file_record("c", "..3")) << "it would end the next load";
}

}  // namespace
}  // namespace vrox::dns
