// The smallest endpoint 2, on libdravik-messaging alone: it accepts every
// analytics filter that the daemon forwards (13004 to endpoint 2) by
// answering 13006 with status 0, upon which the daemon moves the filter file
// into its store; and it notes the channel resets the daemon passes on.
//
//   filter_endpoint [STATUS]    answers with STATUS instead of 0 (refusing)
#include <cstdlib>
#include <exception>
#include <iostream>
#include <memory>
#include <string>

#include "messaging/binary_fifo.h"
#include "store/catalogue.h"
#include "store/service_paths.h"

namespace {

int32_t verdict = 0;

// 13004 to endpoint 2, answered with 13006: the channel and the verdict.
// (The same selector addressed to the engine, 11, announces a stored filter.)
class FilterOffer : public BinaryRequest {
 public:
  int32_t getSelector() const override { return kSetAnalyticsFilterDataSelector; }
  int32_t getResponseSelector() const override { return kSaveAnalyticsFilterDataSelector; }
  void fromStream(bistream& in) override {
    BinaryRequest::fromStream(in);
    in >> channel >> fileName;
  }
  void responseToStream(bostream& out) const override { out << channel << verdict; }
  void Process() override {
    std::cout << "endpoint 2: channel " << channel << ": filter " << fileName << ", status " << verdict << std::endl;
    BinaryRequest::Process();  // sends the answer on notificationOutput
  }
  int32_t channel = 0;
  std::string fileName;
};

// 13001 and 13005: a channel's calibration or filter was reset.
class ChannelReset : public BinaryNotification {
 public:
  void fromStream(bistream& in) override {
    BinaryNotification::fromStream(in);
    in >> channel;
  }
  void Process() override {
    const catalogue::Entry* entry = catalogue::classify(selector, catalogue::Flow::out, recipient, responseSelector);
    std::cout << "endpoint 2: channel " << channel << ": " << (entry ? entry->name : "?") << std::endl;
  }
  int32_t channel = 0;
};

// The other messages on the notification pipe are for other endpoints.
class ForAnotherEndpoint : public BinaryNotification {
  void Process() override {}
};

}  // namespace

int main(int argc, char* argv[]) {
  if (argc > 1) verdict = std::atoi(argv[1]);
  BinaryMessage::defaultSender = kFilterEndpoint;
  registerSelector(kSetAnalyticsFilterDataSelector, newMessage<FilterOffer>);
  registerSelector(kResetCalibrationSelector, newMessage<ChannelReset>);
  registerSelector(kRestoreFactoryFilterSelector, newMessage<ChannelReset>);
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
    std::cerr << "endpoint 2: cannot open " << kNotificationFifoPath << ": " << e.what() << std::endl;
    return 1;
  }
  for (;;) {
    BinaryMessage* read = notifications.getMessage();  // null: a frame refused
    if (read == notGoodResult<BinaryMessage>()) break;
    std::unique_ptr<BinaryMessage> message(read);
    if (message && message->recipient == kFilterEndpoint) message->Process();
  }
  std::cout << "endpoint 2: the daemon has closed its notification pipe" << std::endl;
  return 1;
}
