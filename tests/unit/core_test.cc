// The pieces under everything: texts, lists, slots, mail, addresses.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "main/address.h"
#include "main/buffer.h"
#include "main/helpers.h"
#include "main/links.h"
#include "main/loop.h"
#include "main/slot_table.h"

namespace vrox {
namespace {

using namespace std::string_literals;
using namespace std::string_view_literals;

void expect_text(const Buffer& buffer, std::string_view expected, std::string_view why) {
  EXPECT_EQ(buffer.view(), expected) << why;
  EXPECT_EQ(buffer.c_str()[buffer.size()], '\0') << why;
  EXPECT_GE(buffer.capacity(), buffer.size()) << why;
}

TEST(Buffer, GrowsShrinksAndStaysTerminated) {
  Buffer buffer;
  std::string expected;
  for (std::size_t i = 0; i < 3000; ++i) {
    const std::string piece(i % 17, static_cast<char>('a' + i % 26));
    ASSERT_TRUE(buffer.append(piece));
    expected += piece;
  }
  buffer.erase_front(1000);
  expect_text(buffer, expected.substr(1000), "appended, and erased at its front");
  buffer.erase_front(buffer.size());
  expect_text(buffer, "", "all erased");
  ASSERT_TRUE(buffer.assign("a\0b"sv));
  Buffer moved(std::move(buffer));
  expect_text(moved, "a\0b"sv, "zero bytes are bytes");
  expect_text(buffer, "", "moved from");  // NOLINT(bugprone-use-after-move): empty, by its promise
  ASSERT_TRUE(buffer.append("again"));
  for (const std::size_t huge : {std::size_t{UINT32_MAX}, SIZE_MAX - 3, SIZE_MAX}) {
    EXPECT_FALSE(buffer.reserve(huge)) << "more than its size can say";
  }
  expect_text(buffer, "again", "unchanged");
}

TEST(Helpers, ReplaceAll) {
  const struct {
    const char* why;
    std::string text, pattern, replacement, expected;
  } cases[] = {
      {"the search resumes behind each replacement", "aaaa", "aa", "a", "aa"},
      {"what was put in is not searched", "ab", "a", "ba", "bab"},
      {"nor joined with what follows", "aabb", "ab", "", "ab"},
      {"bytes, not texts", "a\0b\0"s, "\0"s, "\0\0"s, "a\0\0b\0\0"s},
  };
  for (const auto& c : cases) {
    Buffer buffer;
    ASSERT_TRUE(buffer.assign(c.text) && replace_all(buffer, c.pattern, c.replacement));
    expect_text(buffer, c.expected, c.why);
  }
}

TEST(Helpers, NumbersReadAsTheCLibraryDoes) {
  for (const char* text : {"", "-7", "+7", " \t\n\v\f\r42x", "x4", "- 4", "+-4", "0x10", "007",
                           "2147483648", "4294967297", "-99999999999999999999"}) {
    EXPECT_EQ(to_number(text), std::atoi(text)) << text;
  }
  EXPECT_EQ(to_number(std::string_view("123").substr(0, 2)), 12) << "no terminator is needed";
}

struct Element {
  char name = 0;
  Links<Element> links{};
};

TEST(LinkedList, ElementsLeaveFromAnywhere) {
  using Linked = LinkedList<Element, &Element::links>;
  std::array<Element, 4> e{{{.name = 'a'}, {.name = 'b'}, {.name = 'c'}, {.name = 'd'}}};
  Linked list;
  const auto names = [&list] {
    std::string all;
    for (const Element* at = list.first(); at != nullptr; at = Linked::next(*at)) all += at->name;
    return all;
  };
  list.remove(e[0]);  // nothing: it is in no list
  for (Element& element : e) list.add(element);
  list.add(e[1]);  // is in already
  EXPECT_EQ(names(), "abcd");
  list.rotate_to(e[2]);
  EXPECT_EQ(names(), "cdab") << "the order stays";
  list.remove(e[0]);
  list.remove(e[0]);
  list.remove(e[2]);
  list.add(e[2]);
  EXPECT_EQ(names(), "dbc");
  for (Element& element : e) list.remove(element);
  EXPECT_TRUE(list.empty());
  list.add(e[3]);
  EXPECT_EQ(names(), "d");
}

// ---- slots and mail: these live as long as the process, and do not clean up ----

TEST(SlotTable, TheLowestFreeSlotFirst) {
  static std::array<SlotTable<int>, 3> tables;
  for (std::size_t size = 2; SlotTable<int> & table : tables) {
    ASSERT_TRUE(table.allocate(size));
    for (std::size_t i = 0; i < size; ++i) ASSERT_EQ(table.claim(), &table.slots()[i]);
    EXPECT_EQ(table.claim(), nullptr);
    EXPECT_EQ(table.in_use(), size);
    table.release(table.slots()[size - 1]);
    table.release(table.slots()[size / 2 - 1]);
    EXPECT_EQ(table.index_of(*table.claim()), size / 2 - 1);
    EXPECT_EQ(table.index_of(*table.claim()), size - 1);
    size = size * 64 + 1;  // two words, and two words that tell of words
  }
}

constexpr int posters = 3;
constexpr int messages = 3000;

struct Job {
  Mail mail;
  int poster = -1;  // plain: the claim and the mail must order every access
  int number = -1;
};

// A service's table, its loop, and threads that bring work.
struct Service {
  Loop loop;
  SlotTable<Job> table;
  std::array<int, posters> next{};
  std::vector<Job*> done;
  int delivered = 0;
};
Service* service = nullptr;

void take_job(Mail& mail) {
  Job& job = reinterpret_cast<Job&>(mail);  // its first member
  EXPECT_EQ(job.number, service->next[static_cast<std::size_t>(job.poster)]++) << "in their order";
  ++service->delivered;
  job.poster = job.number = -1;
  service->done.push_back(&job);
}

void post_jobs(int poster) {
  for (int number = 0; number < messages;) {
    Job* job = service->table.claim();
    if (job == nullptr) {
      std::this_thread::yield();
      continue;
    }
    if (job->poster != -1 || job->number != -1) std::abort();  // somebody else's still
    job->poster = poster;
    job->number = number++;
    job->mail.deliver = take_job;
    if (!service->loop.post(job->mail)) std::abort();  // it was in no mailbox
  }
}

TEST(Loop, ManyThreadsFillSlotsAndPostThem) {
  static std::array<Service, 3> services;
  for (std::size_t slots = 1; Service & current : services) {
    service = &current;
    ASSERT_TRUE(current.loop.open(16) && current.table.allocate(slots));
    std::vector<std::thread> threads;
    for (int i = 0; i < posters; ++i) threads.emplace_back(post_jobs, i);
    while (current.delivered < posters * messages) {
      const auto begun = std::chrono::steady_clock::now();
      EXPECT_TRUE(current.loop.wait(20'000).empty());
      if (std::chrono::steady_clock::now() - begun > std::chrono::seconds(10)) {
        std::abort();  // a wake was lost, and the threads would wait for ever
      }
      current.loop.deliver_mail();
      for (Job* job : current.done) current.table.release(*job);
      current.done.clear();
      current.loop.end_pass();
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(current.table.in_use(), 0U);
    slots = slots * 14;
  }
}

TEST(Loop, AMessageIsInTheMailboxOnce) {
  static Loop loop;
  static Mail mail;
  static int delivered = 0;
  ASSERT_TRUE(loop.open(4));
  mail.deliver = [](Mail& again) { EXPECT_TRUE(++delivered != 1 || loop.post(again)); };
  EXPECT_TRUE(loop.post(mail));
  EXPECT_FALSE(loop.post(mail)) << "it is in there already";
  for (const int expected : {1, 2, 2}) {
    loop.deliver_mail();
    EXPECT_EQ(delivered, expected) << "what is posted meanwhile waits for the next pass";
  }
}

// Closing a socket with input unread would reset the connection and drop what
// was sent before.
TEST(Loop, RetiredConnectionsDeliverTheirOutput) {
  static Loop loop;
  const int listener = socket(AF_INET, SOCK_STREAM, 0);
  SocketAddress address;
  socklen_t length = SocketAddress::size;
  ASSERT_TRUE(loop.open(4) && listen(listener, 1) == 0);
  ASSERT_EQ(getsockname(listener, address.raw(), &length), 0);
  std::array<int, 70> peers{};  // more than it keeps in one pass
  std::string bytes(20, '\0');
  for (int& peer : peers) {
    peer = socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_EQ(connect(peer, address.raw(), length), 0);
    const int fd = accept(listener, nullptr, nullptr);
    ASSERT_EQ(send(peer, "unread", 6, 0), 6);
    ASSERT_EQ(recv(fd, bytes.data(), 6, MSG_PEEK | MSG_WAITALL), 6);
    ASSERT_EQ(send(fd, "last words", 10, 0), 10);
    loop.retire(fd);
  }
  loop.end_pass();
  for (const int peer : peers) {
    pollfd ended{.fd = peer, .events = POLLRDHUP, .revents = 0};
    EXPECT_EQ(poll(&ended, 1, 5000), 1);
    EXPECT_EQ(recv(peer, bytes.data(), bytes.size(), MSG_DONTWAIT), 10);
    EXPECT_EQ(recv(peer, bytes.data(), bytes.size(), MSG_DONTWAIT), 0) << "the end, no reset";
    (void)close(peer);
  }
  (void)close(listener);
}

TEST(SocketAddress, PeersInTheUniformForm) {
  const struct {
    const char* text;
    int family;
    Address uniform;
  } cases[] = {
      {"10.1.2.3", AF_INET, {10, 1, 2, 3}},
      {"::ffff:10.1.2.3", AF_INET, {10, 1, 2, 3}},
      {"::fffe:10.1.2.3", AF_INET6, {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xfe, 10, 1, 2, 3}},
  };
  for (const auto& c : cases) {
    auto address = parse_address(c.text, 1);
    ASSERT_TRUE(address) << c.text;
    // What a kernel left behind: garbage where an IPv4 address is spread to.
    if (address->family() == AF_INET)
      std::memset(reinterpret_cast<char*>(address->raw()) + 8, 0x5a, 20);
    address->normalise();
    EXPECT_EQ(address->family(), c.family) << c.text;
    EXPECT_EQ(address->uniform(), c.uniform) << c.text;
    EXPECT_EQ(address->length(), c.family == AF_INET6 ? 28U : 16U) << c.text;
  }
  for (const char* text : {"", "10.1.2", "256.1.1.1", "host", ":::", "1::2::3", " 1.2.3.4"}) {
    EXPECT_FALSE(parse_address(text, 1)) << text;
  }
}

}  // namespace
}  // namespace vrox
