// What every fuzz target needs: the console and syslog silenced, so that the
// reports of refused input cost nothing and hide nothing of libFuzzer's own.
#ifndef DRAVIK_FUZZ_FUZZ_SUPPORT_H_
#define DRAVIK_FUZZ_FUZZ_SUPPORT_H_

#include <iostream>
#include <streambuf>
#include <string>

#include "messaging/system_log.h"

// Accepts and drops everything, and never turns the stream bad.
class NullBuffer : public std::streambuf {
 protected:
  int_type overflow(int_type c) override { return traits_type::not_eof(c); }
  std::streamsize xsputn(const char*, std::streamsize n) override { return n; }
};

inline void dropLogLine(int, const std::string&) {}

// Call once, from the first input.
inline bool silenceOutput() {
  static NullBuffer null;
  std::cout.rdbuf(&null);
  std::cerr.rdbuf(&null);
  systemlog::redirect(dropLogLine);
  return true;
}

#endif  // DRAVIK_FUZZ_FUZZ_SUPPORT_H_
