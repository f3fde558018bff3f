// The mailbox: posting from any thread, taking all of it in the order of posting.

#include <atomic>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <memorywatcher/kxmailbox.hpp>

namespace KX {
namespace {

struct Letter {
  explicit Letter(int itsThread, int itsNumber) : thread(itsThread), number(itsNumber) { ++count; }
  ~Letter() { --count; }

  Letter* next = nullptr;
  int thread;
  int number;
  static inline std::atomic<int> count{0};
};

using Mailbox = KXMailbox<Letter>;

std::vector<int> numbersOf(Letter* oldest) {
  std::vector<int> numbers;
  for (Letter const* letter = oldest; letter != nullptr; letter = letter->next) {
    numbers.push_back(letter->number);
  }
  Mailbox::drop(oldest);
  return numbers;
}

TEST(Mailbox, IsEmptyAtFirst) {
  Mailbox mailbox;

  EXPECT_EQ(mailbox.takeAll(), nullptr);
  EXPECT_EQ(mailbox.size(), 0U);
}

TEST(Mailbox, GivesAllInTheOrderOfPosting) {
  Mailbox mailbox;
  for (int i = 0; i < 5; ++i) mailbox.post(std::make_unique<Letter>(0, i));
  EXPECT_EQ(mailbox.size(), 5U);

  EXPECT_EQ(numbersOf(mailbox.takeAll()), (std::vector<int>{0, 1, 2, 3, 4}));
  EXPECT_EQ(mailbox.size(), 0U);
}

TEST(Mailbox, GivesEachLetterOnce) {
  Mailbox mailbox;
  mailbox.post(std::make_unique<Letter>(0, 1));
  EXPECT_EQ(numbersOf(mailbox.takeAll()), std::vector<int>{1});

  mailbox.post(std::make_unique<Letter>(0, 2));

  EXPECT_EQ(numbersOf(mailbox.takeAll()), std::vector<int>{2});
}

TEST(Mailbox, DropsWhatIsLeftAtItsEnd) {
  {
    Mailbox mailbox;
    for (int i = 0; i < 3; ++i) mailbox.post(std::make_unique<Letter>(0, i));
    ASSERT_EQ(Letter::count, 3);
  }

  EXPECT_EQ(Letter::count, 0);
}

TEST(StressMailbox, GivesEveryLetterOnceAndInTheOrderOfItsThread) {
  constexpr int kThreads = 3;
  constexpr int kLetters = 20'000;
  Mailbox mailbox;
  std::atomic<int> posting{kThreads};
  std::vector<std::thread> threads;
  for (int id = 0; id < kThreads; ++id) {
    threads.emplace_back([&, id] {
      for (int i = 0; i < kLetters; ++i) mailbox.post(std::make_unique<Letter>(id, i));
      --posting;
    });
  }
  std::vector<int> next(kThreads, 0);
  int taken = 0;
  int outOfOrder = 0;
  for (bool isLast = false; !isLast;) {
    isLast = posting == 0;
    Letter* const oldest = mailbox.takeAll();
    for (Letter const* letter = oldest; letter != nullptr; letter = letter->next, ++taken) {
      if (next[static_cast<std::size_t>(letter->thread)]++ != letter->number) ++outOfOrder;
    }
    Mailbox::drop(oldest);
  }
  for (std::thread& thread : threads) thread.join();

  EXPECT_EQ(taken, kThreads * kLetters);
  EXPECT_EQ(outOfOrder, 0);
  EXPECT_EQ(mailbox.size(), 0U);
  EXPECT_EQ(Letter::count, 0);
}

}  // namespace
}  // namespace KX
