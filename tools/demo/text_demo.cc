// The text message framework in use. A client asks a server for the state of
// a channel; the server answers the request and then announces a change with
// a notification. Two named pipes in a temporary directory carry the lines:
//
//   client --- requests ---> server
//   client <--- answers ---- server
//
// Every line is printed where it is sent or received (between them the
// endpoints print their own "Opened output FIFO"):
//
//   client -> [1 1732000000123] ChannelState 2
//   server <- [1 1732000000123] ChannelState 2
//   client <- [1 1732000000124] ChannelStateResponse channel 2 calibrated
//   client <- [4 1732000000124] FilterChanged 2
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <iostream>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>

#include "messaging/text_message.h"

namespace {

std::mutex printMutex;

void print(const char* who, const Message& message) {
  std::ostringstream line;
  line << who << ' ';
  message.toStream(line) << '\n';
  std::lock_guard<std::mutex> lock(printMutex);
  std::cout << line.str() << std::flush;
}

// Asks for the state of a channel. The server answers it by calling
// Process(): the answer's text comes from responseToStream().
class ChannelStateRequest : public Request {
 public:
  const char* getSelector() const override { return "ChannelState"; }
  std::istream& fromStream(std::istream& in) override { return in >> channel; }
  std::ostream& toStream(std::ostream& out) const override { return Message::toStream(out) << ' ' << channel; }
  void responseToStream(std::ostream& out) const override { out << "channel " << channel << " calibrated"; }

  int32_t channel = -1;
};

// The client's view of the answer: the rest of the line as text.
class ChannelStateAnswer : public Notification {
 public:
  const char* getSelector() const override { return "ChannelStateResponse"; }
  std::istream& fromStream(std::istream& in) override { return std::getline(in, state); }
  std::ostream& toStream(std::ostream& out) const override { return Message::toStream(out) << ' ' << state; }

  std::string state;
};

// Sent by the server when a channel's filter changes.
class FilterChangedNotification : public Notification {
 public:
  const char* getSelector() const override { return "FilterChanged"; }
  std::istream& fromStream(std::istream& in) override { return in >> channel; }
  std::ostream& toStream(std::ostream& out) const override { return Message::toStream(out) << ' ' << channel; }

  int32_t channel = -1;
};

const TextSelectorRegistration registerRequest("ChannelState", newTextMessage<ChannelStateRequest>);
const TextSelectorRegistration registerAnswer("ChannelStateResponse", newTextMessage<ChannelStateAnswer>);
const TextSelectorRegistration registerNotification("FilterChanged", newTextMessage<FilterChangedNotification>);

// A message that was read, or null after reporting what came instead.
std::unique_ptr<Message> receive(InputFifo& input, const char* who) {
  Message* message = input.getMessage();
  if (message == nullptr || message == notGoodResult<Message>()) {
    std::cerr << who << ": nothing usable on " << input.path << std::endl;
    return nullptr;
  }
  return std::unique_ptr<Message>(message);
}

// Answers one request, then announces a filter change; both leave through
// textNotificationFifo.
bool serve(InputFifo& requests) {
  requests.open();  // waits for the client to open its end
  std::unique_ptr<Message> request = receive(requests, "server");
  if (!request) return false;
  print("server <-", *request);
  request->Process();

  FilterChangedNotification changed;
  changed.channel = 2;
  changed.Process();
  return true;
}

}  // namespace

int main() {
  char dir[] = "/tmp/text-demo-XXXXXX";
  if (mkdtemp(dir) == nullptr) {
    std::cerr << "cannot make a temporary directory" << std::endl;
    return EXIT_FAILURE;
  }
  const std::string requestsPath = std::string(dir) + "/requests";
  const std::string answersPath = std::string(dir) + "/answers";

  InputFifo serverRequests(requestsPath.c_str());
  OutputFifo serverAnswers(answersPath.c_str());
  OutputFifo clientRequests(requestsPath.c_str());
  InputFifo clientAnswers(answersPath.c_str());
  serverRequests.create();
  serverAnswers.create();
  textNotificationFifo = &serverAnswers;

  bool served = false;
  std::thread server([&] { served = serve(serverRequests); });

  ChannelStateRequest request;
  request.channel = 2;
  print("client ->", request);
  clientRequests.send(request);

  bool answered = true;
  clientAnswers.open();  // waits for the server's first answer to open the pipe
  for (int i = 0; i < 2 && answered; ++i) {
    std::unique_ptr<Message> message = receive(clientAnswers, "client");
    if (message) print("client <-", *message);
    answered = message != nullptr;
  }
  server.join();

  serverRequests.close();
  serverAnswers.close();
  clientRequests.close();
  clientAnswers.close();
  unlink(requestsPath.c_str());
  unlink(answersPath.c_str());
  rmdir(dir);
  return served && answered ? EXIT_SUCCESS : EXIT_FAILURE;
}
