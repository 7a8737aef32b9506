// The example peers, linked with libdravik-messaging, against the real
// daemon in the sandbox: the calibration block the engine answers and the
// filter that endpoint 2 accepts are what the daemon stores, byte for byte.
//
// The examples and the library come from this build, or from the
// directories named by DRAVIK_EXAMPLES_DIR and DRAVIK_LIBRARY_DIR (CI builds
// the examples against the installed library). Both are reached through
// descriptors opened before the sandbox covers /tmp, where a build may live;
// the examples inherit the library's and load it through /proc/self/fd.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include "harness/child_process.h"
#include "harness/faketime.h"
#include "harness/sandbox.h"
#include "messaging/binary_fifo.h"
#include "peer/frame_codec.h"
#include "peer/pipe_peer.h"
#include "store/service_paths.h"
#include "tests/support/store_files.h"

namespace {

using namespace std::chrono_literals;

// Only a guard against a hung test; no test relies on it.
constexpr std::chrono::milliseconds kGuard{30000};
int daemonFd = -1;
int examplesFd = -1;
int libraryFd = -1;  // inherited by every child

struct Row {
  const char* name;
  const char* example;
  std::vector<std::string> args;
  bool fastClock;                    // the hourly request comes only after 30 minutes
  std::vector<std::string> offered;  // filter files put into incoming/, offered on channel 1
  std::vector<std::pair<std::string, std::string>> stored;  // store file, its bytes
};

const Row kRows[] = {
    {"EngineAnswersCalibration", "calibration_engine", {"engine block"}, true, {},
     {{"/etc/sysconfig/dravik/zek/cal/zekCalibrationDataCH0.bin", "engine block 0"},
      {"/etc/sysconfig/dravik/zek/cal/zekCalibrationDataCH3.bin", "engine block 3"}}},
    {"EndpointAcceptsFilter", "filter_endpoint", {}, false, {"<filter channel=\"1\"/>\n"},
     {{"/etc/sysconfig/dravik/zek/tbe/metadataFilterCH1.xml", "<filter channel=\"1\"/>\n"}}},
};

void PrintTo(const Row& row, std::ostream* out) { *out << row.name; }

class PeerExample : public ::testing::TestWithParam<Row> {};

std::string viaDescriptor(int fd) { return "/proc/self/fd/" + std::to_string(fd); }

bool waitForFile(const std::string& path, const std::string& bytes) {
  for (auto end = std::chrono::steady_clock::now() + kGuard; std::chrono::steady_clock::now() < end;) {
    if (readFile(path) == bytes) return true;
    std::this_thread::sleep_for(20ms);
  }
  return false;
}

TEST_P(PeerExample, StoresWhatItAnswers) {
  const Row& row = GetParam();
  ChildOptions daemonOptions;
  if (row.fastClock) {
    std::string why;
    std::string faketime = fakeTimeLibrary(DRAVIK_DAEMON_SANITIZERS, &why);
    if (faketime.empty()) GTEST_SKIP() << why;
    daemonOptions.environment = {"LD_PRELOAD=" + faketime, "FAKETIME=+0 x1000", "FAKETIME_NO_CACHE=1"};
  }
  ASSERT_TRUE(resetStoreAndPipes());
  ASSERT_EQ(mkdir("/etc/sysconfig/dravik/incoming", 0755), 0);

  std::string why;
  ChildProcess daemon;
  ASSERT_TRUE(daemon.start(daemonFd, "dravik", {"-s", "0"}, daemonOptions, &why)) << why;
  ASSERT_TRUE(waitUntilOpen(daemon.pid(), kCommandFifoPath, kGuard)) << daemon.err();

  int exampleFd = openExecutable(viaDescriptor(examplesFd) + "/" + row.example);
  ASSERT_GE(exampleFd, 0) << "no " << row.example;
  ChildOptions exampleOptions;
  exampleOptions.environment = {"LD_LIBRARY_PATH=" + viaDescriptor(libraryFd)};
  ChildProcess example;
  ASSERT_TRUE(example.start(exampleFd, row.example, row.args, exampleOptions, &why)) << why;
  close(exampleFd);
  ASSERT_TRUE(waitUntilOpen(example.pid(), kNotificationFifoPath, kGuard)) << example.err();

  peer::MailboxWriter client;
  ASSERT_TRUE(client.open(kCommandFifoPath, &why)) << why;
  for (std::size_t i = 0; i < row.offered.size(); ++i) {
    std::string file = "/etc/sysconfig/dravik/incoming/offer" + std::to_string(i) + ".xml";
    writeFile(file, row.offered[i]);
    peer::CatalogueMessage offer("SetAnalyticsFilterDataCommand", {1, file});
    ASSERT_TRUE(client.write(encodeFrame(offer), peer::Deadline::after(10), &why)) << why;
  }
  for (const auto& [path, bytes] : row.stored) {
    EXPECT_TRUE(waitForFile(path, bytes)) << path << " holds \"" << readFile(path).value_or("(nothing)") << "\"\n"
                                          << row.example << ":\n" << example.out() << example.err();
  }
  EXPECT_TRUE(example.running()) << example.err();
}

INSTANTIATE_TEST_SUITE_P(Rows, PeerExample, ::testing::ValuesIn(kRows),
                         [](const ::testing::TestParamInfo<Row>& info) { return std::string(info.param.name); });

}  // namespace

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  if (::testing::GTEST_FLAG(list_tests)) return RUN_ALL_TESTS();
  const char* examples = std::getenv("DRAVIK_EXAMPLES_DIR");
  const char* library = std::getenv("DRAVIK_LIBRARY_DIR");
  if (examples == nullptr) examples = DRAVIK_EXAMPLES_DEFAULT;
  if (library == nullptr) library = DRAVIK_LIBRARY_DEFAULT;
  std::printf("examples from %s, libdravik-messaging from %s\n", examples, library);
  // Opened before the sandbox covers the directories they may be in.
  daemonFd = openExecutable(DRAVIK_BINARY);
  examplesFd = open(examples, O_PATH | O_DIRECTORY | O_CLOEXEC);
  libraryFd = open(library, O_PATH | O_DIRECTORY);
  std::string why;
  if (daemonFd < 0 || examplesFd < 0 || libraryFd < 0) {
    std::fprintf(stderr, "cannot open %s, %s or %s\n", DRAVIK_BINARY, examples, library);
    return 1;
  }
  if (!sandbox::enter(&why)) {
    std::fprintf(stderr, "cannot run dravik in a private sandbox: %s\n", why.c_str());
    return 1;
  }
  return RUN_ALL_TESTS();
}
