#include "tools/dravikctl/frame_decoder.h"

#include "store/service_messages.h"

namespace dravikctl {
namespace {

constexpr uint32_t kLengthSize = 4;
constexpr uint32_t kHeaderBytes = 44;
constexpr uint32_t kLargestPayload = 65536;
constexpr uint32_t kLargestString = 0x7FFF;
constexpr uint32_t kLargestBlock = 0x10000;

enum class ArgType { int32, uint32, text, bytes };

struct ArgLayout {
  const char* name;
  ArgType type;
};

struct ClassLayout {
  std::vector<ArgLayout> args;
  // The service builds a received 2046 from its header alone, so a sender
  // may leave the arguments out.
  bool argumentsOptional = false;
};

const ArgLayout kChannel{"channel", ArgType::int32};

// The argument layout of each class of the catalogue, by name.
bool classLayout(const std::string& name, ClassLayout* layout) {
  if (name == "RestoreFactoryAllSettingsCommand") {
    *layout = {{}, false};
  } else if (name == "RestoreFactoryVirtualCameraSettingsCommand" || name == "ResetCalibrationCommand" ||
             name == "RestoreFactoryFilterCommand" || name == "GetAnalyticsFilterDataRequest" ||
             name == "ResetCalibrationNotification" || name == "RestoreFactoryFilterNotification") {
    *layout = {{kChannel}, false};
  } else if (name == "SetAnalyticsFilterDataCommand" || name == "SetAnalyticsFilterDataNotification" ||
             name == "RestoreAnalyticsFilterNotification") {
    *layout = {{kChannel, {"fileName", ArgType::text}}, false};
  } else if (name == "SaveAnalyticsFilterDataCommand") {
    *layout = {{kChannel, {"status", ArgType::int32}}, false};
  } else if (name == "CalibrationDataResponse") {
    *layout = {{{"calibrationData", ArgType::bytes}}, false};
  } else if (name == "GetCalibrationDataChangeNotification") {
    *layout = {{{"channel", ArgType::uint32}}, false};
  } else if (name == "SetCalibrationDataNotification") {
    *layout = {{kChannel, {"calibrationData", ArgType::bytes}}, false};
  } else if (name == "GetAnalyticsFilterDataResponse") {
    *layout = {{{"path", ArgType::text}}, false};
  } else {
    return false;
  }
  return true;
}

// Big-endian reads over a byte string that stop, instead of reading past
// the end, when the bytes run out.
class Cursor {
 public:
  Cursor(const std::string& bytes, std::size_t position) : bytes_(bytes), position_(position) {}

  bool u16(uint32_t* value) { return unsignedValue(2, value); }
  bool u32(uint32_t* value) { return unsignedValue(4, value); }
  bool i32(int32_t* value) {
    uint32_t raw;
    if (!u32(&raw)) return false;
    *value = static_cast<int32_t>(raw);
    return true;
  }
  bool i64(int64_t* value) {
    uint32_t high, low;
    if (!u32(&high) || !u32(&low)) return false;
    *value = static_cast<int64_t>((static_cast<uint64_t>(high) << 32) | low);
    return true;
  }
  bool take(std::size_t count, std::string* value) {
    if (remaining() < count) return false;
    value->assign(bytes_, position_, count);
    position_ += count;
    return true;
  }
  std::size_t remaining() const { return bytes_.size() - position_; }

 private:
  bool unsignedValue(int width, uint32_t* value) {
    if (remaining() < static_cast<std::size_t>(width)) return false;
    uint32_t v = 0;
    for (int i = 0; i < width; ++i) v = (v << 8) | static_cast<unsigned char>(bytes_[position_ + i]);
    position_ += static_cast<std::size_t>(width);
    *value = v;
    return true;
  }

  const std::string& bytes_;
  std::size_t position_;
};

uint32_t lengthPrefix(const std::string& frame) {
  uint32_t length = 0;
  for (std::size_t i = 0; i < kLengthSize; ++i) length = (length << 8) | static_cast<unsigned char>(frame[i]);
  return length;
}

// Decodes the arguments of `layout` from `in`; false with the reason in
// `error` when they run past the end of the frame or carry a length that no
// reader accepts.
bool decodeArguments(const ClassLayout& layout, Cursor& in, std::vector<Argument>* out, std::string* error) {
  if (layout.argumentsOptional && in.remaining() == 0) return true;
  for (const ArgLayout& arg : layout.args) {
    Argument value;
    value.name = arg.name;
    switch (arg.type) {
      case ArgType::int32: {
        int32_t v;
        if (!in.i32(&v)) {
          *error = std::string("frame ends inside argument ") + arg.name;
          return false;
        }
        value.number = v;
        break;
      }
      case ArgType::uint32: {
        uint32_t v;
        if (!in.u32(&v)) {
          *error = std::string("frame ends inside argument ") + arg.name;
          return false;
        }
        value.number = v;
        break;
      }
      case ArgType::text: {
        uint32_t n;
        value.kind = Argument::Kind::text;
        if (!in.u16(&n)) {
          *error = std::string("frame ends inside argument ") + arg.name;
          return false;
        }
        if (n > kLargestString) {
          *error = std::string("string ") + arg.name + " of " + std::to_string(n) + " bytes is refused by readers";
          return false;
        }
        if (!in.take(n, &value.value)) {
          *error = std::string("frame ends inside argument ") + arg.name;
          return false;
        }
        break;
      }
      case ArgType::bytes: {
        uint32_t n;
        value.kind = Argument::Kind::bytes;
        if (!in.u32(&n)) {
          *error = std::string("frame ends inside argument ") + arg.name;
          return false;
        }
        if (n > kLargestBlock) {
          *error = std::string("byteArray ") + arg.name + " of " + std::to_string(n) + " bytes is refused by readers";
          return false;
        }
        if (!in.take(n, &value.value)) {
          *error = std::string("frame ends inside argument ") + arg.name;
          return false;
        }
        break;
      }
    }
    out->push_back(std::move(value));
  }
  return true;
}

}  // namespace

const Argument* DecodedFrame::argument(const std::string& name) const {
  for (const Argument& a : arguments) {
    if (a.name == name) return &a;
  }
  return nullptr;
}

std::string catalogueClassName(int32_t selector, Direction direction, int32_t recipient, int32_t responseSelector) {
  if (direction == Direction::toService) {
    switch (selector) {
      case kRestoreFactoryAllSettingsSelector: return "RestoreFactoryAllSettingsCommand";
      case kRestoreFactoryVirtualCameraSettingsSelector: return "RestoreFactoryVirtualCameraSettingsCommand";
      case kResetCalibrationSelector: return "ResetCalibrationCommand";
      case kRestoreFactoryFilterSelector: return "RestoreFactoryFilterCommand";
      case kSetAnalyticsFilterDataSelector: return "SetAnalyticsFilterDataCommand";
      case kSaveAnalyticsFilterDataSelector: return "SaveAnalyticsFilterDataCommand";
      case kGetAnalyticsFilterDataSelector: return "GetAnalyticsFilterDataRequest";
      case kCalibrationDataResponseSelector: return "CalibrationDataResponse";
      case kSetCalibrationDataSelector: return "SetCalibrationDataNotification";
      default: return "";
    }
  }
  switch (selector) {
    case kGetCalibrationDataChangeSelector: return "GetCalibrationDataChangeNotification";
    case kSetCalibrationDataSelector: return "SetCalibrationDataNotification";
    case kResetCalibrationSelector: return "ResetCalibrationNotification";
    case kRestoreFactoryFilterSelector: return "RestoreFactoryFilterNotification";
    case kGetAnalyticsFilterDataResponseSelector: return "GetAnalyticsFilterDataResponse";
    case kSetAnalyticsFilterDataSelector:
      // One wire form for both: the new filter goes to endpoint 2 and wants
      // an answer, the stored one goes to the engine and wants none.
      if (recipient == kFilterEndpoint) return "SetAnalyticsFilterDataNotification";
      if (recipient == kEngineEndpoint) return "RestoreAnalyticsFilterNotification";
      return responseSelector == kSaveAnalyticsFilterDataSelector ? "SetAnalyticsFilterDataNotification"
                                                                  : "RestoreAnalyticsFilterNotification";
    default: return "";
  }
}

DecodedFrame decodeFrame(const std::string& frame, Direction direction) {
  DecodedFrame result;
  result.raw = frame;
  if (frame.size() < kLengthSize) {
    result.error = "frame ends after " + std::to_string(frame.size()) + " bytes of its length";
    return result;
  }
  uint32_t length = lengthPrefix(frame);
  if (length == 0 || length > kLargestPayload) {
    result.error = "invalid frame length " + std::to_string(length);
    return result;
  }
  std::size_t present = frame.size() - kLengthSize;
  if (present < length) {
    result.error = "truncated frame: " + std::to_string(present) + " of " + std::to_string(length) + " payload bytes";
  }
  std::string payload = frame.substr(kLengthSize, length);
  if (payload.size() < kHeaderBytes) {
    if (result.error.empty()) {
      result.error = "payload of " + std::to_string(payload.size()) + " bytes is shorter than the header";
    }
    return result;
  }

  Cursor in(payload, 0);
  FrameHeader& h = result.header;
  in.i32(&h.version);
  in.i32(&h.sender);
  in.i32(&h.recipient);
  in.i32(&h.id);
  in.i32(&h.correlationId);
  in.i64(&h.timestamp);
  in.i32(&h.selector);
  in.i32(&h.responseSelector);
  in.i32(&h.flags);
  in.i32(&h.argsLength);
  result.hasHeader = true;
  if (!result.error.empty()) return result;
  if (h.version != 1) {
    result.error = "unsupported version " + std::to_string(h.version);
    return result;
  }

  std::string name = catalogueClassName(h.selector, direction, h.recipient, h.responseSelector);
  ClassLayout layout;
  if (name.empty() && direction == Direction::fromService && h.correlationId != 0) {
    // A response whose requester chose its own response selector.
    Cursor probe(payload, kHeaderBytes);
    uint32_t n;
    if (probe.u16(&n) && n <= kLargestString && probe.remaining() == n) name = "GetAnalyticsFilterDataResponse";
  }
  if (name.empty() || !classLayout(name, &layout)) {
    result.error = "unknown selector " + std::to_string(h.selector);
    return result;
  }
  if (name == "SetCalibrationDataNotification" && direction == Direction::toService) layout.argumentsOptional = true;

  std::size_t argumentBytes = payload.size() - kHeaderBytes;
  if (h.argsLength < 0 || static_cast<std::size_t>(h.argsLength) != argumentBytes) {
    result.notes.push_back("argsLength " + std::to_string(h.argsLength) + " but " + std::to_string(argumentBytes) +
                           " argument bytes");
  }
  std::string error;
  if (!decodeArguments(layout, in, &result.arguments, &error)) {
    result.arguments.clear();
    result.error = name + ": " + error;
    return result;
  }
  if (in.remaining() != 0) result.notes.push_back(std::to_string(in.remaining()) + " bytes after the arguments");
  result.className = name;
  return result;
}

bool responseText(const DecodedFrame& frame, std::string* text) {
  if (!frame.hasHeader || frame.raw.size() < kLengthSize + kHeaderBytes) return false;
  std::string args = frame.raw.substr(kLengthSize + kHeaderBytes);
  Cursor in(args, 0);
  uint32_t n;
  if (!in.u16(&n) || n > kLargestString || in.remaining() != n) return false;
  return in.take(n, text);
}

}  // namespace dravikctl
