// Micro-benchmarks of the transport's per-message work, without syslog:
// framing a 52-byte request and a 65,540-byte calibration frame (payload
// 65,536, the largest) with BinaryOutputFifo::send, reading and decoding the
// same frames with BinaryInputFifo::getMessage, decoding the message alone,
// and the daemon's encoding of its 101-byte answer.
//
// The endpoints open nothing but named pipes, so the writer's target is a
// FIFO emptied between timings and the reader's a FIFO that a thread keeps
// full of frames: a pipe write or read stays in each figure, and
// BM_WritePipe gives the write alone. Log lines go to a sink that drops
// them.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <thread>

#include "bench/frames.h"
#include "messaging/binary_fifo.h"
#include "messaging/memory_stream.h"
#include "messaging/system_log.h"
#include "store/service_messages.h"
#include "store/store_layout.h"
#include "harness/temp_dir.h"
#include "peer/frame_codec.h"

namespace {

void dropLine(int, const std::string&) {}

// The daemon registers its classes in translation units that only the daemon
// links whole.
struct Setup {
  Setup() {
    systemlog::redirect(dropLine);
    signal(SIGPIPE, SIG_IGN);  // a fed FIFO's feeder learns of its reader's end by EPIPE
    registerSelector(kGetAnalyticsFilterDataSelector, newMessage<GetAnalyticsFilterDataRequest>);
    registerSelector(kCalibrationDataResponseSelector, newMessage<CalibrationDataResponse>);
  }
};
const Setup setup;

const TempDir& scratch() {
  static TempDir directory;
  return directory;
}

std::string calibrationBlock() { return std::string(kLargestCalibrationBlock, '\x5a'); }

peer::CatalogueMessage makeRequest() {
  peer::CatalogueMessage request("GetAnalyticsFilterDataRequest", {3});
  request.sender = 7;
  return request;
}

peer::CatalogueMessage makeCalibration() {
  peer::CatalogueMessage answer("CalibrationDataResponse", {calibrationBlock()});
  answer.sender = kEngineEndpoint;
  answer.correlationId = 999999;
  return answer;
}

// A FIFO of 1 MiB stands in for /dev/null: the endpoint writes into it,
// and the benchmark empties it, outside the timing, before it can fill.
// Nothing reads it meanwhile, so no write pays for waking a reader.
class SinkPipe {
 public:
  SinkPipe() : path_(scratch().file("sink")), out_(path_.c_str()) {
    mkfifo(path_.c_str(), 0600);
    out_.open();
    fcntl(out_.stream.buffer().descriptor(), F_SETPIPE_SZ, kCapacity);
    drain_ = ::open(path_.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  }
  BinaryOutputFifo& out() { return out_; }
  int descriptor() { return out_.stream.buffer().descriptor(); }

  // Call before writing `size` bytes.
  void makeRoom(benchmark::State& state, std::size_t size) {
    if (pending_ + size <= kCapacity / 2) {
      pending_ += size;
      return;
    }
    state.PauseTiming();
    std::unique_ptr<char[]> chunk(new char[kCapacity]);
    while (::read(drain_, chunk.get(), kCapacity) > 0) {
    }
    state.ResumeTiming();
    pending_ = size;
  }

 private:
  static constexpr int kCapacity = 1 << 20;
  std::string path_;
  BinaryOutputFifo out_;
  int drain_ = -1;
  std::size_t pending_ = 0;
};

SinkPipe& sink() {
  static SinkPipe* pipe = new SinkPipe;
  return *pipe;
}

// A FIFO that a thread fills with copies of `frames` until its reader
// closes it; opened as BinaryInputFifo::open() does, without its console
// line.
class FedPipe {
 public:
  FedPipe(const std::string& frames, const char* name) : path_(scratch().file(name)), in_(path_.c_str()) {
    mkfifo(path_.c_str(), 0600);
    feeder_ = std::thread([this, frames] {
      int fd = ::open(path_.c_str(), O_WRONLY | O_CLOEXEC);
      // Many frames ahead, so that the reader takes whole 64 KiB reads.
      if (fd >= 0) fcntl(fd, F_SETPIPE_SZ, 1 << 20);
      while (fd >= 0 && ::write(fd, frames.data(), frames.size()) > 0) {
      }
      if (fd >= 0) ::close(fd);
    });
    in_.stream.exceptions(std::ios::badbit | std::ios::failbit);
    in_.stream.open(path_.c_str());
    in_.stream.clear();
  }
  ~FedPipe() {
    in_.stream.close();
    feeder_.join();
  }
  BinaryInputFifo& in() { return in_; }

 private:
  std::string path_;
  BinaryInputFifo in_;
  std::thread feeder_;
};

void BM_FrameRequest52(benchmark::State& state) {
  peer::CatalogueMessage request = makeRequest();
  for (auto _ : state) {
    sink().makeRoom(state, kRequestFrameSize);
    sink().out().send(request);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kRequestFrameSize));
}
BENCHMARK(BM_FrameRequest52);

void BM_FrameCalibration65536(benchmark::State& state) {
  peer::CatalogueMessage answer = makeCalibration();
  for (auto _ : state) {
    sink().makeRoom(state, kCalibrationFrameSize);
    sink().out().send(answer);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kCalibrationFrameSize));
}
BENCHMARK(BM_FrameCalibration65536);

void BM_WritePipe(benchmark::State& state) {
  std::string bytes(static_cast<std::size_t>(state.range(0)), '\0');
  for (auto _ : state) {
    sink().makeRoom(state, bytes.size());
    benchmark::DoNotOptimize(::write(sink().descriptor(), bytes.data(), bytes.size()));
  }
}
BENCHMARK(BM_WritePipe)->Arg(kRequestFrameSize)->Arg(kCalibrationFrameSize);

void readFrames(benchmark::State& state, const std::string& frames, const char* name, int32_t selector) {
  FedPipe pipe(frames, name);
  for (auto _ : state) {
    BinaryMessage* message = pipe.in().getMessage();
    if (message == nullptr || message == notGoodResult<BinaryMessage>() || message->getSelector() != selector) {
      state.SkipWithError("frame not decoded");
      break;
    }
    delete message;
  }
}

void BM_ReadDecodeRequest52(benchmark::State& state) {
  std::string frames;
  for (std::size_t i = 0; i < kMaxPayloadLength / kRequestFrameSize; ++i) frames += encodeFrame(makeRequest());
  readFrames(state, frames, "requests", kGetAnalyticsFilterDataSelector);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kRequestFrameSize));
}
BENCHMARK(BM_ReadDecodeRequest52);

void BM_ReadDecodeCalibration65536(benchmark::State& state) {
  readFrames(state, encodeFrame(makeCalibration()), "calibration", kCalibrationDataResponseSelector);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kCalibrationFrameSize));
}
BENCHMARK(BM_ReadDecodeCalibration65536);

// The registry's class decoding a payload from memory: no frame, no copy of
// the argument block for the report.
void decodeOnly(benchmark::State& state, const BinaryMessage& message, int32_t selector) {
  std::string frame = encodeFrame(message);
  for (auto _ : state) {
    MemoryInputBuffer buffer(frame.data() + kFrameLengthSize, frame.size() - kFrameLengthSize);
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
  decodeOnly(state, makeCalibration(), kCalibrationDataResponseSelector);
}
BENCHMARK(BM_DecodeOnlyCalibration65536);

// What the daemon does for a GetAnalyticsFilterDataRequest once decoded:
// build the response, encode it (the path and its log line are made while
// encoding) and write the 101-byte frame.
void BM_EncodeResponse101(benchmark::State& state) {
  BinaryMessage::notificationOutput = &sink().out();
  BinaryMessage::defaultSender = kServiceEndpoint;
  GetAnalyticsFilterDataRequest request;
  request.sender = 7;
  request.responseSelector = kGetAnalyticsFilterDataResponseSelector;
  request.channel = 3;
  for (auto _ : state) {
    sink().makeRoom(state, kAnswerFrameSize);
    request.Process();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kAnswerFrameSize));
}
BENCHMARK(BM_EncodeResponse101);

// The part of the above that composes the log line.
void BM_LogLineCompose(benchmark::State& state) {
  std::string path = FilterFilePath(3);
  for (auto _ : state) LogLine(LOG_INFO) << "Sending get CH=" << 3 << " " << path;
}
BENCHMARK(BM_LogLineCompose);

// The store's file work for one calibration block (the log lines aside),
// with its syncs of the file and the directory, against the same bytes
// written with plain system calls, without (0) and with (1) those syncs.
// Arg 0 of each: tmpfs (/dev/shm), as the benchmark's sandbox; arg 1: a
// disk-backed directory (/var/tmp), where a sync waits for the device.
const TempDir& storeScratch(int64_t onDisk) {
  static TempDir tmpfs("/dev/shm"), disk("/var/tmp");
  return onDisk != 0 ? disk : tmpfs;
}

void BM_StoreCalibrationFile(benchmark::State& state) {
  std::string path = storeScratch(state.range(0)).file("store.bin");
  std::string block = calibrationBlock();
  byteArray calibration;
  calibration.assign(block.data(), kLargestCalibrationBlock);
  for (auto _ : state) {
    RemoveStoreFile(path);
    if (WriteCalibrationFile(path, calibration) != CalibrationWrite::written) {
      state.SkipWithError("write failed");
      break;
    }
  }
}
BENCHMARK(BM_StoreCalibrationFile)->ArgName("disk")->Arg(0)->Arg(1);

void BM_PlainCalibrationFile(benchmark::State& state) {
  const TempDir& dir = storeScratch(state.range(0));
  std::string path = dir.file("plain.bin");
  std::string block = calibrationBlock();
  const bool synced = state.range(1) != 0;
  for (auto _ : state) {
    unlink(path.c_str());
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0 || ::write(fd, block.data(), block.size()) != static_cast<ssize_t>(block.size())) {
      state.SkipWithError("write failed");
      break;
    }
    if (synced) {
      int d = ::open(dir.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
      if (::fsync(fd) != 0 || d < 0 || ::fsync(d) != 0) state.SkipWithError("sync failed");
      if (d >= 0) ::close(d);
    }
    ::close(fd);
  }
}
BENCHMARK(BM_PlainCalibrationFile)->ArgNames({"disk", "synced"})->ArgsProduct({{0, 1}, {0, 1}});

}  // namespace

BENCHMARK_MAIN();
