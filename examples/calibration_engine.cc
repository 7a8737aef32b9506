// The smallest analytics engine (endpoint 11), on libdravik-messaging alone:
// it answers the daemon's calibration requests (2044) with a block, which
// the daemon stores as that channel's calibration, and reads the blocks the
// daemon gives back at start-up (2046).
//
//   calibration_engine [PREFIX]    answers channel N with the bytes "PREFIX N"
#include <exception>
#include <iostream>
#include <memory>
#include <string>

#include "messaging/binary_fifo.h"
#include "store/catalogue.h"
#include "store/service_paths.h"

namespace {

std::string prefix = "calibration of channel";

// 2044, answered with 2045: the block, correlated with the request's id.
class CalibrationRequest : public BinaryRequest {
 public:
  int32_t getSelector() const override { return kGetCalibrationDataChangeSelector; }
  int32_t getResponseSelector() const override { return kCalibrationDataResponseSelector; }
  void fromStream(bistream& in) override {
    BinaryRequest::fromStream(in);
    in >> channel;
  }
  void responseToStream(bostream& out) const override {
    std::string text = prefix + " " + std::to_string(channel);
    byteArray block;
    block.assign(text.data(), static_cast<uint32_t>(text.size()));
    out << block;
  }
  void Process() override {
    std::cout << "engine: channel " << channel << ": calibration requested" << std::endl;
    BinaryRequest::Process();  // sends the answer on notificationOutput
  }
  uint32_t channel = 0;
};

// 2046: a stored block, given back for the engine to use.
class CalibrationRestore : public BinaryNotification {
 public:
  int32_t getSelector() const override { return kSetCalibrationDataSelector; }
  void fromStream(bistream& in) override {
    BinaryNotification::fromStream(in);
    in >> channel >> block;
  }
  void Process() override {
    std::cout << "engine: channel " << channel << ": " << block.length << " bytes restored" << std::endl;
  }
  int32_t channel = 0;
  byteArray block;
};

// The other messages on the notification pipe are for other endpoints.
class ForAnotherEndpoint : public BinaryNotification {
  void Process() override {}
};

}  // namespace

int main(int argc, char* argv[]) {
  if (argc > 1) prefix = argv[1];
  BinaryMessage::defaultSender = kEngineEndpoint;
  registerSelector(kGetCalibrationDataChangeSelector, newMessage<CalibrationRequest>);
  registerSelector(kSetCalibrationDataSelector, newMessage<CalibrationRestore>);
  for (const catalogue::Entry& entry : catalogue::entries()) {
    if (entry.flow == catalogue::Flow::out) registerSelector(entry.selector, newMessage<ForAnotherEndpoint>);
  }

  BinaryOutputFifo mailbox(kCommandFifoPath);  // frames into the daemon
  mailbox.open();
  BinaryMessage::notificationOutput = &mailbox;
  BinaryInputFifo notifications(kNotificationFifoPath);  // frames out of it
  try {
    notifications.open();  // waits for the daemon
  } catch (const std::exception& e) {
    std::cerr << "engine: cannot open " << kNotificationFifoPath << ": " << e.what() << std::endl;
    return 1;
  }
  for (;;) {
    BinaryMessage* read = notifications.getMessage();  // null: a frame refused
    if (read == notGoodResult<BinaryMessage>()) break;
    std::unique_ptr<BinaryMessage> message(read);
    if (message && message->recipient == kEngineEndpoint) message->Process();
  }
  std::cout << "engine: the daemon has closed its notification pipe" << std::endl;
  return 1;
}
