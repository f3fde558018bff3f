// Processors and memory. The machine is the test's: the functions of libproc2 that the groups call
// are defined here, so that they take the place of the library's in this program. A module library
// that this program loads has the library's own.

#include <array>
#include <cerrno>
#include <cstddef>
#include <deque>
#include <map>
#include <string>
#include <vector>

#include <libproc2/meminfo.h>
#include <libproc2/stat.h>

#include <gtest/gtest.h>

#include <kxerror/kxerror.hpp>
#include <modules/hostsensors/kxmachinegroups.hpp>

#include "fakeroot.hpp"

struct stat_info {};
struct meminfo_info {};

namespace {

using Ticks = std::map<stat_item, unsigned long long>;

/// What the machine is now, and where the answers are kept until the next question.
struct FakeMachine {
  std::map<int, Ticks> cpus = {{0, {{STAT_TIC_IDLE, 1}}}};
  std::map<meminfo_item, unsigned long> memoryKiB = {{MEMINFO_MEM_TOTAL, 1000},
                                                     {MEMINFO_MEM_AVAILABLE, 500}};
  int openError = 0;
  int readError = 0;
  int openCount = 0;

  stat_info stat;
  std::deque<std::vector<stat_result>> statFields;
  std::deque<stat_stack> statStacks;
  std::vector<stat_stack*> statOrder;
  stat_reap statReap{};
  stat_reaped statReaped{};

  meminfo_info memory;
  std::vector<meminfo_result> memoryFields;
  meminfo_stack memoryStack{};
};
FakeMachine gMachine;

stat_stack* answer(int id, Ticks const& ticks, stat_item const* items, int count) {
  std::vector<stat_result>& fields = gMachine.statFields.emplace_back();
  for (int i = 0; i < count; ++i) {
    stat_result field{};
    field.item = items[i];
    if (items[i] == STAT_TIC_ID) {
      field.result.s_int = id;
    } else if (auto const found = ticks.find(items[i]); found != ticks.end()) {
      field.result.ull_int = found->second;
    }
    fields.push_back(field);
  }
  return &gMachine.statStacks.emplace_back(stat_stack{fields.data()});
}

}  // namespace

extern "C" {

int procps_stat_new(stat_info** info) {
  if (gMachine.openError != 0) return -gMachine.openError;
  ++gMachine.openCount;
  *info = &gMachine.stat;
  return 0;
}
int procps_stat_unref(stat_info** info) {
  --gMachine.openCount;
  *info = nullptr;
  return 0;
}
stat_reaped* procps_stat_reap(stat_info*, stat_reap_type, stat_item* items, int count) {
  errno = gMachine.readError;
  if (errno != 0) return nullptr;
  gMachine.statFields.clear();
  gMachine.statStacks.clear();
  gMachine.statOrder.clear();
  Ticks sum;
  for (auto const& [cpu, ticks] : gMachine.cpus) {
    for (auto const& [item, number] : ticks) sum[item] += number;
    gMachine.statOrder.push_back(answer(cpu, ticks, items, count));
  }
  gMachine.statReap = {static_cast<int>(gMachine.cpus.size()), gMachine.statOrder.data()};
  gMachine.statReaped = {answer(STAT_SUMMARY_ID, sum, items, count), &gMachine.statReap, nullptr};
  return &gMachine.statReaped;
}

int procps_meminfo_new(meminfo_info** info) {
  if (gMachine.openError != 0) return -gMachine.openError;
  ++gMachine.openCount;
  *info = &gMachine.memory;
  return 0;
}
int procps_meminfo_unref(meminfo_info** info) {
  --gMachine.openCount;
  *info = nullptr;
  return 0;
}
meminfo_stack* procps_meminfo_select(meminfo_info*, meminfo_item* items, int count) {
  errno = gMachine.readError;
  if (errno != 0) return nullptr;
  gMachine.memoryFields.clear();
  for (int i = 0; i < count; ++i) {
    meminfo_result field{};
    field.item = items[i];
    if (gMachine.memoryKiB.contains(items[i])) field.result.ul_int = gMachine.memoryKiB[items[i]];
    gMachine.memoryFields.push_back(field);
  }
  gMachine.memoryStack.head = gMachine.memoryFields.data();
  return &gMachine.memoryStack;
}

}  // extern "C"

namespace KX {
namespace {

using testing::find;
using testing::readGroup;

std::string eventsOf(KXMachineReport const& report) {
  std::string events;
  for (KXMachineEvent const& event : report.events) {
    EXPECT_FALSE(event.isMicroEvent);
    events += event.key + "=" + event.value.toString(1);
  }
  return events;
}

class Cpu : public ::testing::Test {
 protected:
  Cpu() { gMachine = FakeMachine(); }
  ~Cpu() override { gMachine = FakeMachine(); }
  /// Passes time in which all processors are busy for so many percent of it.
  KXMachineReport pass(int ms, unsigned long long busyPercent) {
    auto const percent = static_cast<unsigned long long>(ms) / 10;
    for (auto& [cpu, ticks] : gMachine.cpus) {
      ticks[STAT_TIC_USER] += percent * busyPercent;
      ticks[STAT_TIC_IDLE] += percent * (100 - busyPercent);
    }
    mNow += ms;
    return readGroup(*mGroup, mNow);
  }

  int mNow = 0;
  std::unique_ptr<KXMachineGroup> const mGroup = makeCpuGroup();
};

TEST_F(Cpu, IsBusyInAllTicksButIdleAndWaitingForDisks) {
  struct {
    stat_item item;
    double usage;
  } const variants[] = {{STAT_TIC_USER, 25},  {STAT_TIC_NICE, 25},    {STAT_TIC_SYSTEM, 25},
                        {STAT_TIC_IRQ, 25},   {STAT_TIC_SOFTIRQ, 25}, {STAT_TIC_STOLEN, 25},
                        {STAT_TIC_IOWAIT, 0}, {STAT_TIC_IDLE, 0}};

  for (auto const& variant : variants) {
    SCOPED_TRACE(variant.item);
    gMachine = FakeMachine();
    auto const group = makeCpuGroup();
    readGroup(*group, 0);
    gMachine.cpus[0][STAT_TIC_IDLE] += 30;
    gMachine.cpus[0][variant.item] += 10;

    EXPECT_EQ(KXValue(variant.usage), find(readGroup(*group, 400), "Host/Cpu/Usage"));
  }
}

TEST_F(Cpu, HasAUsageOfEachProcessorAndOfAll) {
  gMachine.cpus = {{0, {}}, {3, {}}};
  readGroup(*mGroup, 0);
  gMachine.cpus[0] = {{STAT_TIC_USER, 10}};
  gMachine.cpus[3] = {{STAT_TIC_USER, 2}, {STAT_TIC_IDLE, 8}};

  KXMachineReport const report = readGroup(*mGroup, 100);

  EXPECT_EQ(KXValue(2), find(report, "Host/Cpu/Count"));
  EXPECT_EQ(KXValue(60.0), find(report, "Host/Cpu/Usage"));
  EXPECT_EQ(KXValue(100.0), find(report, "Host/Cpu/0/Usage"));
  EXPECT_EQ(KXValue(20.0), find(report, "Host/Cpu/3/Usage"));
}

TEST_F(Cpu, LosesTheKeyOfAProcessorThatIsSwitchedOff) {
  gMachine.cpus[1] = {};
  readGroup(*mGroup, 0);

  gMachine.cpus.erase(1);

  KXMachineReport const report = readGroup(*mGroup, 100);
  EXPECT_EQ(KXValue(1), find(report, "Host/Cpu/Count"));
  EXPECT_FALSE(find(report, "Host/Cpu/1/Usage"));
}

TEST_F(Cpu, RaisesSaturatedWhenItBeginsAndWhenItEnds) {
  pass(0, 0);

  EXPECT_EQ("", eventsOf(pass(1000, 94)));
  EXPECT_EQ("Host/Cpu/Saturated=true", eventsOf(pass(1000, 95)));
  EXPECT_EQ("", eventsOf(pass(1000, 100)));
  EXPECT_EQ("", eventsOf(pass(1000, 85)));
  EXPECT_EQ("Host/Cpu/Saturated=false", eventsOf(pass(1000, 84)));
  EXPECT_EQ("", eventsOf(pass(1000, 94)));
}

TEST_F(Cpu, IsNotSaturatedByLessThanASecond) {
  pass(0, 0);

  for (int i = 0; i < 9; ++i) EXPECT_EQ("", eventsOf(pass(100, 100)));
  EXPECT_EQ("Host/Cpu/Saturated=true", eventsOf(pass(100, 100)));
}

TEST_F(Cpu, FailsWhileItsSourceCannotBeReadAndIsBackThen) {
  gMachine.openError = ENOENT;
  EXPECT_THROW(readGroup(*mGroup), KXError);
  gMachine.openError = 0;
  EXPECT_TRUE(find(readGroup(*mGroup), "Host/Cpu/Count"));
  gMachine.readError = EIO;
  EXPECT_THROW(readGroup(*mGroup), KXError);
  gMachine.readError = 0;
  EXPECT_TRUE(find(readGroup(*mGroup), "Host/Cpu/Count"));
}

TEST_F(Cpu, LetsItsSourceGo) {
  {
    auto const group = makeCpuGroup();
    readGroup(*group);
    readGroup(*group);
    EXPECT_EQ(1, gMachine.openCount);
  }
  EXPECT_EQ(0, gMachine.openCount);
}

class Memory : public ::testing::Test {
 protected:
  Memory() { gMachine = FakeMachine(); }
  ~Memory() override { gMachine = FakeMachine(); }
  std::string readWithAvailable(unsigned long availableKiB) {
    gMachine.memoryKiB[MEMINFO_MEM_AVAILABLE] = availableKiB;
    return eventsOf(readGroup(*mGroup));
  }

  std::unique_ptr<KXMachineGroup> const mGroup = makeMemoryGroup();
};

TEST_F(Memory, IsPublishedInBytes) {
  gMachine.memoryKiB = {
      {MEMINFO_MEM_TOTAL, 1000}, {MEMINFO_MEM_AVAILABLE, 700}, {MEMINFO_MEM_USED, 300},
      {MEMINFO_MEM_FREE, 200},   {MEMINFO_MEM_BUFFERS, 10},    {MEMINFO_MEM_CACHED_ALL, 20},
      {MEMINFO_SWAP_TOTAL, 50},  {MEMINFO_SWAP_FREE, 30},      {MEMINFO_SWAP_USED, 20}};

  KXMachineReport const report = readGroup(*mGroup);

  EXPECT_EQ(9u, report.values.size());
  EXPECT_EQ(KXValue(1024000.0), find(report, "Host/Memory/TotalBytes"));
  EXPECT_EQ(KXValue(716800.0), find(report, "Host/Memory/AvailableBytes"));
  EXPECT_EQ(KXValue(307200.0), find(report, "Host/Memory/UsedBytes"));
  EXPECT_EQ(KXValue(204800.0), find(report, "Host/Memory/FreeBytes"));
  EXPECT_EQ(KXValue(10240.0), find(report, "Host/Memory/BuffersBytes"));
  EXPECT_EQ(KXValue(20480.0), find(report, "Host/Memory/CachedBytes"));
  EXPECT_EQ(KXValue(51200.0), find(report, "Host/Swap/TotalBytes"));
  EXPECT_EQ(KXValue(30720.0), find(report, "Host/Swap/FreeBytes"));
  EXPECT_EQ(KXValue(20480.0), find(report, "Host/Swap/UsedBytes"));
}

TEST_F(Memory, RaisesLowWhenItBeginsAndWhenItEnds) {
  EXPECT_EQ("", readWithAvailable(101));
  EXPECT_EQ("Host/Memory/Low=true", readWithAvailable(100));
  EXPECT_EQ("", readWithAvailable(20));
  EXPECT_EQ("", readWithAvailable(150));
  EXPECT_EQ("Host/Memory/Low=false", readWithAvailable(151));
  EXPECT_EQ("", readWithAvailable(101));
}

TEST_F(Memory, FailsWhileItsSourceCannotBeReadAndIsBackThen) {
  gMachine.openError = ENOENT;
  EXPECT_THROW(readGroup(*mGroup), KXError);
  gMachine.openError = 0;
  EXPECT_EQ(9u, readGroup(*mGroup).values.size());
  gMachine.readError = EIO;
  EXPECT_THROW(readGroup(*mGroup), KXError);
  gMachine.readError = 0;
  EXPECT_EQ(9u, readGroup(*mGroup).values.size());
}

TEST_F(Memory, FailsWhereItsSourceTellsOfNoMemory) {
  gMachine.memoryKiB.clear();

  EXPECT_THROW(readGroup(*mGroup), KXError);
}

TEST_F(Memory, LetsItsSourceGo) {
  {
    auto const group = makeMemoryGroup();
    readGroup(*group);
    EXPECT_EQ(1, gMachine.openCount);
  }
  EXPECT_EQ(0, gMachine.openCount);
}

}  // namespace
}  // namespace KX
