#include "messaging/binary_fifo.h"

#include <atomic>
#include <iomanip>
#include <iostream>
#include <memory>

#include "messaging/console_line.h"
#include "messaging/memory_stream.h"
#include "messaging/system_log.h"

namespace {

// Each byte as two lowercase hex digits and a blank; the stream is left in
// decimal with its fill restored.
void dumpBytes(std::ostream& out, const char* bytes, std::size_t count) {
  char fill = out.fill('0');
  out << std::hex;
  for (std::size_t i = 0; i < count; ++i) {
    out << std::setw(2) << static_cast<unsigned>(static_cast<unsigned char>(bytes[i])) << ' ';
  }
  out << std::dec;
  out.fill(fill);
}

// Puts every encoded value straight into the frame buffer: still one call
// per value, without the sentry of std::ostream::write around each. The
// buffer never refuses bytes, so the stream's state cannot differ.
class FrameEncoder : public bostream {
 public:
  FrameEncoder(std::ostream& frame, MemoryOutputBuffer& buffer) : bostream(frame), buffer_(buffer) {}
  void write(const char* bytes, int count) override { buffer_.sputn(bytes, count); }

 private:
  MemoryOutputBuffer& buffer_;
};

void reportTruncated(uint32_t length, int32_t selector) {
  ConsoleLine(std::cerr) << " Error: Truncated message received (" << length << " bytes, selector " << selector
                          << ")";
  systemlog::format(LOG_ERR, "%s::Received truncated message (%u bytes, selector=%d)", "getMessage", length,
                    selector);
}

// Whether the input stream was good at the previous getMessage of the
// process; decides whether the "Fifo is unhappy" warning is written.
std::atomic<bool> wasGood{true};

}  // namespace

void BinaryInputFifo::open() {
  if (stream.is_open()) return;
  ConsoleLine(std::cout) << " Info: Opening binary input FIFO: " << path;
  stream.exceptions(std::ios::badbit | std::ios::failbit);
  if (stream.open(path)) {
    stream.clear();
  } else {
    stream.setstate(std::ios::failbit);  // raises
  }
}

BinaryMessage* BinaryInputFifo::getMessage() {
  if (!stream.good()) {
    if (wasGood.exchange(false)) {
      ConsoleLine(std::cerr) << " Warn: Fifo is unhappy - good=" << stream.good() << " eof=" << stream.eof();
    }
    return notGoodResult<BinaryMessage>();
  }
  wasGood = true;

  try {
    byteArray frame;
    bistream frameIn(stream);
    frameIn >> frame;
    const uint32_t length = frame.length;
    if (!isAcceptedPayloadLength(length)) {
      // The bytes an oversized length announced stay in the pipe: there is no
      // marker to resynchronise on, so the next length is read from them.
      ConsoleLine(std::cerr) << " Warn: Message with invalid length received (" << length << " bytes)";
      systemlog::format(LOG_ERR, "%s::Received %d sized message (empty message or message exceeding maxlen)",
                        "getMessage", static_cast<int>(length));
      return nullptr;
    }

    // The payload is decoded in place. One stream per reading thread, pointed
    // at each frame in turn: building a std::istream costs more than decoding
    // a request.
    static thread_local MemoryInputBuffer payloadBuffer(nullptr, 0);
    static thread_local std::istream payload(&payloadBuffer);
    payloadBuffer.reset(frame.data, length);
    payload.clear();
    bistream in(payload);

    // The reader's own copies of the header, for its checks and reports. A
    // field that the payload does not reach keeps its preset, -1.
    int32_t version = -1;
    in >> version;
    if (version != kMessageVersion) {
      ConsoleLine(std::cerr) << " Error: Unsupported message version: " << version;
      dumpBytes(std::cout, frame.data, length);
      std::cout.flush();
      return nullptr;
    }
    int32_t sender = -1, recipient = -1, id = -1, correlationId = -1, selector = -1, responseSelector = -1, flags = -1;
    int64_t timestamp = -1;
    in >> sender >> recipient >> id >> correlationId >> timestamp >> selector >> responseSelector >> flags;

    byteArray args;  // copied only for the report of an unregistered selector
    if (!isRegistered(selector)) {
      in >> args;
      ConsoleLine(std::cerr) << " Error: Unrecognized selector: " << selector;
      systemlog::format(LOG_ERR, "%s::Received Unrecognized selector=%d", "getMessage", selector);
      ConsoleLine info(std::cout);
      info << " Info: Received message:" << " Size: " << length << " Version: " << version << " Sender: " << sender
           << " Recipient: " << recipient << " Id: " << id << " CorrelationId: " << correlationId
           << " Timestamp: " << timestamp << " Selector: " << selector << " ResponseSelector: " << responseSelector
           << " Flags: 0x" << std::hex << flags << std::dec << " Args[" << args.length << "]: ";
      if (args.data != nullptr) {
        // Only the bytes that are in the payload: argsLength may announce more.
        std::size_t present = length > kHeaderSize ? length - kHeaderSize : 0;
        dumpBytes(info.stream(), args.data, args.length < present ? args.length : present);
      }
      return nullptr;
    }
    // A registered class is never built from a header that ends early, so
    // that a refused frame takes no message id.
    if (length < kHeaderSize) {
      reportTruncated(length, selector);
      return nullptr;
    }
    uint32_t argsLength = 0;
    in >> argsLength;
    if (argsLength > kMaxByteArrayLength) {
      payload.seekg(kArgsLengthOffset);
      in >> args;  // its decoder reports the refused length, as for any block
    }

    // The message decodes the payload from its first byte; whether it ran
    // past the end is judged by its own decoding, not by argsLength.
    payload.clear();
    payload.seekg(0);
    std::unique_ptr<BinaryMessage> message(createMessage(selector, in));
    if (!payload) {
      reportTruncated(length, selector);
      return nullptr;
    }
    return message.release();
  } catch (const std::ios_base::failure& e) {
    ConsoleLine(std::cerr) << " Error: Exception ocurred reading message: " << e.what();
    wasGood = false;
    return nullptr;
  }
}

std::mutex& BinaryOutputFifo::sendMutex() {
  static std::mutex* mutex = new std::mutex;  // outlives every sender, even at exit
  return *mutex;
}

void BinaryOutputFifo::open() {
  if (openStream() == Opening::failed) {
    ConsoleLine(std::cerr) << " Error: Attempt to open binary output FIFO failed: " << path;
  }
}

void BinaryOutputFifo::send(const BinaryMessage& message) {
  std::lock_guard<std::mutex> lock(sendMutex());
  open();
  if (!stream.good()) {
    ConsoleLine(std::cerr) << " Error: Output fifo is not good - dropping message: " << message.id;
    ConsoleLine(std::cout) << " Info: Message details: " << " Version: " << message.version
                            << " Sender: " << message.sender << " Recipient: " << message.recipient
                            << " Id: " << message.id << " CorrelationId: " << message.correlationId
                            << " Timestamp: " << message.timestamp << " Selector: " << message.getSelector()
                            << " ResponseSelector: " << message.responseSelector << " Flags: 0x" << std::hex
                            << message.flags << std::dec;
    return;
  }

  // One frame buffer for the process, reused under the send lock.
  static MemoryOutputBuffer* frame = new MemoryOutputBuffer;
  encodeFrame(message, *frame);
  stream.write(frame->data(), static_cast<std::streamsize>(frame->size()));
  stream.flush();
}

void encodeFrame(const BinaryMessage& message, MemoryOutputBuffer& frame) {
  frame.reset();
  // One stream per thread, pointed at each buffer in turn: building a
  // std::ostream costs more than encoding a small message.
  static thread_local std::ostream target(nullptr);
  target.rdbuf(&frame);
  FrameEncoder out(target, frame);
  out << uint32_t{0};  // L, patched below
  message.toStream(out);
  uint32_t length = static_cast<uint32_t>(frame.size() - kFrameLengthSize);
  target.seekp(0);
  out << length;
  // The encoder writes into the buffer directly, past the stream: a seek
  // beyond what toStream wrote fails, and then nothing may be written.
  if (target.seekp(kFrameLengthSize + kArgsLengthOffset)) out << static_cast<uint32_t>(length - kHeaderSize);
}

std::string encodeFrame(const BinaryMessage& message) {
  MemoryOutputBuffer frame;
  encodeFrame(message, frame);
  return std::string(frame.data(), frame.size());
}
