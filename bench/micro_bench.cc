// Micro-benchmarks of the transport's per-message work, without pipes or
// syslog: framing a 52-byte request and a 65,540-byte calibration frame
// (payload 65,536, the largest) with BinaryOutputFifo::send, reading and
// decoding the same frames with BinaryInputFifo::getMessage, decoding the
// message alone, and the daemon's encoding of its 101-byte answer.
//
// The writer's target is /dev/null and the reader's a file of frames, so a
// write or read system call stays in each figure; BM_WriteDevNull gives the
// write alone. Log lines go to a sink that drops them.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include "bench/peer_messages.h"
#include "messaging/binary_fifo.h"
#include "messaging/memory_stream.h"
#include "messaging/system_log.h"
#include "store/service_messages.h"
#include "store/store_layout.h"

namespace {

void dropLine(int, const std::string&) {}

// The daemon registers its classes in translation units that only the daemon
// links whole.
struct Setup {
  Setup() {
    systemlog::redirect(dropLine);
    registerSelector(kGetAnalyticsFilterDataSelector, newMessage<GetAnalyticsFilterDataRequest>);
    registerSelector(kCalibrationDataResponseSelector, newMessage<CalibrationDataResponse>);
  }
};
const Setup setup;

// A temporary directory for the frame files, removed at exit.
class Scratch {
 public:
  Scratch() {
    const char* base = getenv("TMPDIR");
    std::string pattern = std::string(base != nullptr ? base : "/tmp") + "/dravik-micro.XXXXXX";
    if (mkdtemp(&pattern[0]) != nullptr) path_ = pattern;
  }
  ~Scratch() {
    if (!path_.empty()) std::filesystem::remove_all(path_);
  }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

std::string scratchDirectory() {
  static Scratch scratch;
  return scratch.path();
}

FilterPathRequest makeRequest() {
  FilterPathRequest request;
  request.sender = 7;
  request.recipient = 13;
  request.responseSelector = 13003;
  request.channel = 3;
  return request;
}

std::unique_ptr<CalibrationAnswer> makeCalibration() {
  auto answer = std::make_unique<CalibrationAnswer>();
  answer->sender = 11;
  answer->recipient = 13;
  answer->correlationId = 999999;
  std::string block(kCalibrationBlockSize, '\x5a');
  answer->calibrationData.assign(block.data(), kCalibrationBlockSize);
  return answer;
}

// `copies` frames of `message`, framed by the library, in a file.
std::string frameFile(const BinaryMessage& message, int copies, const char* name) {
  std::string path = scratchDirectory() + "/" + name;
  FrameRecorder recorder(path);
  for (int i = 0; i < copies; ++i) recorder.add(message);
  return path;
}

BinaryOutputFifo& devNull() {
  static BinaryOutputFifo* out = [] {
    auto* fifo = new BinaryOutputFifo("/dev/null");
    fifo->open();
    return fifo;
  }();
  return *out;
}

void BM_FrameRequest52(benchmark::State& state) {
  FilterPathRequest request = makeRequest();
  for (auto _ : state) devNull().send(request);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kRequestFrameSize));
}
BENCHMARK(BM_FrameRequest52);

void BM_FrameCalibration65536(benchmark::State& state) {
  auto answer = makeCalibration();
  for (auto _ : state) devNull().send(*answer);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kCalibrationFrameSize));
}
BENCHMARK(BM_FrameCalibration65536);

void BM_WriteDevNull(benchmark::State& state) {
  std::string bytes(static_cast<std::size_t>(state.range(0)), '\0');
  int fd = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
  for (auto _ : state) benchmark::DoNotOptimize(::write(fd, bytes.data(), bytes.size()));
  ::close(fd);
}
BENCHMARK(BM_WriteDevNull)->Arg(kRequestFrameSize)->Arg(kCalibrationFrameSize);

// getMessage over a file of `copies` frames, reopened before it runs dry.
// The stream is opened as BinaryInputFifo::open() does, without its console
// line.
void readFrames(benchmark::State& state, const std::string& path, int copies, int32_t selector) {
  BinaryInputFifo in(path.c_str());
  in.stream.exceptions(std::ios::badbit | std::ios::failbit);
  in.stream.open(path.c_str());
  in.stream.clear();
  int left = copies;
  for (auto _ : state) {
    if (left == 0) {
      in.stream.close();
      in.stream.open(path.c_str());
      in.stream.clear();
      left = copies;
    }
    BinaryMessage* message = in.getMessage();
    --left;
    if (message == nullptr || message == notGoodResult<BinaryMessage>() || message->getSelector() != selector) {
      state.SkipWithError("frame not decoded");
      break;
    }
    delete message;
  }
}

void BM_ReadDecodeRequest52(benchmark::State& state) {
  constexpr int kCopies = 4096;
  static const std::string path = frameFile(makeRequest(), kCopies, "requests");
  readFrames(state, path, kCopies, kGetAnalyticsFilterDataSelector);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kRequestFrameSize));
}
BENCHMARK(BM_ReadDecodeRequest52);

void BM_ReadDecodeCalibration65536(benchmark::State& state) {
  constexpr int kCopies = 64;
  static const std::string path = frameFile(*makeCalibration(), kCopies, "calibration");
  readFrames(state, path, kCopies, kCalibrationDataResponseSelector);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kCalibrationFrameSize));
}
BENCHMARK(BM_ReadDecodeCalibration65536);

// The registry's class decoding a payload from memory: no frame, no copy of
// the argument block for the report.
void decodeOnly(benchmark::State& state, const BinaryMessage& message, int32_t selector) {
  std::string frames = [&] {
    std::string path = frameFile(message, 1, "one");
    std::ifstream in(path, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  }();
  for (auto _ : state) {
    MemoryInputBuffer buffer(frames.data() + 4, frames.size() - 4);
    std::istream payload(&buffer);
    bistream decoder(payload);
    std::unique_ptr<BinaryMessage> decoded(createMessage(selector, decoder));
    benchmark::DoNotOptimize(decoded.get());
  }
}

void BM_DecodeOnlyRequest52(benchmark::State& state) {
  decodeOnly(state, makeRequest(), kGetAnalyticsFilterDataSelector);
}
BENCHMARK(BM_DecodeOnlyRequest52);

void BM_DecodeOnlyCalibration65536(benchmark::State& state) {
  decodeOnly(state, *makeCalibration(), kCalibrationDataResponseSelector);
}
BENCHMARK(BM_DecodeOnlyCalibration65536);

// What the daemon does for a GetAnalyticsFilterDataRequest once decoded:
// build the response, encode it (the path and its log line are made while
// encoding) and write the 101-byte frame.
void BM_EncodeResponse101(benchmark::State& state) {
  BinaryMessage::notificationOutput = &devNull();
  BinaryMessage::defaultSender = 13;
  GetAnalyticsFilterDataRequest request;
  request.sender = 7;
  request.responseSelector = 13003;
  request.channel = 3;
  for (auto _ : state) request.Process();
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kAnswerFrameSize));
}
BENCHMARK(BM_EncodeResponse101);

// The part of the above that composes the log line in a string stream.
void BM_LogLineCompose(benchmark::State& state) {
  std::string path = "/etc/sysconfig/dravik/zek/tbe/metadataFilterCH3.xml";
  for (auto _ : state) LogLine(LOG_INFO) << "Sending get CH=" << 3 << " " << path;
}
BENCHMARK(BM_LogLineCompose);

// The store's file work for one calibration block (the log lines aside)
// against the same bytes written with plain system calls, in the scratch
// directory (tmpfs when TMPDIR or /tmp is one).
void BM_StoreCalibrationFile(benchmark::State& state) {
  std::string path = scratchDirectory() + "/store.bin";
  auto answer = makeCalibration();
  for (auto _ : state) {
    RemoveStoreFile(path);
    if (WriteCalibrationFile(path, answer->calibrationData) != CalibrationWrite::written) {
      state.SkipWithError("write failed");
      break;
    }
  }
}
BENCHMARK(BM_StoreCalibrationFile);

void BM_PlainCalibrationFile(benchmark::State& state) {
  std::string path = scratchDirectory() + "/plain.bin";
  auto answer = makeCalibration();
  for (auto _ : state) {
    unlink(path.c_str());
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0 || ::write(fd, answer->calibrationData.data, answer->calibrationData.length) !=
                      static_cast<ssize_t>(answer->calibrationData.length)) {
      state.SkipWithError("write failed");
      break;
    }
    ::close(fd);
  }
}
BENCHMARK(BM_PlainCalibrationFile);

}  // namespace

BENCHMARK_MAIN();
