// The groups that read files themselves, on machines made of files.

#include <gtest/gtest.h>

#include <kxerror/kxerror.hpp>
#include <modules/hostsensors/kxmachinefiles.hpp>
#include <modules/hostsensors/kxmachinegroups.hpp>

#include "fakeroot.hpp"

namespace KX {
namespace {

using testing::FakeRoot;
using testing::find;
using testing::readGroup;

std::string diskLine(std::string const& name, int reads, int readSectors, int writes,
                     int writtenSectors, int inProgress, int busyMs) {
  auto const text = [](int number) {
    return " " + std::to_string(number);
  };
  return " 254 0 " + name + text(reads) + " 1" + text(readSectors) + " 2" + text(writes) + " 3" +
         text(writtenSectors) + " 4" + text(inProgress) + text(busyMs) + " 5 0 0 0 0 0 0\n";
}

std::string netLine(std::string const& name, int received, int sent) {
  auto const side = [](int bytes) {
    return " " + std::to_string(bytes) + " " + std::to_string(bytes / 10) + " 3 4 0 0 0 0";
  };
  return name + ":" + side(received) + side(sent) + "\n";
}

constexpr char kNetTitle[] =
    "Inter-|   Receive                        |  Transmit\n"
    " face |bytes packets errs drop fifo frame compressed multicast|bytes packets errs drop\n";

TEST(MachineFiles, NameThePathAndTheCauseWhenUnreadable) {
  FakeRoot const root;

  try {
    readMachineFile(root.path() + "/proc/net/dev");
    FAIL();
  } catch (KXError const& error) {
    EXPECT_EQ("cannot read '" + root.path() + "/proc/net/dev': No such file or directory",
              std::string(error.what()));
  }
}

TEST(MachineFiles, AreReadWhateverTheirLength) {
  FakeRoot const root;
  for (std::size_t const size : {0u, 1u, 4095u, 4096u, 4097u, 100000u}) {
    SCOPED_TRACE(size);
    root.write("file", std::string(size, 'x'));
    EXPECT_EQ(std::string(size, 'x'), readMachineFile(root.path() + "/file"));
  }
}

TEST(MachineFiles, GiveNumbersOnlyWhereThereAreSome) {
  FakeRoot const root;
  root.write("number", "-27800\n");
  root.write("text", "soon\n");
  root.write("empty", "");

  EXPECT_EQ(-27800, tryReadMachineNumber(root.path() + "/number"));
  EXPECT_EQ(std::nullopt, tryReadMachineNumber(root.path() + "/text"));
  EXPECT_EQ(std::nullopt, tryReadMachineNumber(root.path() + "/empty"));
  EXPECT_EQ(std::nullopt, tryReadMachineNumber(root.path() + "/missing"));
}

TEST(CpuInfo, GivesTheFrequencyOfEachProcessor) {
  auto const frequencies = parseCpuInfo(
      "processor\t: 0\nmodel name\t: X\ncpu MHz\t\t: 2445.424\n\n"
      "processor\t: 3\ncpu MHz\t\t: 800.000\n");

  EXPECT_EQ((std::map<int, double>{{0, 2445.424}, {3, 800.0}}), frequencies);
}

TEST(CpuInfo, IsEmptyWhereTheKernelTellsNoFrequency) {
  EXPECT_TRUE(parseCpuInfo("processor\t: 0\nBogoMIPS\t: 48.00\n").empty());
  EXPECT_TRUE(parseCpuInfo("cpu MHz\t\t: 800.000\n").empty());
  EXPECT_TRUE(parseCpuInfo("processor\t:\ncpu MHz\t\t: soon\n").empty());
  EXPECT_TRUE(parseCpuInfo("processor\ncpu MHz\n").empty());
}

TEST(FrequencyGroup, PrefersWhatTheDriverSays) {
  FakeRoot const root;
  root.write("proc/cpuinfo", "processor: 0\ncpu MHz: 1000\nprocessor: 1\ncpu MHz: 1100\n");
  root.write("sys/devices/system/cpu/cpu1/cpufreq/scaling_cur_freq", "2500000\n");
  root.makeFolder("sys/devices/system/cpu/cpufreq");
  root.makeFolder("sys/devices/system/cpu/cpu0");
  auto const group = makeFrequencyGroup(root.path());

  KXMachineReport const report = readGroup(*group);

  EXPECT_EQ(2u, report.values.size());
  EXPECT_EQ(KXValue(1000.0), find(report, "Host/Cpu/0/FrequencyMHz"));
  EXPECT_EQ(KXValue(2500.0), find(report, "Host/Cpu/1/FrequencyMHz"));
}

TEST(FrequencyGroup, FailsWhereNoProcessorTells) {
  FakeRoot const root;
  auto const group = makeFrequencyGroup(root.path());

  EXPECT_THROW(readGroup(*group), KXError);
}

TEST(DiskStats, LeaveOutLinesThatAreNotWellFormed) {
  EXPECT_TRUE(parseDiskStats("").empty());
  EXPECT_TRUE(parseDiskStats("254 0 vda 1 2 3\n\nhello\n").empty());
  EXPECT_TRUE(parseDiskStats(" 254 0 vda 1 2 3 4 5 6 7 8 9 ten 11\n").empty());
  EXPECT_EQ(1u, parseDiskStats(" 254 0 vda 1 2 3 4 5 6 7 8 9 10 11").size());
}

TEST(DiskGroup, PublishesCountersAndRatesInBytes) {
  FakeRoot const root;
  root.makeFolder("sys/block/vda");
  root.write("proc/diskstats", diskLine("vda", 10, 100, 20, 200, 3, 1000));
  auto const group = makeDiskGroup(root.path());

  KXMachineReport const first = readGroup(*group, 0);
  root.write("proc/diskstats", diskLine("vda", 14, 108, 25, 210, 0, 1100));
  KXMachineReport const second = readGroup(*group, 500);

  EXPECT_EQ(KXValue(10.0), find(first, "Host/Disk/vda/Reads"));
  EXPECT_EQ(KXValue(51200.0), find(first, "Host/Disk/vda/ReadBytes"));
  EXPECT_EQ(KXValue(), find(first, "Host/Disk/vda/ReadBytesPerSecond"));
  EXPECT_EQ(KXValue(), find(first, "Host/Disk/vda/BusyPercent"));
  EXPECT_EQ(KXValue(3), find(first, "Host/Disk/vda/RequestsInProgress"));
  EXPECT_EQ(KXValue(8.0), find(second, "Host/Disk/vda/ReadsPerSecond"));
  EXPECT_EQ(KXValue(8192.0), find(second, "Host/Disk/vda/ReadBytesPerSecond"));
  EXPECT_EQ(KXValue(25.0), find(second, "Host/Disk/vda/Writes"));
  EXPECT_EQ(KXValue(10.0), find(second, "Host/Disk/vda/WritesPerSecond"));
  EXPECT_EQ(KXValue(107520.0), find(second, "Host/Disk/vda/WrittenBytes"));
  EXPECT_EQ(KXValue(10240.0), find(second, "Host/Disk/vda/WrittenBytesPerSecond"));
  EXPECT_EQ(KXValue(20.0), find(second, "Host/Disk/vda/BusyPercent"));
}

TEST(DiskGroup, IsBusyFor100PercentAtMost) {
  FakeRoot const root;
  root.makeFolder("sys/block/vda");
  root.write("proc/diskstats", diskLine("vda", 1, 0, 0, 0, 0, 0));
  auto const group = makeDiskGroup(root.path());

  readGroup(*group, 0);
  root.write("proc/diskstats", diskLine("vda", 1, 0, 0, 0, 0, 900));

  EXPECT_EQ(KXValue(100.0), find(readGroup(*group, 100), "Host/Disk/vda/BusyPercent"));
}

TEST(DiskGroup, HasNoRateAtFirstWhenADiskIsBack) {
  FakeRoot const root;
  root.makeFolder("sys/block/sda");
  root.write("proc/diskstats", diskLine("sda", 10, 0, 0, 0, 0, 0));
  auto const group = makeDiskGroup(root.path());
  readGroup(*group, 0);
  root.write("proc/diskstats", "");
  readGroup(*group, 100);

  root.write("proc/diskstats", diskLine("sda", 900, 0, 0, 0, 0, 0));

  EXPECT_EQ(KXValue(), find(readGroup(*group, 200), "Host/Disk/sda/ReadsPerSecond"));
}

TEST(DiskGroup, LeavesOutPartitionsAndDisksNeverUsed) {
  FakeRoot const root;
  for (char const* const disk : {"vda", "loop0", "cciss!c0d0"}) {
    root.makeFolder(std::string("sys/block/") + disk);
  }
  root.write("proc/diskstats",
             diskLine("vda", 1, 1, 1, 1, 0, 1) + diskLine("vda1", 1, 1, 1, 1, 0, 1) +
                 diskLine("loop0", 0, 0, 0, 0, 0, 0) + diskLine("cciss/c0d0", 0, 0, 1, 1, 0, 1));
  auto const group = makeDiskGroup(root.path());

  KXMachineReport const report = readGroup(*group);

  EXPECT_EQ(20u, report.values.size());
  EXPECT_TRUE(find(report, "Host/Disk/vda/Reads"));
  EXPECT_TRUE(find(report, "Host/Disk/cciss_c0d0/Reads"));
}

TEST(DiskGroup, FailsWithoutItsSource) {
  FakeRoot const root;
  auto const group = makeDiskGroup(root.path());

  EXPECT_THROW(readGroup(*group), KXError);
}

TEST(NetDev, LeavesOutLinesThatAreNotWellFormed) {
  EXPECT_TRUE(parseNetDev(kNetTitle).empty());
  EXPECT_TRUE(parseNetDev("eth0: 1 2 3\n: 1 2\nhello\n").empty());
  EXPECT_TRUE(parseNetDev("eth 0:" + netLine("", 1, 1).substr(1)).empty());
}

TEST(NetDev, FindsNamesWithAndWithoutABlankBehindThem) {
  auto const interfaces = parseNetDev(kNetTitle + netLine("    lo", 10, 20) +
                                      "eth0:1 2 3 4 0 0 0 0 "
                                      "5 6 7 8 0 0 0 0\n" +
                                      netLine("eth0:1", 30, 40));

  ASSERT_EQ(3u, interfaces.size());
  EXPECT_EQ("lo", interfaces[0].name);
  EXPECT_EQ(20u, interfaces[0].sent.bytes);
  EXPECT_EQ("eth0", interfaces[1].name);
  EXPECT_EQ(1u, interfaces[1].received.bytes);
  EXPECT_EQ(2u, interfaces[1].received.packets);
  EXPECT_EQ(3u, interfaces[1].received.errors);
  EXPECT_EQ(4u, interfaces[1].received.dropped);
  EXPECT_EQ(8u, interfaces[1].sent.dropped);
  EXPECT_EQ("eth0:1", interfaces[2].name);
}

TEST(NetworkGroup, PublishesCountersAndRates) {
  FakeRoot const root;
  root.write("proc/net/dev", kNetTitle + netLine("eth0", 1000, 50));
  auto const group = makeNetworkGroup(root.path());

  KXMachineReport const first = readGroup(*group, 0);
  root.write("proc/net/dev", kNetTitle + netLine("eth0", 1400, 100));
  KXMachineReport const second = readGroup(*group, 200);

  EXPECT_EQ(KXValue(1000.0), find(first, "Host/Network/eth0/ReceivedBytes"));
  EXPECT_EQ(KXValue(), find(first, "Host/Network/eth0/ReceivedBytesPerSecond"));
  EXPECT_EQ(KXValue(3.0), find(first, "Host/Network/eth0/ReceivedErrors"));
  EXPECT_EQ(KXValue(4.0), find(first, "Host/Network/eth0/SentDropped"));
  EXPECT_EQ(KXValue(2000.0), find(second, "Host/Network/eth0/ReceivedBytesPerSecond"));
  EXPECT_EQ(KXValue(200.0), find(second, "Host/Network/eth0/ReceivedPacketsPerSecond"));
  EXPECT_EQ(KXValue(250.0), find(second, "Host/Network/eth0/SentBytesPerSecond"));
  EXPECT_EQ(KXValue(10.0), find(second, "Host/Network/eth0/SentPackets"));
}

TEST(NetworkGroup, HasNoRateAtFirstWhenAnInterfaceIsBack) {
  FakeRoot const root;
  root.write("proc/net/dev", kNetTitle + netLine("eth0", 1000, 50));
  auto const group = makeNetworkGroup(root.path());
  readGroup(*group, 0);
  root.write("proc/net/dev", kNetTitle);
  readGroup(*group, 100);

  root.write("proc/net/dev", kNetTitle + netLine("eth0", 9000, 50));

  EXPECT_EQ(KXValue(), find(readGroup(*group, 200), "Host/Network/eth0/ReceivedBytesPerSecond"));
}

/// A machine whose network the test plugs and unplugs.
class Link : public ::testing::Test {
 protected:
  Link() { write("eth0"); }
  void write(std::string const& interface) {
    mRoot.write("proc/net/dev", kNetTitle + (interface.empty() ? "" : netLine(interface, 1, 1)));
    mRoot.makeFolder("sys/class/net/" + interface);
  }
  void setCarrier(std::string const& text) { mRoot.write("sys/class/net/eth0/carrier", text); }
  std::string read() {
    std::string events;
    mReport = readGroup(*mGroup);
    for (KXMachineEvent const& event : mReport.events) {
      EXPECT_FALSE(event.isMicroEvent);
      events += event.key + event.value.toString(1);
    }
    return events;
  }

  FakeRoot mRoot;
  std::unique_ptr<KXMachineGroup> const mGroup = makeNetworkGroup(mRoot.path());
  KXMachineReport mReport;
};

TEST_F(Link, IsUpWithACarrier) {
  setCarrier("1\n");
  read();
  EXPECT_EQ(KXValue(true), find(mReport, "Host/Network/eth0/LinkUp"));
  setCarrier("0\n");
  read();
  EXPECT_EQ(KXValue(false), find(mReport, "Host/Network/eth0/LinkUp"));
}

TEST_F(Link, IsDownWhereTheCarrierCannotBeRead) {
  read();

  EXPECT_EQ(KXValue(false), find(mReport, "Host/Network/eth0/LinkUp"));
}

TEST_F(Link, IsUnknownWithoutSys) {
  mRoot.remove("sys");

  EXPECT_EQ("", read());
  EXPECT_EQ(std::nullopt, find(mReport, "Host/Network/eth0/LinkUp"));
  EXPECT_EQ(KXValue(1.0), find(mReport, "Host/Network/eth0/SentBytes"));
}

TEST_F(Link, RaisesNoEventAtTheFirstReading) {
  setCarrier("1\n");

  EXPECT_EQ("", read());
}

TEST_F(Link, RaisesAnEventWhenItGoesAndWhenItComes) {
  setCarrier("1\n");
  read();

  setCarrier("0\n");
  EXPECT_EQ(R"(Host/Network/LinkChanged["eth0",false])", read());
  EXPECT_EQ("", read());
  setCarrier("1\n");
  EXPECT_EQ(R"(Host/Network/LinkChanged["eth0",true])", read());
  EXPECT_EQ("", read());
}

TEST_F(Link, RaisesAnEventWhenItsInterfaceIsUnpluggedAndPlugged) {
  setCarrier("1\n");
  read();

  write("");
  EXPECT_EQ(R"(Host/Network/LinkChanged["eth0",false])", read());
  EXPECT_TRUE(mReport.values.empty());
  write("eth0");
  EXPECT_EQ(R"(Host/Network/LinkChanged["eth0",true])", read());
}

TEST_F(Link, RaisesNoEventForAnInterfaceThatComesAndGoesWithoutALink) {
  read();

  write("");
  EXPECT_EQ("", read());
  write("eth0");
  EXPECT_EQ("", read());
}

TEST(NetworkGroup, FailsWithoutItsSource) {
  FakeRoot const root;
  auto const group = makeNetworkGroup(root.path());

  EXPECT_THROW(readGroup(*group), KXError);
}

}  // namespace
}  // namespace KX
