// Captures of frames as pcapng files, for Wireshark and for `dravikctl
// decode`: one section, one interface of link type USER0 (147), and one
// Enhanced Packet Block per frame, its length prefix included, with the
// frame's direction in the packet flags (inbound: into the service's
// mailbox; outbound: out on its notification pipe) and the time it was seen
// in microseconds.
//
//   block             fields (32-bit words in the writer's byte order)
//   Section Header    0x0A0D0D0A, length, 0x1A2B3C4D, version 1.0, section length -1,
//                     shb_userappl "dravikctl"
//   Interface Descr.  0x00000001, length, link type 147, reserved, snap length 0,
//                     if_name "dravik"
//   Enhanced Packet   0x00000006, length, interface 0, time high, time low,
//                     captured, original, data padded to 4, epb_flags option
#ifndef DRAVIK_CONVERSATION_PCAPNG_H_
#define DRAVIK_CONVERSATION_PCAPNG_H_

#include <time.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "store/catalogue.h"

namespace pcapng {

constexpr uint16_t kLinkTypeUser0 = 147;

// The section and interface blocks that open a file.
std::string fileHeader();
// One frame as an Enhanced Packet Block.
std::string packetBlock(const std::string& frame, catalogue::Flow direction, const struct timespec& seen);

struct Packet {
  std::string data;
  std::optional<catalogue::Flow> direction;  // empty when the flags do not say
  struct timespec seen = {0, 0};
};

// The packets of a whole file, in either byte order, with any timestamp
// resolution of base 10. False with the reason in `whyNot` when the bytes
// are no pcapng file, or its interface is not of link type 147; `packets`
// then holds what came before the fault.
bool readCapture(const std::string& file, std::vector<Packet>* packets, std::string* whyNot);

}  // namespace pcapng

#endif  // DRAVIK_CONVERSATION_PCAPNG_H_
