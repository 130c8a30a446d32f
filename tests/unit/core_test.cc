// The pieces under everything: texts, rings and lists, slots, mail, addresses.
#include <gtest/gtest.h>
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
#include "main/list.h"
#include "main/loop.h"
#include "main/slot_table.h"
#include "tcp_pair.h"

namespace vrox {
namespace {

using namespace std::string_literals;
using namespace std::string_view_literals;

// ---- texts ------------------------------------------------------------------

void expect_text(const Buffer& buffer, std::string_view expected, std::string_view why) {
  EXPECT_EQ(buffer.view(), expected) << why;
  EXPECT_EQ(buffer.c_str()[buffer.size()], '\0') << why;
  EXPECT_GE(buffer.capacity(), buffer.size()) << why;
}

TEST(Buffer, GrowsShrinksAndStaysTerminated) {
  Buffer buffer;
  std::string expected;
  for (int i = 0; i < 3000; ++i) {
    const std::string piece(static_cast<std::size_t>(i % 17), static_cast<char>('a' + i % 26));
    ASSERT_TRUE(buffer.append(piece));
    expected += piece;
  }
  expect_text(buffer, expected, "appended");
  buffer.erase_front(1000);
  expect_text(buffer, expected.substr(1000), "front erased");
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
      {"overlapping occurrences count once", "aaa", "aa", "xyz", "xyza"},
      {"bytes, not texts", "a\0b\0"s, "\0"s, "\0\0"s, "a\0\0b\0\0"s},
  };
  for (const auto& c : cases) {
    Buffer buffer;
    ASSERT_TRUE(buffer.assign(c.text) && replace_all(buffer, c.pattern, c.replacement));
    expect_text(buffer, c.expected, c.why);
  }
}

TEST(Helpers, NumbersReadAsTheCLibraryDoes) {
  for (const char* text :
       {"", "-7", "+7", " \t\n\v\f\r42x", "4 2", "x4", "- 4", "+-4", "0x10", "007", "2147483648",
        "4294967297", "99999999999999999999", "-99999999999999999999"}) {
    EXPECT_EQ(to_number(text), std::atoi(text)) << text;
  }
  EXPECT_EQ(to_number(std::string_view("123").substr(0, 2)), 12) << "no terminator is needed";
}

// ---- rings and lists -----------------------------------------------------------

struct Element {
  char name = 0;
  std::int32_t uses = 0;
  Element* next = nullptr;
  Links<Element> links;
};

std::int32_t& uses_of(Element& element) { return element.uses; }

std::string pick(Ring<Element>& ring, int times) {
  std::string names;
  for (int i = 0; i < times; ++i) names += pick_least_used(ring, uses_of).name;
  return names;
}

TEST(Ring, TheLeastUsedInTurn) {
  const struct {
    const char* why;
    std::array<std::int32_t, 3> uses;
    const char* picked;
  } cases[] = {
      {"in turn", {0, 0, 0}, "abcabc"},
      {"the first of the smallest, and the head behind it", {2, 1, 1}, "bc"},
      {"counts are signed", {0, 0, -2}, "cca"},
      {"to the largest count", {INT_MAX, INT_MAX - 1, INT_MAX}, "b"},
  };
  for (const auto& c : cases) {
    std::array<Element, 3> elements{};
    List<Element> list;
    for (std::size_t i = 0; i < elements.size(); ++i) {
      elements[i].name = static_cast<char>('a' + i);
      elements[i].uses = c.uses[i];
      list.push_back(&elements[i]);
    }
    Ring<Element> ring = close_ring(list);
    EXPECT_EQ(pick(ring, static_cast<int>(std::string_view(c.picked).size())), c.picked) << c.why;
  }
  EXPECT_TRUE(close_ring(List<Element>{}).empty());
}

using Linked = LinkedList<Element, &Element::links>;

std::string names(const Linked& list) {
  std::string all;
  for (const Element* at = list.first(); at != nullptr; at = Linked::next(*at)) all += at->name;
  return all;
}

TEST(LinkedList, ElementsLeaveFromAnywhere) {
  std::array<Element, 4> e{};
  for (std::size_t i = 0; i < e.size(); ++i) e[i].name = static_cast<char>('a' + i);
  Linked list;
  list.remove(e[0]);  // nothing: it is in no list
  for (Element& element : e) list.add(element);
  list.add(e[1]);  // is in already
  EXPECT_EQ(names(list), "abcd");
  list.rotate_to(e[2]);
  EXPECT_EQ(names(list), "cdab") << "the order stays";
  list.remove(e[0]);
  list.remove(e[0]);
  list.remove(e[2]);
  list.add(e[2]);
  EXPECT_EQ(names(list), "dbc");
  for (Element& element : e) list.remove(element);
  EXPECT_TRUE(list.empty());
  list.add(e[3]);
  EXPECT_EQ(names(list), "d");
}

// ---- slots and mail ------------------------------------------------------------

// Tables and loops live as long as the process and do not clean up.
template <class T>
T& kept() {
  static auto& all = *new std::vector<T*>;
  return *all.emplace_back(new T);
}

template <class T>
SlotTable<T>& new_table(std::size_t size) {
  auto& table = kept<SlotTable<T>>();
  EXPECT_TRUE(table.allocate(size));
  return table;
}

TEST(SlotTable, TheLowestFreeSlotFirst) {
  for (const std::size_t size : {2U, 64U, 65U, 4200U}) {
    SlotTable<int>& table = new_table<int>(size);
    for (std::size_t i = 0; i < size; ++i) ASSERT_EQ(table.claim(), &table.slots()[i]);
    EXPECT_EQ(table.claim(), nullptr);
    EXPECT_EQ(table.in_use(), size);
    table.release(table.slots()[size - 1]);
    table.release(table.slots()[size / 2 - 1]);
    EXPECT_EQ(table.index_of(*table.claim()), size / 2 - 1);
    EXPECT_EQ(table.index_of(*table.claim()), size - 1);
    EXPECT_EQ(table.claim(), nullptr);
  }
}

// A service's table, its loop, and threads that bring work.
constexpr int posters = 3;
constexpr int messages = 3000;

struct Job {
  Mail mail;
  Links<Job> done;
  int poster = -1;  // plain: the claim and the mail must order every access
  int number = -1;
};

struct Service {
  Loop loop;
  SlotTable<Job>* table = nullptr;
  LinkedList<Job, &Job::done> done;
  std::array<int, posters> next{};
  int delivered = 0;
  bool in_order = true;
};
Service* service = nullptr;

void take_job(Mail& mail) {
  Job& job = reinterpret_cast<Job&>(mail);  // its first member
  int& expected = service->next[static_cast<std::size_t>(job.poster)];
  service->in_order = service->in_order && job.number == expected;
  expected = job.number + 1;
  ++service->delivered;
  job.poster = job.number = -1;
  service->done.add(job);
}

void post_jobs(int poster) {
  for (int number = 0; number < messages;) {
    Job* job = service->table->claim();
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
  for (const std::size_t slots : {1U, 7U, 200U}) {
    Service& current = kept<Service>();
    service = &current;
    current.table = &new_table<Job>(slots);
    ASSERT_TRUE(current.loop.open(16));
    std::vector<std::thread> threads;
    for (int i = 0; i < posters; ++i) threads.emplace_back(post_jobs, i);
    while (current.delivered < posters * messages) {
      const auto begun = std::chrono::steady_clock::now();
      EXPECT_TRUE(current.loop.wait(20'000).empty());
      if (std::chrono::steady_clock::now() - begun > std::chrono::seconds(10)) {
        std::abort();  // a wake was lost, and the threads would wait for ever
      }
      current.loop.deliver_mail();
      while (Job* job = current.done.first()) {
        current.done.remove(*job);
        current.table->release(*job);
      }
      current.loop.end_pass();
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_TRUE(current.in_order) << slots;
    EXPECT_EQ(current.table->in_use(), 0U);
  }
}

struct Letter {
  Mail mail;
  Loop* again = nullptr;
  int delivered = 0;
};

TEST(Loop, APostedMessageIsDeliveredOnce) {
  Loop& loop = kept<Loop>();
  ASSERT_TRUE(loop.open(4));
  Letter letter;
  letter.mail.deliver = [](Mail& mail) {
    Letter& self = reinterpret_cast<Letter&>(mail);
    if (++self.delivered != 2) return;
    EXPECT_TRUE(self.again->post(mail)) << "it may be posted again";
  };
  letter.again = &loop;
  EXPECT_TRUE(loop.post(letter.mail));
  EXPECT_FALSE(loop.post(letter.mail)) << "it is in the mailbox already";
  EXPECT_TRUE(loop.wait(10'000).empty());
  loop.deliver_mail();
  EXPECT_EQ(letter.delivered, 1);
  EXPECT_TRUE(loop.post(letter.mail));
  loop.deliver_mail();
  EXPECT_EQ(letter.delivered, 2) << "what is posted meanwhile waits for the next pass";
  loop.deliver_mail();
  EXPECT_EQ(letter.delivered, 3);
  loop.deliver_mail();
  EXPECT_EQ(letter.delivered, 3);
}

// Closing a socket with input unread would reset the connection and drop what
// was sent before.
TEST(Loop, RetiredConnectionsDeliverTheirOutput) {
  Loop& loop = kept<Loop>();
  ASSERT_TRUE(loop.open(4));
  const TcpListener listener;
  std::vector<int> peers;
  for (int i = 0; i < 70; ++i) {  // more than it keeps in one pass
    const int peer = socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_EQ(connect(peer, listener.address().raw(), listener.address().length()), 0);
    const int fd = listener.accept_one();
    send_all(peer, std::string(10'000, 'u'));
    await_bytes(fd, 10'000);
    send_all(fd, "last words");
    loop.retire(fd);
    peers.push_back(peer);
  }
  loop.end_pass();
  for (const int peer : peers) {
    EXPECT_EQ(read_to_end(peer), "last words");
    (void)close(peer);
  }
}

// ---- addresses --------------------------------------------------------------------

TEST(SocketAddress, PeersInTheUniformForm) {
  const struct {
    const char* text;
    int family;
    bool mapped;
    Address uniform;
  } cases[] = {
      {"10.1.2.3", AF_INET, false, {10, 1, 2, 3}},
      {"::ffff:10.1.2.3", AF_INET, true, {10, 1, 2, 3}},
      {"::fffe:10.1.2.3", AF_INET6, false, {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xfe, 10, 1, 2, 3}},
  };
  for (const auto& c : cases) {
    auto address = parse_address(c.text, 4660);
    ASSERT_TRUE(address) << c.text;
    EXPECT_EQ(address->is_mapped_v4(), c.mapped) << c.text;
    // What a kernel left behind: garbage where an IPv4 address is spread to.
    if (address->family() == AF_INET)
      std::memset(reinterpret_cast<char*>(address->raw()) + 8, 0x5a, 20);
    address->normalise();
    EXPECT_EQ(address->family(), c.family) << c.text;
    EXPECT_EQ(address->uniform(), c.uniform) << c.text;
    EXPECT_EQ(address->port(), 4660) << c.text;
    EXPECT_EQ(address->length(), c.family == AF_INET6 ? 28U : 16U) << c.text;
  }
  for (const char* text : {"", "10.1.2", "256.1.1.1", "host", ":::", "1::2::3", " 1.2.3.4"}) {
    EXPECT_FALSE(parse_address(text, 1)) << text;
  }
}

}  // namespace
}  // namespace vrox
