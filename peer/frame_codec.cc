#include "peer/frame_codec.h"

#include <time.h>
#include <unistd.h>

#include <cassert>
#include <istream>

#include "messaging/binary_stream.h"
#include "messaging/frame_format.h"
#include "messaging/memory_stream.h"

namespace peer {
namespace {

using catalogue::ArgType;
using catalogue::Entry;
using catalogue::Flow;

// Reads one argument through the library's decoders. A string or block
// length over the readers' limit is read as the daemon reads it: no value,
// and the next argument right after the length; `note` says so.
void readArg(bistream& in, std::istream& payload, const catalogue::Arg& arg, Value* value, std::string* note) {
  uint32_t length = 0;
  uint32_t limit = 0;
  switch (arg.type) {
    case ArgType::int32: {
      int32_t v = 0;
      in >> v;
      value->number = v;
      return;
    }
    case ArgType::uint32: {
      uint32_t v = 0;
      in >> v;
      value->number = v;
      return;
    }
    case ArgType::string: {
      uint16_t n = 0;
      in >> n;
      length = n;
      limit = kMaxStringLength;
      break;
    }
    case ArgType::bytes:
      in >> length;
      limit = kMaxByteArrayLength;
      break;
  }
  if (length > limit) {
    *note = std::string(arg.name) + ": length " + std::to_string(length) + " is over the readers' limit of " +
            std::to_string(limit) + (arg.type == ArgType::string ? ": dravik reads it as empty" : ": dravik reads no data");
    return;
  }
  value->bytes.resize(length);
  if (length > 0) payload.read(&value->bytes[0], length);
}

// The entry of a class that the program names itself: a name that the
// catalogue does not know is a fault of the caller.
const Entry& entryNamed(const std::string& className) {
  const Entry* entry = catalogue::byName(className);
  assert(entry != nullptr && "a class name that the catalogue does not know");
  return *entry;
}

// Reads the length and the header of `frame` into `result`, leaving `in`
// at the arguments. The payload's size, or 0 when the frame has no whole
// header of the supported version (the reason in result->error).
std::size_t readHeader(const std::string& frame, MemoryInputBuffer& buffer, bistream& in, DecodedFrame* result) {
  if (frame.size() < kFrameLengthSize) {
    result->error = "frame ends after " + std::to_string(frame.size()) + " bytes of its length";
    return 0;
  }
  uint32_t length = 0;
  in >> length;
  if (!isAcceptedPayloadLength(length)) {
    result->error = "invalid frame length " + std::to_string(length);
    return 0;
  }
  std::size_t present = frame.size() - kFrameLengthSize;
  if (present < length) {
    result->error = "truncated frame: " + std::to_string(present) + " of " + std::to_string(length) + " payload bytes";
  }
  std::size_t size = present < length ? present : length;
  if (size < kHeaderSize) {
    if (result->error.empty()) {
      result->error = "payload of " + std::to_string(size) + " bytes is shorter than the header";
    }
    return 0;
  }
  buffer.reset(frame.data() + kFrameLengthSize, size);
  FrameHeader& h = result->header;
  in >> h.version >> h.sender >> h.recipient >> h.id >> h.correlationId >> h.timestamp >> h.selector >>
      h.responseSelector >> h.flags >> h.argsLength;
  result->hasHeader = true;
  if (!result->error.empty()) return 0;
  if (h.version != kMessageVersion) {
    result->error = "unsupported version " + std::to_string(h.version);
    return 0;
  }
  return size;
}

// The class of a frame by its header; null when the catalogue has none.
// `in` stays at the arguments.
const Entry* classOf(const FrameHeader& h, Flow flow, std::size_t argumentBytes, bistream& in, std::istream& payload) {
  const Entry* entry = catalogue::classify(h.selector, flow, h.recipient, h.responseSelector);
  if (entry == nullptr && flow == Flow::out && h.correlationId != 0 && argumentBytes >= 2) {
    // A response whose requester chose its own response selector.
    uint16_t n = 0;
    in >> n;
    if (n <= kMaxStringLength && argumentBytes == 2u + n) entry = &entryNamed("GetAnalyticsFilterDataResponse");
    payload.seekg(kHeaderSize);
  }
  return entry;
}

// The arguments of `entry` into result->args. False, with the reason in
// result->error and no arguments, when they are cut short.
bool readArgs(const Entry& entry, bistream& in, std::istream& payload, DecodedFrame* result) {
  for (const catalogue::Arg& arg : entry.args) {
    Value value(0);
    std::string note;
    readArg(in, payload, arg, &value, &note);
    if (!payload) {
      result->error = std::string(entry.name) + ": frame ends inside argument " + arg.name;
      result->args.clear();
      return false;
    }
    if (!note.empty()) result->notes.push_back(note);
    result->args.push_back(std::move(value));
  }
  return true;
}

}  // namespace

CatalogueMessage::CatalogueMessage(const std::string& className, std::vector<Value> values)
    : CatalogueMessage(entryNamed(className), std::move(values)) {}

CatalogueMessage::CatalogueMessage(const catalogue::Entry& entryValue, std::vector<Value> valuesIn)
    : entry(entryValue), values(std::move(valuesIn)) {
  recipient = entry.recipient;
  responseSelector = entry.responseSelector;
}

void CatalogueMessage::toStream(bostream& out) const {
  BinaryMessage::toStream(out);
  for (std::size_t i = 0; i < entry.args.size() && i < values.size(); ++i) {
    const Value& v = values[i];
    switch (entry.args[i].type) {
      case ArgType::int32:
        out << static_cast<int32_t>(v.number);
        break;
      case ArgType::uint32:
        out << static_cast<uint32_t>(v.number);
        break;
      case ArgType::string:
        out << v.bytes;
        break;
      case ArgType::bytes: {
        byteArray block;
        block.assign(v.bytes.data(), static_cast<uint32_t>(v.bytes.size()));
        out << block;
        break;
      }
    }
  }
}

const char* typeName(ArgType type) {
  switch (type) {
    case ArgType::int32:
      return "int32";
    case ArgType::uint32:
      return "uint32";
    case ArgType::string:
      return "string";
    case ArgType::bytes:
      return "block";
  }
  return "block";
}

const Value* DecodedFrame::arg(const std::string& name) const {
  if (entry == nullptr) return nullptr;
  for (std::size_t i = 0; i < entry->args.size() && i < args.size(); ++i) {
    if (name == entry->args[i].name) return &args[i];
  }
  return nullptr;
}

DecodedFrame decodeFrame(const std::string& frame, Flow flow) {
  DecodedFrame result;
  result.raw = frame;
  MemoryInputBuffer buffer(frame.data(), frame.size());
  std::istream payload(&buffer);
  bistream in(payload);
  std::size_t size = readHeader(frame, buffer, in, &result);
  if (size == 0) return result;
  const FrameHeader& h = result.header;
  std::size_t argumentBytes = size - kHeaderSize;
  const Entry* entry = classOf(h, flow, argumentBytes, in, payload);
  if (entry == nullptr) {
    result.error = "unknown selector " + std::to_string(h.selector);
    return result;
  }
  if (h.argsLength < 0 || static_cast<std::size_t>(h.argsLength) != argumentBytes) {
    result.notes.push_back("argsLength " + std::to_string(h.argsLength) + " but " + std::to_string(argumentBytes) +
                           " argument bytes");
  }
  // The service builds a 2046 that arrives from its header alone, so a
  // sender may leave its arguments out.
  bool optional = flow == Flow::in && h.selector == kSetCalibrationDataSelector && argumentBytes == 0;
  if (!optional && !readArgs(*entry, in, payload, &result)) return result;
  std::streamsize rest = payload.rdbuf()->in_avail();
  if (rest > 0) result.notes.push_back(std::to_string(rest) + " bytes after the arguments");
  result.entry = entry;
  return result;
}

void seedMessageIds() {
  struct timespec t;
  clock_gettime(CLOCK_REALTIME, &t);
  uint32_t seed = static_cast<uint32_t>(t.tv_sec) * 1000u + static_cast<uint32_t>(t.tv_nsec / 1000000);
  seed ^= static_cast<uint32_t>(getpid()) << 16;
  // Positive and far from overflow: a run sends only a few messages.
  BinaryMessage::lastId = static_cast<int32_t>((seed & 0x3FFFFFFF) + 1000);
}

}  // namespace peer
