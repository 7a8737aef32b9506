#include "tests/messaging/test_messages.h"

#include "tests/support/hex.h"

namespace {

const SelectorRegistration registerEmpty(kEmptySelector, newMessage<EmptyCommand>);
const SelectorRegistration registerPair(kPairSelector, newMessage<PairCommand>);
const SelectorRegistration registerBlock(kBlockSelector, newMessage<BlockNotification>);

}  // namespace

std::string WireHeader::bytes() const {
  return be32(static_cast<uint32_t>(version)) + be32(static_cast<uint32_t>(sender)) +
         be32(static_cast<uint32_t>(recipient)) + be32(static_cast<uint32_t>(id)) +
         be32(static_cast<uint32_t>(correlationId)) + be64(milliseconds) + be32(static_cast<uint32_t>(selector)) +
         be32(static_cast<uint32_t>(responseSelector)) + be32(static_cast<uint32_t>(flags)) + be32(argsLength);
}

std::string payloadOf(WireHeader header, const std::string& args) {
  header.argsLength = static_cast<uint32_t>(args.size());
  return header.bytes() + args;
}

std::string frameOf(const std::string& payload) { return be32(static_cast<uint32_t>(payload.size())) + payload; }
