// Loads configuration texts into the global records, which each test finds as
// they are at start-up.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <string_view>

#include "acl/rule.h"
#include "config/reader.h"
#include "dns/global.h"
#include "dns/rule.h"
#include "httpmod/module.h"
#include "httpudp/global.h"
#include "main/buffer.h"
#include "main/timeouts.h"
#include "socks5/global.h"
#include "tcp/global.h"
#include "tcp/module.h"

extern "C" __attribute__((weak)) void __lsan_disable();
extern "C" __attribute__((weak)) void __lsan_enable();

namespace vrox {

class ConfigurationTest : public testing::Test {
 protected:
  // Configuration records are never freed, which a leak checker may not know.
  ConfigurationTest() {
    if (__lsan_disable != nullptr) __lsan_disable();
  }
  ~ConfigurationTest() override {
    reset();
    if (__lsan_enable != nullptr) __lsan_enable();
  }

  static bool load(std::string_view text) {
    auto* kept = new Buffer;
    return kept->assign(text) && config::read_configuration_text(kept->span());
  }

  static void reset() {
    acl::rule_lists = {.at_connect = {}, .on_request = {}, .fallback = &tcp::global};
    tcp::global = {};
    tcp::modules = {};
    httpmod::modules = {};
    dns::rules = {};
    dns::global = {};
    httpudp::global = {};
    socks5::global = {};
    timeout_mask = 0;
  }
};

}  // namespace vrox
