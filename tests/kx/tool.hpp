// The real kx, run as a child, and readers for what it prints. For one thread of a test.
#pragma once

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <tests/support/childprocess.hpp>

namespace KX::testing {

inline std::string toolPath() {
  return KX_BIN_DIR "/kx";
}

struct ToolResult {
  int exitCode;
  std::string output;
  std::string errors;
};

inline ToolResult resultOf(ChildProcess& child) {
  int const exitCode = child.waitForEnd();
  return {exitCode, child.getOutput(), child.getErrors()};
}

inline ToolResult runTool(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), toolPath());
  ChildProcess child(std::move(arguments));
  return resultOf(child);
}

/// The command line of a shell, `kx` being the tool.
inline ToolResult runShell(std::string const& commandLine) {
  ChildProcess child({"/bin/sh", "-c", commandLine}, {{"kx", toolPath()}});
  return resultOf(child);
}

/// The same on a terminal of its own, whose lines end in "\r\n".
inline ToolResult runOnTerminal(std::string const& commandLine, int columns, int rows) {
  std::string const size =
      "stty cols " + std::to_string(columns) + " rows " + std::to_string(rows) + "; ";
  ChildProcess child({"/usr/bin/script", "-qec", size + commandLine, "/dev/null"},
                     {{"kx", toolPath()}, {"TERM", "xterm"}});
  return resultOf(child);
}

inline std::vector<std::string> linesOf(std::string_view text) {
  std::vector<std::string> lines;
  while (!text.empty()) {
    std::size_t const end = text.find('\n');
    if (end == std::string_view::npos) throw std::runtime_error("the last line has no end");
    lines.emplace_back(text.substr(0, end));
    text.remove_prefix(end + 1);
  }
  return lines;
}

/// The lines that the tool itself wrote to stderr, without those of the log.
inline std::vector<std::string> messagesOf(ToolResult const& result) {
  std::vector<std::string> messages;
  for (std::string const& line : linesOf(result.errors)) {
    if (line.starts_with("kx: ")) messages.push_back(line);
  }
  return messages;
}

/// Reads CSV by RFC 4180, with a line feed alone as line end, and refuses what is not in it.
inline std::vector<std::vector<std::string>> readCsv(std::string_view text) {
  std::vector<std::vector<std::string>> rows;
  std::size_t at = 0;
  auto const fail = [&](char const* what) {
    throw std::runtime_error(std::string(what) + " at byte " + std::to_string(at));
  };
  while (at < text.size()) {
    std::vector<std::string>& row = rows.emplace_back();
    for (bool isRowOpen = true; isRowOpen;) {
      std::string& cell = row.emplace_back();
      if (at < text.size() && text[at] == '"') {
        for (++at;; ++at) {
          if (at >= text.size()) fail("open quotes");
          if (text[at] != '"') {
            cell += text[at];
          } else if (at + 1 < text.size() && text[at + 1] == '"') {
            cell += text[at++];
          } else {
            break;
          }
        }
        ++at;
      } else {
        for (; at < text.size() && text[at] != ',' && text[at] != '\n'; ++at) {
          if (text[at] == '"' || text[at] == '\r')
            fail("a quote or carriage return in a bare cell");
          cell += text[at];
        }
      }
      if (at >= text.size()) fail("no line end");
      if (text[at] != ',' && text[at] != '\n') fail("text behind closing quotes");
      isRowOpen = text[at++] == ',';
    }
    if (row.size() != rows.front().size()) fail("a row of another length");
  }
  return rows;
}

/// What the tool once printed and shall go on printing: a file of tests/kx/golden.
inline std::string goldenOf(std::string const& name) {
  std::ifstream file(KX_SOURCE_DIR "/tests/kx/golden/" + name);
  if (!file) throw std::runtime_error("no golden file " + name);
  std::ostringstream content;
  content << file.rdbuf();
  return content.str();
}

}  // namespace KX::testing
