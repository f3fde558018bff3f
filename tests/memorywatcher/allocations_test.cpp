#include <tests/memorywatcher/allocations.hpp>

#include <cstddef>
#include <cstdlib>
#include <memory>
#include <new>
#include <string>
#include <utility>

#include <gtest/gtest.h>

namespace KX {
namespace {

struct State {
  std::int64_t count = 0;
  std::int64_t freed = 0;
  int passingBeforeFailure = -1;
  int passingBeforeAction = -1;
  std::function<void()>* action = nullptr;
};
thread_local State state;

void* allocate(std::size_t size) {
  if (state.passingBeforeAction >= 0 && state.passingBeforeAction-- == 0) {
    std::unique_ptr<std::function<void()>> const action(std::exchange(state.action, nullptr));
    (*action)();
  }
  if (state.passingBeforeFailure >= 0 && state.passingBeforeFailure-- == 0) throw std::bad_alloc();
  void* const block = std::malloc(size == 0 ? 1 : size);
  if (block == nullptr) throw std::bad_alloc();
  ++state.count;
  return block;
}

void release(void* block) noexcept {
  if (block != nullptr) ++state.freed;
  std::free(block);
}

}  // namespace

std::int64_t Allocations::count() {
  return state.count;
}
std::int64_t Allocations::balance() {
  return state.count - state.freed;
}
void Allocations::failAfter(int passing) {
  state.passingBeforeFailure = passing;
}
void Allocations::interruptAfter(int passing, std::function<void()> action) {
  leaveAlone();
  state.action = new std::function<void()>(std::move(action));
  state.passingBeforeAction = passing;
}
void Allocations::leaveAlone() {
  state.passingBeforeFailure = -1;
  state.passingBeforeAction = -1;
  delete std::exchange(state.action, nullptr);
}

namespace {

TEST(Allocations, AreCountedOnThisThread) {
  std::int64_t const count = Allocations::count();
  std::int64_t const balance = Allocations::balance();

  auto block = std::make_unique<std::string>(100, 'x');

  EXPECT_EQ(Allocations::count(), count + 2);
  EXPECT_EQ(Allocations::balance(), balance + 2);
  block.reset();
  EXPECT_EQ(Allocations::balance(), balance);
}

TEST(Allocations, FailOnceWhenAsked) {
  Allocations::failAfter(1);

  auto const first = std::make_unique<int>(1);
  EXPECT_THROW(std::make_unique<int>(2), std::bad_alloc);
  EXPECT_NO_THROW(std::make_unique<int>(3));
}

TEST(Allocations, AreInterruptedOnceWhenAsked) {
  int runs = 0;
  Allocations::interruptAfter(1, [&] { ++runs; });

  auto const first = std::make_unique<int>(1);
  EXPECT_EQ(runs, 0);
  auto const second = std::make_unique<int>(2);
  EXPECT_EQ(runs, 1);
  auto const third = std::make_unique<int>(3);
  EXPECT_EQ(runs, 1);
}

TEST(Allocations, AreLeftAloneWhenAsked) {
  int runs = 0;
  Allocations::interruptAfter(0, [&] { ++runs; });
  Allocations::failAfter(0);

  Allocations::leaveAlone();

  EXPECT_NO_THROW(std::make_unique<int>(1));
  EXPECT_EQ(runs, 0);
}

}  // namespace
}  // namespace KX

void* operator new(std::size_t size) {
  return KX::allocate(size);
}
void operator delete(void* block) noexcept {
  KX::release(block);
}
void operator delete(void* block, std::size_t) noexcept {
  KX::release(block);
}
