#include "config/blocks.h"
#include "config/syntax.h"
#include "configuration.h"

namespace vrox::config {
namespace {

// What the grammar makes of a text: "kind:name{key=value|...}" per section.
std::string parsed(std::string text) {
  std::string result;
  BlockReader reader(text);
  Section section;
  BlockReader::Found found;
  while ((found = reader.next_section(section)) == BlockReader::Found::section) {
    result += std::to_string(static_cast<int>(section.kind)) + ":" + std::string(section.name);
    result += "{";
    Line line;
    BlockReader::LineFound kind;
    while ((kind = reader.next_line(line)) == BlockReader::LineFound::pair) {
      result.append(line.key).append("=").append(line.value.begin(), line.value.end()).append("|");
    }
    if (kind == BlockReader::LineFound::not_closed) return result + "!open";
    if (kind == BlockReader::LineFound::no_equals) result.append("!bad ").append(line.key);
    if (kind == BlockReader::LineFound::no_value) result.append("!empty ").append(line.key);
    if (kind != BlockReader::LineFound::end_of_body) return result;
    result += "}";
  }
  return found == BlockReader::Found::bad_header ? result + "!header" : result;
}

TEST(ConfigGrammar, SectionsAndLines) {
  const struct {
    const char* why;
    const char* text;
    const char* expected;
  } cases[] = {
      {"headers go by their prefix, without case", "TCP::GLOBALX {\n}\nTunnel {\n}",
       "0:X{}8:nel{}"},
      {"the rest of the header is the name", "tcpAcl::a b {\n}\nhttpMod::M\t{\n}", "1:a{}3:M{}"},
      {"a brace without a name does, too", "Tun {\n}{\nx\n}\nbad {\n", "8:{}"},
      {"a commented-out block is skipped", "//tcpAcl::old {\na\n}\nTun {\n}", "8:{}"},
      {"a brace inside it opens a block", "// old {\na\nTun {\nk = v\n}\n}", "8:{k =v|}"},
      {"blanks before the '=' stay in the key", "Tun {\n\t key \t= v\n}", "8:{key \t=v|}"},
      {"an empty text can be quoted", "Tun {\nk = \"\"\nl = \"\n}", "8:{k =|l =|}"},
      {"the first '=' counts", "Tun {\nk = a = b\n}", "8:{k =a = b|}"},
      {"comments are lines", "Tun {\n// k = v\nl = w\n//", "8:{l =w|}"},
      {"a carriage return is no value", "Tun {\nk =\r\n}", "8:{!empty k "},
  };
  for (const auto& c : cases) EXPECT_EQ(parsed(c.text), c.expected) << c.why;
}

TEST(ConfigSyntax, EscapesAreEightAndNoMore) {
  std::string text = R"(\r\n\b\v\f\t\a\\n\x\)";
  EXPECT_EQ(unescape(text), "\r\n\b\v\f\t\a\\\n\\x\\");
}

using Configuration = ConfigurationTest;
using ConfigurationDeathTest = ConfigurationTest;

TEST_F(ConfigurationDeathTest, LinesThatEndTheProcess) {
  const struct {
    const char* section;
    const char* line;
  } cases[] = {
      {"tcpAcl::a", "continue_match:timeout = 1"},
      {"dnsAcl", "query_type = MG"},
      {"dnsAcl", "reg_domain = ["},
      {"httpUDP", "socks5_set_dst = 127.0.0.1:1 user"},
  };
  for (const auto& c : cases) {
    std::string line = c.line;
    const std::string text = std::string(c.section) + " {\n" + line + "\n}";
    line.insert(line.find('='), " ");  // the blank before it belongs to the key
    EXPECT_EXIT((void)load(text), testing::ExitedWithCode(1),
                testing::Eq("error line: [" + line + "]\n"))
        << c.line;
  }
}

// What a rule inherits: "keep-alive[modules](ports)", "+" before a port that must hold.
std::string shown(const acl::Rule& rule) {
  std::string text = std::to_string(rule.keep_alive) + "[";
  for (const auto& module : rule.module_refs) text.append(module.name).append(" ");
  text += "](";
  for (const acl::Condition& c : rule.conditions) {
    text += (c.must_hold ? "+" : " ") + std::to_string(c.port_low);
  }
  return text + ")";
}

TEST_F(Configuration, ARuleBeginsAsTheGlobalSectionStands) {
  ASSERT_TRUE(
      load("tcp::Global {\nkeepAlive_s = 7\ndst_port = 80\ntcpProxy = p\n}\n"
           "tcpAcl::plain {\ndst_port = 81\nkeepAlive_s = 8\ntimeout = 2\n}\n"
           "tcp::Global {\ndst_port = 443\n}\n"
           "tcpAcl::own {\ntcpProxy = q\ntcpProxy = p\ncontinue_match:dst_port = 82\n}\n"
           "tcpProxy::p {\n}\ntcpProxy::q {\n}\n"));
  const acl::Rule& plain = *acl::rule_lists.on_request.head;
  EXPECT_EQ(shown(plain), "8[p ]( 80 81)");
  EXPECT_TRUE(plain.timeout == 2 && sweeps(SweepBit::tcp));
  EXPECT_EQ(shown(*plain.next), "7[q p ](+80 443 82)") << "its own modules, and a copied condition";
  EXPECT_EQ(shown(tcp::global), "7[p ]( 80 443)");
}

TEST_F(Configuration, SingleSectionsTakeTheirKeys) {
  ASSERT_TRUE(
      load("tcp::Global {\ntcp_option = x|tfo|TDAx\nmax_sessions_x = 0\ntimeout = 3\n"
           "timeout = -2\nlimit_client_ip =  5\t6\nlimit_client_ip = 7\n}\n"
           "httpUDP {\ntcp_option = XTFO\nudp_socks5_listen = 127.0.0.1:0\ntimeout = 0\n"
           "socks5_set_dst = 127.0.0.1:65537 u p\ndestAddr6 = Deny_network ;\n}\n"
           "dns::Global {\ncacheLimit = 300\ndns_listen = 127.0.0.1:0\n}\n"
           "socks5 {\nhandshake_timeout = 5\nuser_pass = u p q\n}\n"));
  EXPECT_TRUE(tcp::global.fast_open && tcp::global.defer_accept);
  EXPECT_EQ(tcp::global.max_sessions, 1) << "a table has at least one slot";
  EXPECT_EQ(tcp::global.max_clients, 7);
  EXPECT_EQ(tcp::global.max_sessions_per_client, 6) << "what is not given stays as it was";
  EXPECT_FALSE(httpudp::global.fast_open);
  EXPECT_TRUE(httpudp::global.destination_list.head->deny_network);
  EXPECT_EQ(httpudp::global.timeout, 0) << "a later key switches the default off again";
  const tcp::Module& proxy = *httpudp::global.socks5_list.head;
  EXPECT_EQ(proxy.socks5_auth.view(), "\1\1u\1p");
  EXPECT_EQ(proxy.destination_list.head->address.port(), 1) << "the low 16 bits";
  EXPECT_EQ(dns::global.cache_limit, 44) << "only the low byte is kept";
  EXPECT_EQ(dns::global.timeout, 1);
  EXPECT_EQ(socks5::global.credentials, "\1\1u\3p q");
  EXPECT_EQ(timeout_mask, 4 | 8) << "no number below 0 is one";
}

TEST_F(Configuration, ARuleThatMayAskForTheHostIsMarked) {
  ASSERT_TRUE(
      load("tcpAcl::a {\ninclude_module = b\n}\ntcpAcl::b {\ninclude_module! = a\n"
           "include_module = c\n}\ntcpAcl::c {\nhdr_key(HOST) = x\n}\n"
           "tcpAcl::d {\ninclude_module = d\nhdr_key(Hosts) = x\nhdr_key(Cookie) = x\n}\n"));
  std::string marked;
  for (const acl::Rule& rule : acl::rule_lists.on_request) {
    if (rule.asks_host) marked.append(rule.name);
  }
  EXPECT_EQ(marked, "abc");
}

// ---- what keys make of their values ----

Address bytes(std::initializer_list<int> list) {
  Address address{};
  std::size_t i = 0;
  for (const int byte : list) address[i++] = static_cast<std::uint8_t>(byte);
  return address;
}

TEST_F(Configuration, AddressesAreReadAsFarAsTheyMakeSense) {
  const struct {
    const char* text;
    Address expected;
    int prefix = 128;
  } cases[] = {
      {"10.1", bytes({10, 1})},
      {"1.2.3.4.5", bytes({1, 2, 3, 4})},
      {"::a:b", bytes({0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xa, 0, 0xb})},
      {"1:2:3:4:5:6:7:8:9", bytes({0, 1, 0, 2, 0, 3, 0, 4, 0, 5, 0, 6, 0, 7, 0, 8})},
      {"12345::", bytes({0x12, 0x34})},
      {"10.1.2.3/8", bytes({10}), 8},  // bits behind the prefix are cleared
      {"::/129", {}},
      {"::1/-1", {}, 0},
  };
  for (const auto& c : cases) {
    acl::Rule rule;
    ASSERT_EQ(acl::apply_rule_key("dst_ip", c.text, rule), KeyResult::applied) << c.text;
    EXPECT_EQ(rule.conditions.tail->address, c.expected) << c.text;
    EXPECT_EQ(rule.conditions.tail->prefix, c.prefix) << c.text;
  }
}

TEST_F(Configuration, ByteCountsHaveUnits) {
  const struct {
    const char* value;
    std::uint64_t bytes;
  } cases[] = {{"1", 1U << 20}, {"1M", 1U << 20}, {"3x", 3U << 20},
               {"2k", 2048},    {"1G", 1U << 30}, {"8g", std::uint64_t{8} << 30},
               {"none", 0}};
  for (const auto& c : cases) {
    acl::Rule rule;
    ASSERT_EQ(acl::apply_rule_key("maxData", c.value, rule), KeyResult::applied);
    EXPECT_EQ(rule.data_left->load(), c.bytes) << c.value;
  }
}

TEST(Credentials, BecomeAnRfc1929Message) {
  const std::string longest(255, 'x');
  const struct {
    const char* why;
    std::string value;
    std::string message;  // empty: refused
  } cases[] = {
      {"the first blank separates", "u p w", "\1\1u\3p w"},
      {"empty parts are parts", " ", std::string("\1\0\0", 3)},
      {"the longest that fit", longest + " " + longest, "\1\xff" + longest + "\xff" + longest},
      {"a user too long for its length byte", longest + "x p", ""},
      {"a password too long", "u x" + longest, ""},
  };
  for (const auto& c : cases) {
    Buffer message;
    EXPECT_EQ(tcp::parse_user_pass(c.value, message), !c.message.empty()) << c.why;
    EXPECT_EQ(message.view(), c.message) << c.why;
  }
}

}  // namespace
}  // namespace vrox::config
