#include "conversation/pairing.h"

namespace conversation {
namespace {

using catalogue::Flow;

Flow opposite(Flow flow) { return flow == Flow::in ? Flow::out : Flow::in; }

int64_t channelOf(const peer::DecodedFrame& frame) {
  const peer::Value* value = frame.arg("channel");
  return value != nullptr ? value->number : -1;
}

double millisecondsBetween(const struct timespec& from, const struct timespec& to) {
  return static_cast<double>(to.tv_sec - from.tv_sec) * 1e3 + static_cast<double>(to.tv_nsec - from.tv_nsec) / 1e6;
}

}  // namespace

std::optional<Answered> Pairing::observe(const peer::DecodedFrame& frame, Flow flow, const struct timespec& seen) {
  if (!frame.hasHeader) return std::nullopt;
  const peer::FrameHeader& h = frame.header;
  std::optional<Answered> answered;
  auto waiting = open_.find({flow, h.selector});
  if (waiting != open_.end()) {
    std::deque<Open>& requests = waiting->second;
    auto match = requests.end();
    for (auto r = requests.begin(); r != requests.end() && match == requests.end(); ++r) {
      if (h.correlationId != 0 && h.correlationId == r->id) match = r;
    }
    if (match == requests.end() && h.selector == kSaveAnalyticsFilterDataSelector) {
      int64_t channel = channelOf(frame);
      for (auto r = requests.begin(); r != requests.end() && match == requests.end(); ++r) {
        if (channel >= 0 && r->channel == channel) match = r;
      }
    }
    if (match != requests.end()) {
      answered = Answered{match->id, match->className, millisecondsBetween(match->seen, seen), match->channel};
      requests.erase(match);
    }
  }
  // dravik answers a 13002 with the selector it names, even 0.
  if (h.responseSelector != 0 || (flow == Flow::in && h.selector == kGetAnalyticsFilterDataSelector)) {
    std::deque<Open>& requests = open_[{opposite(flow), h.responseSelector}];
    requests.push_back({h.id, channelOf(frame), frame.decoded() ? frame.entry->name : "", seen});
    if (requests.size() > kOpenRequestLimit) requests.pop_front();
  }
  return answered;
}

}  // namespace conversation
