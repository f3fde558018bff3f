#include <memorywatcher/kxmemorywatcheritem.hpp>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include <ka/log.hpp>
#include <ka/os.hpp>
#include <kxvalue/kxvalue.hpp>
#include <tests/memorywatcher/allocations.hpp>
#include <tests/support/temporarydirectory.hpp>

namespace KX {
namespace {

using ka::os::timeval;

std::string contentOf(std::filesystem::path const& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream content;
  content << file.rdbuf();
  return content.str();
}

KXMemoryWatcherItem itemWithTwoSamples(std::string const& fileName = "") {
  KXMemoryWatcherItem item("Device/Head", "Data", fileName);
  item.addData({100, 7}, KXValue(1));
  item.addData({100, 500000}, KXValue("two"));
  return item;
}

KXValue pairOf(int seconds, int microseconds) {
  return KXValue::arrayOf(seconds, microseconds);
}

/// A folder of its own, gone after the test.
class ItemFile : public ::testing::Test {
 protected:
  std::string path() const { return mDirectory.file("out.txt"); }

  testing::TemporaryDirectory const mDirectory;
  std::filesystem::path const mFolder = mDirectory.path();
};

// ---- one sample

TEST(Sample, IsZeroTimeAndInvalidByDefault) {
  KXMemoryWatcherData const sample;

  EXPECT_EQ(sample.mTime.tv_sec, 0);
  EXPECT_EQ(sample.mTime.tv_usec, 0);
  EXPECT_EQ(sample.mValue.getType(), KXValue::TypeInvalid);
}

TEST(Sample, StoresTimeAndValue) {
  KXMemoryWatcherData const sample({3, 4}, KXValue("v"));

  EXPECT_EQ(sample.mTime, (timeval{3, 4}));
  EXPECT_EQ(sample.mValue, KXValue("v"));
}

TEST(Sample, KeepsTimesBeyond32Bits) {
  KXMemoryWatcherData const sample({std::int64_t{1} << 40, std::int64_t{1} << 41}, KXValue());

  EXPECT_EQ(sample.mTime.tv_sec, std::int64_t{1} << 40);
  EXPECT_EQ(sample.mTime.tv_usec, std::int64_t{1} << 41);
}

TEST(Sample, OwnsItsValue) {
  KXValue value(std::vector<KXValue>{KXValue(1)});
  KXMemoryWatcherData const sample({0, 0}, value);

  value[0] = KXValue(2);

  EXPECT_EQ(sample.mValue, KXValue(std::vector<KXValue>{KXValue(1)}));
}

TEST(Sample, CopyConstructionCopiesBothFields) {
  KXMemoryWatcherData const sample({3, 4}, KXValue("v"));
  KXMemoryWatcherData const copy(sample);  // NOLINT(performance-unnecessary-copy-initialization)

  EXPECT_EQ(copy.mTime, (timeval{3, 4}));
  EXPECT_EQ(copy.mValue, KXValue("v"));
}

TEST(Sample, AssignmentCopiesBothFields) {
  KXMemoryWatcherData const sample({3, 4}, KXValue("v"));
  KXMemoryWatcherData copy;

  copy = sample;

  EXPECT_EQ(copy.mTime, (timeval{3, 4}));
  EXPECT_EQ(copy.mValue, KXValue("v"));
  EXPECT_EQ(sample.mValue, KXValue("v"));
}

TEST(Sample, HasAVirtualDestructor) {
  EXPECT_TRUE(std::has_virtual_destructor_v<KXMemoryWatcherData>);
  EXPECT_TRUE(std::has_virtual_destructor_v<KXMemoryWatcherItem>);
}

TEST(SampleText, IsSecondsPointMicrosecondsValue) {
  EXPECT_EQ(KXMemoryWatcherData({100, 500000}, KXValue(1)).toString(), "100.500000;1;");
}

TEST(SampleText, WritesTheFractionWithoutLeadingZeros) {
  EXPECT_EQ(KXMemoryWatcherData({100, 7}, KXValue(1)).toString(), "100.7;1;");
  EXPECT_EQ(KXMemoryWatcherData({100, 5}, KXValue(1)).toString(), "100.5;1;");
  EXPECT_EQ(KXMemoryWatcherData({100, 0}, KXValue(1)).toString(), "100.0;1;");
}

TEST(SampleText, WritesNegativeAndLargeTimesInFull) {
  EXPECT_EQ(KXMemoryWatcherData({-1, 3}, KXValue(1)).toString(), "-1.3;1;");
  EXPECT_EQ(KXMemoryWatcherData({5'000'000'000, 1}, KXValue(1)).toString(), "5000000000.1;1;");
}

TEST(SampleText, RendersTheValueAtVerbosityOne) {
  KXValue const values[] = {KXValue(),
                            KXValue(true),
                            KXValue(-3),
                            KXValue(0.5),
                            KXValue("a \"b\"\n"),
                            KXValue(std::vector<KXValue>{KXValue(1), KXValue("x")}),
                            KXValue::binary("abc")};
  for (KXValue const& value : values) {
    SCOPED_TRACE(value.toString(2));

    EXPECT_EQ(KXMemoryWatcherData({1, 2}, value).toString(), "1.2;" + value.toString(1) + ";");
  }
}

TEST(SampleText, QuotesAText) {
  EXPECT_EQ(KXMemoryWatcherData({1, 2}, KXValue("on")).toString(), "1.2;\"on\";");
}

// ---- one watched key

TEST(Item, IsEmptyAndUnknownByDefault) {
  KXMemoryWatcherItem const item;

  EXPECT_EQ(item.getName(), "");
  EXPECT_EQ(item.getNature(), "Unknown data");
  EXPECT_FALSE(item.writeToFile());  // no file name
  EXPECT_EQ(item.toKXValue(), KXValue(std::vector<KXValue>()));
}

TEST(Item, IsMadeOfNameThenNatureThenFileName) {
  KXMemoryWatcherItem const item("name", "nature", "/nonexistent-folder/file");

  EXPECT_EQ(item.getName(), "name");
  EXPECT_EQ(item.getNature(), "nature");
  EXPECT_EQ(item.toString(), "");
}

TEST(Item, KeepsANewNature) {
  KXMemoryWatcherItem item("name", "Unknown data", "");

  item.setNature("MicroEvent");

  EXPECT_EQ(item.getNature(), "MicroEvent");
  EXPECT_EQ(item.getName(), "name");
}

TEST(Item, TakesAnyNatureAsItIs) {
  for (std::string const nature : {"Event", "MicroEvent", "Unknown data", "event", "", "Data"}) {
    EXPECT_EQ(KXMemoryWatcherItem("name", nature, "").getNature(), nature);
  }
}

TEST(Item, AppendsSamplesOldestFirst) {
  KXValue const samples = itemWithTwoSamples().toKXValue();

  ASSERT_EQ(samples.getSize(), 2);
  EXPECT_EQ(samples[0], KXValue::arrayOf(pairOf(100, 7), KXValue(1)));
  EXPECT_EQ(samples[1], KXValue::arrayOf(pairOf(100, 500000), KXValue("two")));
}

TEST(Item, KeepsArrivalOrderWhenTimeStepsBack) {
  KXMemoryWatcherItem item;
  item.addData({200, 0}, KXValue("first"));
  item.addData({100, 0}, KXValue("second"));

  KXValue const samples = item.toKXValue();

  EXPECT_EQ(samples[0], KXValue::arrayOf(pairOf(200, 0), KXValue("first")));
  EXPECT_EQ(samples[1], KXValue::arrayOf(pairOf(100, 0), KXValue("second")));
}

TEST(Item, KeepsEqualSamples) {
  KXMemoryWatcherItem item;
  for (int i = 0; i < 3; ++i) item.addData({1, 1}, KXValue(5));

  EXPECT_EQ(item.toKXValue().getSize(), 3);
}

TEST(Item, HasNoLimit) {
  constexpr int kCount = 100'000;
  KXMemoryWatcherItem item;

  for (int i = 0; i < kCount; ++i) item.addData({i, 0}, KXValue(i));

  KXValue const samples = item.toKXValue();
  ASSERT_EQ(samples.getSize(), kCount);
  EXPECT_EQ(samples[0][1], KXValue(0));
  EXPECT_EQ(samples[kCount - 1], KXValue::arrayOf(pairOf(kCount - 1, 0), KXValue(kCount - 1)));
}

TEST(Item, ClearDropsSamplesAndKeepsTheRest) {
  KXMemoryWatcherItem item = itemWithTwoSamples();

  item.clear();

  EXPECT_EQ(item.toKXValue(), KXValue(std::vector<KXValue>()));
  EXPECT_EQ(item.getName(), "Device/Head");
  EXPECT_EQ(item.getNature(), "Data");
}

TEST(Item, GrowsAgainAfterClear) {
  KXMemoryWatcherItem item = itemWithTwoSamples();
  item.clear();

  item.addData({101, 1}, KXValue(3));

  KXValue const samples = item.toKXValue();
  ASSERT_EQ(samples.getSize(), 1);
  EXPECT_EQ(samples[0], KXValue::arrayOf(pairOf(101, 1), KXValue(3)));
}

TEST(Item, KeepsItsMemoryAfterClear) {
  KXMemoryWatcherItem item;
  for (int i = 0; i < 100; ++i) item.addData({i, 0}, KXValue(i));
  item.clear();
  std::int64_t const count = Allocations::count();

  for (int i = 0; i < 100; ++i) item.addData({i, 0}, KXValue(i));

  EXPECT_EQ(Allocations::count(), count);
}

TEST(Item, SamplesCanBeTakenOutAndPutBackInFront) {
  KXMemoryWatcherItem item = itemWithTwoSamples();
  KXValue const both = item.toKXValue();

  std::vector<KXMemoryWatcherData> taken = item.takeSamples();
  EXPECT_FALSE(item.hasSamples());
  item.addData({200, 1}, KXValue("later"));
  item.putSamplesInFront(std::move(taken));

  KXValue const samples = item.toKXValue();
  ASSERT_EQ(samples.getSize(), 3);
  EXPECT_EQ(samples[0], both[0]);
  EXPECT_EQ(samples[1], both[1]);
  EXPECT_EQ(samples[2], KXValue::arrayOf(pairOf(200, 1), KXValue("later")));
}

TEST_F(ItemFile, CopyConstructionCopiesAllFourFields) {
  KXMemoryWatcherItem item = itemWithTwoSamples(path());
  KXMemoryWatcherItem const copy(item);

  item.setNature("Event");
  item.clear();

  EXPECT_EQ(copy.getName(), "Device/Head");
  EXPECT_EQ(copy.getNature(), "Data");
  EXPECT_EQ(copy.toString(), "100.7;1;\n100.500000;\"two\";\n");
  EXPECT_TRUE(copy.writeToFile());
  EXPECT_TRUE(std::filesystem::exists(path()));
}

TEST_F(ItemFile, AssignmentCopiesAllFourFields) {
  KXMemoryWatcherItem item = itemWithTwoSamples(path());
  KXMemoryWatcherItem copy("other", "Event", "");
  copy.addData({1, 1}, KXValue("gone"));

  copy = item;
  item.clear();

  EXPECT_EQ(copy.getName(), "Device/Head");
  EXPECT_EQ(copy.getNature(), "Data");
  EXPECT_EQ(copy.toString(), "100.7;1;\n100.500000;\"two\";\n");
  EXPECT_TRUE(copy.writeToFile());
  EXPECT_TRUE(std::filesystem::exists(path()));
}

// ---- value form

TEST(ItemValue, OfNoSamplesIsAnEmptyArray) {
  KXValue const samples = KXMemoryWatcherItem("name", "Data", "").toKXValue();

  EXPECT_EQ(samples.getType(), KXValue::TypeArray);
  EXPECT_EQ(samples.getSize(), 0);
}

TEST(ItemValue, HasEntriesOfAPairOfIntsAndTheValue) {
  KXValue const samples = itemWithTwoSamples().toKXValue();

  for (int i = 0; i < 2; ++i) {
    ASSERT_EQ(samples[i].getType(), KXValue::TypeArray);
    ASSERT_EQ(samples[i].getSize(), 2);
    ASSERT_EQ(samples[i][0].getType(), KXValue::TypeArray);
    ASSERT_EQ(samples[i][0].getSize(), 2);
    EXPECT_EQ(samples[i][0][0].getType(), KXValue::TypeInt);
    EXPECT_EQ(samples[i][0][1].getType(), KXValue::TypeInt);
  }
}

TEST(ItemValue, HoldsValuesOfEveryType) {
  KXValue const values[] = {KXValue(),
                            KXValue(false),
                            KXValue(7),
                            KXValue(0.25),
                            KXValue("t"),
                            KXValue(std::vector<KXValue>{KXValue(), KXValue(1)}),
                            KXValue::binary(std::string("\0\xff", 2))};
  for (KXValue const& value : values) {
    SCOPED_TRACE(value.toString(2));
    KXMemoryWatcherItem item;
    item.addData({1, 2}, value);

    EXPECT_EQ(item.toKXValue()[0][1], value);
  }
}

TEST(ItemValue, CutsTimesToTheirLow32Bits) {
  struct Row {
    std::int64_t time;
    int expected;
  };
  Row const rows[] = {{2147483647, 2147483647},  {2147483648, -2147483647 - 1},
                      {4294967295, -1},          {4294967296, 0},
                      {4294967301, 5},           {-1, -1},
                      {-2147483649, 2147483647}, {(std::int64_t{1} << 40) + 9, 9}};
  for (Row const& row : rows) {
    SCOPED_TRACE(row.time);
    KXMemoryWatcherItem item;
    item.addData({row.time, row.time}, KXValue(1));

    EXPECT_EQ(item.toKXValue()[0][0], pairOf(row.expected, row.expected));
  }
}

TEST(ItemValue, LeavesTheBuffer) {
  KXMemoryWatcherItem const item = itemWithTwoSamples();

  KXValue const first = item.toKXValue();

  EXPECT_EQ(item.toKXValue(), first);
}

TEST(ItemValue, StaysAsItIsWhenTheItemChanges) {
  KXMemoryWatcherItem item = itemWithTwoSamples();
  KXValue const samples = item.toKXValue();

  item.clear();
  item.addData({5, 5}, KXValue(5));

  ASSERT_EQ(samples.getSize(), 2);
  EXPECT_EQ(samples[1][1], KXValue("two"));
}

// ---- text form and file

TEST(ItemText, OfNoSamplesIsEmpty) {
  EXPECT_EQ(KXMemoryWatcherItem("name", "Data", "file").toString(), "");
}

TEST(ItemText, IsOneLinePerSampleWithoutAHead) {
  EXPECT_EQ(itemWithTwoSamples().toString(), "100.7;1;\n100.500000;\"two\";\n");
}

TEST_F(ItemFile, IsNotTouchedWithoutAFileName) {
  std::filesystem::path const former = std::filesystem::current_path();
  std::filesystem::current_path(mFolder);

  EXPECT_FALSE(itemWithTwoSamples("").writeToFile());

  std::filesystem::current_path(former);
  EXPECT_TRUE(std::filesystem::is_empty(mFolder));
}

TEST_F(ItemFile, HoldsTheTextAndOneMoreNewline) {
  EXPECT_TRUE(itemWithTwoSamples(path()).writeToFile());

  EXPECT_EQ(contentOf(path()), "100.7;1;\n100.500000;\"two\";\n\n");
}

TEST_F(ItemFile, OfNoSamplesHoldsOneNewline) {
  EXPECT_TRUE(KXMemoryWatcherItem("name", "Data", path()).writeToFile());

  EXPECT_EQ(contentOf(path()), "\n");
}

TEST_F(ItemFile, IsTruncatedByTheNextWrite) {
  KXMemoryWatcherItem item = itemWithTwoSamples(path());
  ASSERT_TRUE(item.writeToFile());
  item.clear();
  item.addData({1, 1}, KXValue(9));

  EXPECT_TRUE(item.writeToFile());

  EXPECT_EQ(contentOf(path()), "1.1;9;\n\n");
}

TEST_F(ItemFile, KeepsTextsWithPercentSignsAsTheyAre) {
  KXMemoryWatcherItem item("name", "Data", path());
  item.addData({1, 1}, KXValue("%s%n100%"));

  EXPECT_TRUE(item.writeToFile());

  EXPECT_EQ(contentOf(path()), "1.1;\"%s%n100%\";\n\n");
}

TEST_F(ItemFile, WritingLeavesTheBuffer) {
  KXMemoryWatcherItem const item = itemWithTwoSamples(path());

  ASSERT_TRUE(item.writeToFile());

  EXPECT_EQ(item.toKXValue().getSize(), 2);
}

TEST_F(ItemFile, IsWrittenToTheSameFileAfterClear) {
  KXMemoryWatcherItem item = itemWithTwoSamples(path());

  item.clear();

  EXPECT_TRUE(item.writeToFile());
  EXPECT_EQ(contentOf(path()), "\n");
}

TEST_F(ItemFile, ThatCannotBeOpenedGivesFalse) {
  std::string const inNoFolder = (mFolder / "missing" / "out.txt").string();

  EXPECT_NO_THROW(EXPECT_FALSE(itemWithTwoSamples(inNoFolder).writeToFile()));
  EXPECT_FALSE(itemWithTwoSamples(mFolder.string()).writeToFile());  // a folder
  EXPECT_TRUE(std::filesystem::is_empty(mFolder));
}

TEST_F(ItemFile, FailureLogsNothing) {
  int count = 0;
  ka::log::setStderrLevel(0);
  ka::log::addHandler("itemfile", [&](ka::log::Record const&) { ++count; });

  itemWithTwoSamples((mFolder / "missing" / "out.txt").string()).writeToFile();
  itemWithTwoSamples("").writeToFile();

  ka::log::removeHandler("itemfile");
  ka::log::setStderrLevel(ka::log::Warning);
  EXPECT_EQ(count, 0);
}

}  // namespace
}  // namespace KX
