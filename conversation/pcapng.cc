#include "conversation/pcapng.h"

namespace pcapng {
namespace {

constexpr uint32_t kSectionHeaderBlock = 0x0A0D0D0A;
constexpr uint32_t kInterfaceDescriptionBlock = 1;
constexpr uint32_t kEnhancedPacketBlock = 6;
constexpr uint32_t kByteOrderMagic = 0x1A2B3C4D;
constexpr uint16_t kEndOfOptions = 0;
constexpr uint16_t kEpbFlags = 2;
constexpr uint16_t kShbUserAppl = 4;
constexpr uint16_t kIfName = 2;
constexpr uint16_t kIfTsresol = 9;
constexpr uint32_t kInbound = 1;
constexpr uint32_t kOutbound = 2;

// Written little-endian, so that a capture is the same file on every
// machine that makes it; readers take either order.
void put16(std::string* out, uint16_t v) {
  out->push_back(static_cast<char>(v & 0xFF));
  out->push_back(static_cast<char>(v >> 8));
}

void put32(std::string* out, uint32_t v) {
  put16(out, static_cast<uint16_t>(v & 0xFFFF));
  put16(out, static_cast<uint16_t>(v >> 16));
}

uint32_t padded(std::size_t n) { return static_cast<uint32_t>((n + 3) & ~static_cast<std::size_t>(3)); }

// A text option, its value padded to 4 bytes.
void putOption(std::string* out, uint16_t code, const std::string& text) {
  put16(out, code);
  put16(out, static_cast<uint16_t>(text.size()));
  *out += text;
  out->append(padded(text.size()) - text.size(), '\0');
}

// Frames the body of a block with its type and its length at both ends.
std::string block(uint32_t type, const std::string& body) {
  std::string out;
  uint32_t length = 12 + static_cast<uint32_t>(body.size());
  put32(&out, type);
  put32(&out, length);
  out += body;
  put32(&out, length);
  return out;
}

// Reads a file whose byte order is set by its section header.
class Cursor {
 public:
  explicit Cursor(const std::string& bytes) : bytes_(bytes) {}
  void setBigEndian(bool big) { big_ = big; }
  bool has(std::size_t at, std::size_t n) const { return at <= bytes_.size() && bytes_.size() - at >= n; }
  uint16_t u16(std::size_t at) const {
    auto b = [&](std::size_t i) { return static_cast<uint16_t>(static_cast<unsigned char>(bytes_[at + i])); };
    return big_ ? static_cast<uint16_t>(b(0) << 8 | b(1)) : static_cast<uint16_t>(b(1) << 8 | b(0));
  }
  uint32_t u32(std::size_t at) const {
    uint32_t a = u16(at), b = u16(at + 2);
    return big_ ? (a << 16 | b) : (b << 16 | a);
  }

 private:
  const std::string& bytes_;
  bool big_ = false;
};

struct Interface {
  uint64_t unitsPerSecond = 1000000;
};

// Reads a whole file block by block. Each step returns false with the
// fault in `fault_`.
class CaptureReader {
 public:
  CaptureReader(const std::string& file, std::vector<Packet>* packets) : file_(file), in_(file), packets_(packets) {}

  bool readAll(std::string* whyNot) {
    for (at_ = 0; at_ < file_.size();) {
      if (!block()) {
        *whyNot = fault_ + " (block at byte " + std::to_string(at_) + ")";
        return false;
      }
    }
    if (!sectionSeen_) {
      *whyNot = "empty file, not a pcapng capture";
      return false;
    }
    return true;
  }

 private:
  // The block at at_, which then moves past it.
  bool block() {
    if (!in_.has(at_, 12)) return refuse("file ends inside a block header");
    uint32_t type = in_.u32(at_);
    if (type == kSectionHeaderBlock) {
      if (!section()) return false;
    } else if (!sectionSeen_) {
      return refuse("not a pcapng file");
    }
    uint32_t length = in_.u32(at_ + 4);
    if (length < 12 || length % 4 != 0 || !in_.has(at_, length)) {
      return refuse("block of invalid length " + std::to_string(length));
    }
    if (in_.u32(at_ + length - 4) != length) return refuse("block lengths differ");
    std::size_t body = at_ + 8;
    std::size_t end = at_ + length - 4;
    if (type == kInterfaceDescriptionBlock && !interface(body, end)) return false;
    if (type == kEnhancedPacketBlock && !packet(body, end)) return false;
    at_ += length;
    return true;
  }

  // The byte order magic tells how to read everything up to the next section.
  bool section() {
    if (!in_.has(at_, 28)) return refuse("section header block cut short");
    in_.setBigEndian(false);
    if (in_.u32(at_ + 8) != kByteOrderMagic) in_.setBigEndian(true);
    if (in_.u32(at_ + 8) != kByteOrderMagic) return refuse("no pcapng byte order magic");
    sectionSeen_ = true;
    interfaces_.clear();
    return true;
  }

  bool interface(std::size_t body, std::size_t end) {
    if (end - body < 8) return refuse("interface block cut short");
    if (in_.u16(body) != kLinkTypeUser0) {
      return refuse("interface of link type " + std::to_string(in_.u16(body)) + ", not 147 (dravik frames)");
    }
    Interface interface;
    options(body + 8, end, [&](uint16_t code, std::size_t value, uint16_t size) {
      if (code != kIfTsresol || size != 1) return;
      unsigned char resolution = static_cast<unsigned char>(file_[value]);
      uint64_t units = 1;
      for (int i = 0; i < (resolution & 0x7F) && units < (1ull << 62); ++i) units *= (resolution & 0x80) ? 2 : 10;
      interface.unitsPerSecond = units;
    });
    interfaces_.push_back(interface);
    return true;
  }

  bool packet(std::size_t body, std::size_t end) {
    if (end - body < 20) return refuse("packet block cut short");
    uint32_t id = in_.u32(body);
    if (id >= interfaces_.size()) return refuse("packet of undeclared interface " + std::to_string(id));
    uint32_t captured = in_.u32(body + 12);
    if (captured > end - body - 20) return refuse("packet data longer than its block");
    Packet packet;
    packet.data = file_.substr(body + 20, captured);
    uint64_t time = static_cast<uint64_t>(in_.u32(body + 4)) << 32 | in_.u32(body + 8);
    uint64_t units = interfaces_[id].unitsPerSecond;
    packet.seen.tv_sec = static_cast<time_t>(time / units);
    packet.seen.tv_nsec = static_cast<long>(static_cast<long double>(time % units) * 1e9L / units);
    options(body + 20 + padded(captured), end, [&](uint16_t code, std::size_t value, uint16_t size) {
      if (code != kEpbFlags || size != 4) return;
      uint32_t flags = in_.u32(value) & 3;
      if (flags == kInbound) packet.direction = catalogue::Flow::in;
      if (flags == kOutbound) packet.direction = catalogue::Flow::out;
    });
    packets_->push_back(std::move(packet));
    return true;
  }

  // Options: code, length, value padded to 4, up to the end of the block.
  template <class Take>
  void options(std::size_t from, std::size_t end, const Take& take) const {
    while (from + 4 <= end) {
      uint16_t code = in_.u16(from), size = in_.u16(from + 2);
      if (code == kEndOfOptions || from + 4 + size > end) break;
      take(code, from + 4, size);
      from += 4 + padded(size);
    }
  }

  bool refuse(const std::string& what) {
    fault_ = what;
    return false;
  }

  const std::string& file_;
  Cursor in_;
  std::vector<Packet>* packets_;
  std::vector<Interface> interfaces_;
  bool sectionSeen_ = false;
  std::size_t at_ = 0;
  std::string fault_;
};

}  // namespace

std::string fileHeader() {
  std::string section;
  put32(&section, kByteOrderMagic);
  put16(&section, 1);  // version 1.0
  put16(&section, 0);
  put32(&section, 0xFFFFFFFF);  // section length: not given
  put32(&section, 0xFFFFFFFF);
  putOption(&section, kShbUserAppl, "dravikctl");
  put32(&section, kEndOfOptions);
  std::string interface;
  put16(&interface, kLinkTypeUser0);
  put16(&interface, 0);
  put32(&interface, 0);  // snap length: no limit
  putOption(&interface, kIfName, "dravik");
  put32(&interface, kEndOfOptions);
  return block(kSectionHeaderBlock, section) + block(kInterfaceDescriptionBlock, interface);
}

std::string packetBlock(const std::string& frame, catalogue::Flow direction, const struct timespec& seen) {
  uint64_t micros = static_cast<uint64_t>(seen.tv_sec) * 1000000u + static_cast<uint64_t>(seen.tv_nsec / 1000);
  std::string body;
  put32(&body, 0);  // interface
  put32(&body, static_cast<uint32_t>(micros >> 32));
  put32(&body, static_cast<uint32_t>(micros));
  put32(&body, static_cast<uint32_t>(frame.size()));
  put32(&body, static_cast<uint32_t>(frame.size()));
  body += frame;
  body.append(padded(frame.size()) - frame.size(), '\0');
  put16(&body, kEpbFlags);
  put16(&body, 4);
  put32(&body, direction == catalogue::Flow::in ? kInbound : kOutbound);
  put16(&body, kEndOfOptions);
  put16(&body, 0);
  return block(kEnhancedPacketBlock, body);
}

bool readCapture(const std::string& file, std::vector<Packet>* packets, std::string* whyNot) {
  CaptureReader reader(file, packets);
  return reader.readAll(whyNot);
}

}  // namespace pcapng
