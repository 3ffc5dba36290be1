// Line-by-line messages over a pipe between the agent processes of the demo and the LFIB
// benchmark: one message a line, written whole, read a byte at a time (the lines are few).
#pragma once

#include <unistd.h>

#include <optional>
#include <string>

namespace LineIo {

// Writes `line` and a newline; gives up quietly when the other end has gone.
inline void sendLine(int fd, const std::string& line) {
  std::string all = line + "\n";
  for (size_t done = 0; done < all.size();) {
    ssize_t n = ::write(fd, all.data() + done, all.size() - done);
    if (n <= 0) return;
    done += size_t(n);
  }
}

// Reads one line (blocking), without its newline; nullopt at end of file.
inline std::optional<std::string> readLine(int fd) {
  std::string line;
  char c;
  for (ssize_t n; (n = ::read(fd, &c, 1)) > 0;) {
    if (c == '\n') return line;
    line += c;
  }
  return line.empty() ? std::nullopt : std::optional<std::string>(line);
}

}  // namespace LineIo
