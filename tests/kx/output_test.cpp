#include <kx/output.hpp>

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/socket.h>
#include <unistd.h>
#include <csignal>

#include <algorithm>
#include <chrono>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace KX::tool {
namespace {

using namespace std::chrono_literals;

/// What is written to one end comes out of the other; nothing is lost in between.
struct Channel {
  int write = -1;
  int read = -1;
};

Channel pipeOf(int flags) {
  int ends[2];
  if (pipe2(ends, flags) != 0) throw std::runtime_error("no pipe");
  return {ends[1], ends[0]};
}

Channel socketPair() {
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) throw std::runtime_error("no sockets");
  return {ends[1], ends[0]};
}

Channel terminal() {
  Channel channel;
  termios raw{};
  cfmakeraw(&raw);
  if (openpty(&channel.read, &channel.write, nullptr, &raw, nullptr) != 0) {
    throw std::runtime_error("no terminal");
  }
  return channel;
}

struct Kind {
  char const* name;
  std::function<Channel()> make;
};

std::vector<Kind> const kKinds{{"pipe",
                                [] {
                                  return pipeOf(0);
                                }},
                               {"pipe that does not block",
                                [] {
                                  return pipeOf(O_NONBLOCK);
                                }},
                               {"socket", socketPair},
                               {"terminal", terminal}};

// Larger than what any of them holds.
std::string manyLines() {
  std::string text;
  for (int i = 0; text.size() < 2'000'000; ++i) text += std::to_string(i) + '\n';
  return text;
}

std::string readAll(int descriptor, std::size_t size) {
  std::string text;
  char buffer[4096];
  while (text.size() < size) {
    pollfd waited{descriptor, POLLIN, 0};
    if (poll(&waited, 1, 30'000) <= 0) break;
    ssize_t const count = read(descriptor, buffer, sizeof buffer);
    if (count <= 0) break;
    text.append(buffer, static_cast<std::size_t>(count));
  }
  return text;
}

// KXStop takes the signals for the process; the other tests want them back.
class Writing : public ::testing::Test {
 protected:
  Writing() {
    pthread_sigmask(SIG_SETMASK, nullptr, &mFormerMask);
    mFormerPipe = std::signal(SIGPIPE, SIG_IGN);
    mStop.emplace();
  }
  ~Writing() override {
    mStop.reset();
    pthread_sigmask(SIG_SETMASK, &mFormerMask, nullptr);
    std::signal(SIGPIPE, mFormerPipe);
  }
  KXStop const& stop() const { return *mStop; }

 private:
  sigset_t mFormerMask{};
  void (*mFormerPipe)(int) = nullptr;
  std::optional<KXStop> mStop;
};

class Ends {
 public:
  explicit Ends(Channel channel) : mChannel(channel) {}
  ~Ends() {
    closeReader();
    close(mChannel.write);
  }
  Ends(Ends const&) = delete;
  Ends& operator=(Ends const&) = delete;
  Channel const* operator->() const { return &mChannel; }
  void closeReader() {
    if (mChannel.read >= 0) close(mChannel.read);
    mChannel.read = -1;
  }

 private:
  Channel mChannel;
};

TEST_F(Writing, WaitsForASlowReader) {
  std::string const text = manyLines();
  for (Kind const& kind : kKinds) {
    SCOPED_TRACE(kind.name);
    Ends const ends(kind.make());
    KXOutput output(ends->write, stop());
    std::string got;
    std::thread reader([&] { got = readAll(ends->read, text.size()); });

    output.write(text);
    bool const isAllWritten = output.finish();
    reader.join();

    EXPECT_TRUE(isAllWritten);
    EXPECT_TRUE(text == got);
  }
}

TEST_F(Writing, KeepsWhatIsNotReadInTimeForLater) {
  std::string const text = manyLines();
  for (Kind const& kind : kKinds) {
    SCOPED_TRACE(kind.name);
    Ends const ends(kind.make());
    KXOutput output(ends->write, stop());

    output.write(text, std::chrono::steady_clock::now());
    output.write("last\n", std::chrono::steady_clock::now());
    std::string got;
    std::thread reader([&] { got = readAll(ends->read, text.size() + 5); });
    bool const isAllWritten = output.finish();
    reader.join();

    EXPECT_TRUE(isAllWritten);
    EXPECT_TRUE(text + "last\n" == got);
  }
}

TEST_F(Writing, TellsHowManyLinesNobodyRead) {
  std::string const text = manyLines();
  auto const lines = std::count(text.begin(), text.end(), '\n');
  for (Kind const& kind : kKinds) {
    SCOPED_TRACE(kind.name);
    Ends const ends(kind.make());
    KXOutput output(ends->write, stop());
    output.write(text, std::chrono::steady_clock::now());

    ::testing::internal::CaptureStderr();
    bool const isAllWritten = output.finish();
    std::string const said = ::testing::internal::GetCapturedStderr();

    EXPECT_FALSE(isAllWritten);
    EXPECT_FALSE(output.finish());
    // Those that arrived whole, and those that were lost: all of them.
    fcntl(ends->read, F_SETFL, O_NONBLOCK);
    std::string got;
    char buffer[4096];
    for (ssize_t count; (count = read(ends->read, buffer, sizeof buffer)) > 0;) {
      got.append(buffer, static_cast<std::size_t>(count));
    }
    auto const arrived = std::count(got.begin(), got.end(), '\n');
    EXPECT_GT(arrived, 0);
    EXPECT_EQ("kx: nobody reads stdout: " + std::to_string(lines - arrived) + " lines were lost\n",
              said);
  }
}

TEST_F(Writing, IsDroppedQuietlyWhenTheReaderGoes) {
  for (Kind const& kind : kKinds) {
    if (std::string(kind.name) == "terminal") continue;  // one that hangs up is an error
    SCOPED_TRACE(kind.name);
    Ends ends(kind.make());
    KXOutput output(ends->write, stop());
    ends.closeReader();

    output.write("text\n");

    EXPECT_TRUE(output.finish());
    EXPECT_TRUE(output.isClosed());
  }
}

TEST_F(Writing, GivesUpAtTheWishToEnd) {
  Ends const ends(pipeOf(0));
  KXOutput output(ends->write, stop());
  pthread_kill(pthread_self(), SIGTERM);  // pending, since it is blocked

  output.write(manyLines());

  ::testing::internal::CaptureStderr();
  EXPECT_FALSE(output.finish());
  ::testing::internal::GetCapturedStderr();
  sigset_t term;
  sigemptyset(&term);
  sigaddset(&term, SIGTERM);
  int taken = 0;
  sigwait(&term, &taken);
  EXPECT_EQ(SIGTERM, taken);
}

}  // namespace
}  // namespace KX::tool
