#include <host/bus/kxutctext.hpp>

#include <array>
#include <cstdio>
#include <ctime>

namespace KX {

std::string utcText(std::chrono::system_clock::time_point time) {
  using namespace std::chrono;
  auto const second = floor<seconds>(time);
  std::time_t const seconds = system_clock::to_time_t(second);
  auto const us = static_cast<long>(duration_cast<microseconds>(time - second).count());
  std::tm parts{};
  ::gmtime_r(&seconds, &parts);
  std::array<char, 64> text{};
  std::snprintf(text.data(), text.size(), "%04d-%02d-%02dT%02d:%02d:%02d.%06ldZ",
                parts.tm_year + 1900, parts.tm_mon + 1, parts.tm_mday, parts.tm_hour, parts.tm_min,
                parts.tm_sec, us);
  return text.data();
}

}  // namespace KX
