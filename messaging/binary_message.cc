#include "messaging/binary_message.h"

#include <iostream>
#include <memory>

#include "messaging/binary_fifo.h"
#include "messaging/console_line.h"

int32_t BinaryMessage::defaultSender = -1;
std::atomic<int32_t> BinaryMessage::lastId{0};
BinaryOutputFifo* BinaryMessage::notificationOutput = nullptr;

BinaryMessage::BinaryMessage()
    : version(1),
      sender(defaultSender),
      recipient(0),
      id(lastId.fetch_add(1, std::memory_order_relaxed) + 1),
      correlationId(0),
      timestamp(now()),
      selector(0),
      responseSelector(0),
      flags(0),
      argsLength(0) {}

void BinaryMessage::Process() {
  ConsoleLine(std::cerr) << " Error: BinaryMessage::Process() was not implemented by a message class";
}

void BinaryMessage::fromStream(bistream& in) {
  in >> version >> sender >> recipient >> id >> correlationId >> timestamp >> selector >> responseSelector >> flags >>
      argsLength;
}

void BinaryMessage::toStream(bostream& out) const {
  out << version << sender << recipient << id << correlationId << timestamp << getSelector() << responseSelector
      << flags << argsLength;
}

void BinaryRequest::Process() {
  BinaryResponse response(*this);
  response.Process();
}

void BinaryNotification::Process() {
  if (notificationOutput == nullptr) {
    ConsoleLine(std::cerr) << " Error: No notification output - dropping message: " << id;
    return;
  }
  notificationOutput->send(*this);
}

BinaryResponse::BinaryResponse(const BinaryRequest& request) : request(&request) {
  recipient = request.sender;
  correlationId = request.id;
  selector = request.responseSelector;
}

void BinaryResponse::toStream(bostream& out) const {
  BinaryMessage::toStream(out);
  request->responseToStream(out);
}

std::map<int32_t, BinaryMessageFactory>& selectorRegistry() {
  static std::map<int32_t, BinaryMessageFactory> registry;
  return registry;
}

void registerSelector(int32_t selector, BinaryMessageFactory factory) {
  selectorRegistry().emplace(selector, factory);  // keeps an earlier entry
}

bool isRegistered(int32_t selector) { return selectorRegistry().count(selector) != 0; }

BinaryMessage* createMessage(int32_t selector, bistream& in) {
  auto& registry = selectorRegistry();
  auto entry = registry.find(selector);
  if (entry == registry.end()) return nullptr;
  std::unique_ptr<BinaryMessage> message(entry->second());
  message->fromStream(in);
  return message.release();
}
