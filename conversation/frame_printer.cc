#include "conversation/frame_printer.h"

#include <cstdio>

namespace conversation {
namespace {

// Calibration blocks can be 64 KiB; a text line shows their start.
constexpr std::size_t kBytesShown = 8;

std::string brokenDown(const struct timespec& t, const char* format) {
  struct tm utc;
  time_t seconds = t.tv_sec;
  gmtime_r(&seconds, &utc);
  char text[64];
  strftime(text, sizeof text, format, &utc);
  char millis[24];
  snprintf(millis, sizeof millis, ".%03d", static_cast<int>(t.tv_nsec / 1000000 % 1000));
  return std::string(text) + millis;
}

// Length of the UTF-8 sequence starting at `i`, or 0 if none does.
std::size_t utf8Sequence(const std::string& s, std::size_t i) {
  unsigned char c = static_cast<unsigned char>(s[i]);
  std::size_t n;
  if (c >= 0xC2 && c <= 0xDF) {
    n = 2;
  } else if (c >= 0xE0 && c <= 0xEF) {
    n = 3;
  } else if (c >= 0xF0 && c <= 0xF4) {
    n = 4;
  } else {
    return 0;
  }
  if (i + n > s.size()) return 0;
  for (std::size_t k = 1; k < n; ++k) {
    if ((static_cast<unsigned char>(s[i + k]) & 0xC0) != 0x80) return 0;
  }
  return n;
}

void appendHeaderText(const peer::FrameHeader& h, std::string* out) {
  *out += " " + std::to_string(h.sender) + "->" + std::to_string(h.recipient);
  *out += " id=" + std::to_string(h.id);
  *out += " corr=" + std::to_string(h.correlationId);
  *out += " resp=" + std::to_string(h.responseSelector);
  if (h.flags != 0) {
    char flags[16];
    snprintf(flags, sizeof flags, "0x%x", static_cast<unsigned>(h.flags));
    *out += std::string(" flags=") + flags;
  }
}

void appendHeaderJson(const peer::FrameHeader& h, std::string* out) {
  *out += ",\"sender\":" + std::to_string(h.sender);
  *out += ",\"recipient\":" + std::to_string(h.recipient);
  *out += ",\"id\":" + std::to_string(h.id);
  *out += ",\"correlationId\":" + std::to_string(h.correlationId);
  *out += ",\"responseSelector\":" + std::to_string(h.responseSelector);
  *out += ",\"selector\":" + std::to_string(h.selector);
  *out += ",\"flags\":" + std::to_string(h.flags);
  *out += ",\"version\":" + std::to_string(h.version);
  *out += ",\"timestamp\":" + std::to_string(h.timestamp);
  *out += ",\"argsLength\":" + std::to_string(h.argsLength);
}

struct timespec stampTime(const peer::FrameHeader& h) {
  struct timespec t;
  t.tv_sec = static_cast<time_t>(h.timestamp / 1000);
  t.tv_nsec = static_cast<long>(h.timestamp % 1000) * 1000000;
  if (t.tv_nsec < 0) {
    t.tv_sec -= 1;
    t.tv_nsec += 1000000000;
  }
  return t;
}

int64_t ageMs(const peer::FrameHeader& h, const struct timespec& seen) {
  return static_cast<int64_t>(seen.tv_sec) * 1000 + seen.tv_nsec / 1000000 - h.timestamp;
}

// Milliseconds while they read well, seconds beyond.
std::string ageText(int64_t ms) {
  if (ms > -100000 && ms < 100000) return std::to_string(ms) + "ms";
  return std::to_string(ms / 1000) + "s";
}

std::string withoutNewline(const std::string& message) {
  return !message.empty() && message.back() == '\n' ? message.substr(0, message.size() - 1) : message;
}

}  // namespace

struct timespec wallClock() {
  struct timespec t;
  clock_gettime(CLOCK_REALTIME, &t);
  return t;
}

std::string timeOfDay(const struct timespec& t) { return brokenDown(t, "%H:%M:%S"); }

std::string isoTime(const struct timespec& t) { return brokenDown(t, "%Y-%m-%dT%H:%M:%S") + "Z"; }

std::string hexString(const std::string& bytes, bool spaced) {
  static const char digits[] = "0123456789abcdef";
  std::string out;
  out.reserve(bytes.size() * 3);
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    unsigned char c = static_cast<unsigned char>(bytes[i]);
    if (spaced && i != 0) out += ' ';
    out += digits[c >> 4];
    out += digits[c & 0xF];
  }
  return out;
}

std::string jsonQuote(const std::string& text) {
  std::string out = "\"";
  for (std::size_t i = 0; i < text.size();) {
    unsigned char c = static_cast<unsigned char>(text[i]);
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c == '\n') {
      out += "\\n";
    } else if (c == '\t') {
      out += "\\t";
    } else if (c == '\r') {
      out += "\\r";
    } else if (c < 0x20 || c == 0x7F) {
      char escaped[8];
      snprintf(escaped, sizeof escaped, "\\u%04x", c);
      out += escaped;
    } else if (c >= 0x80) {
      std::size_t n = utf8Sequence(text, i);
      if (n == 0) {
        char escaped[8];
        snprintf(escaped, sizeof escaped, "\\u%04x", c);
        out += escaped;
        ++i;
      } else {
        out.append(text, i, n);
        i += n;
      }
      continue;
    } else {
      out += static_cast<char>(c);
    }
    ++i;
  }
  return out + "\"";
}

std::string textQuote(const std::string& text) {
  std::string out = "\"";
  for (unsigned char c : text) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c == '\n') {
      out += "\\n";
    } else if (c >= 0x20 && c < 0x7F) {
      out += static_cast<char>(c);
    } else {
      char escaped[8];
      snprintf(escaped, sizeof escaped, "\\x%02x", c);
      out += escaped;
    }
  }
  return out + "\"";
}

std::string frameText(const peer::DecodedFrame& frame, bool withHex) {
  std::string line;
  if (!frame.decoded()) {
    line = "undecodable frame (" + frame.error + ")";
    if (frame.hasHeader) {
      appendHeaderText(frame.header, &line);
      line += " selector=" + std::to_string(frame.header.selector);
    }
    return line + ": " + hexString(frame.raw, true);
  }
  line = frame.entry->name;
  appendHeaderText(frame.header, &line);
  for (std::size_t i = 0; i < frame.args.size(); ++i) {
    const catalogue::Arg& field = frame.entry->args[i];
    const peer::Value& a = frame.args[i];
    line += std::string(" ") + field.name + "=";
    switch (field.type) {
      case catalogue::ArgType::int32:
      case catalogue::ArgType::uint32:
        line += std::to_string(a.number);
        break;
      case catalogue::ArgType::string:
        line += textQuote(a.bytes);
        break;
      case catalogue::ArgType::bytes:
        line += "<" + std::to_string(a.bytes.size()) + " bytes";
        if (!a.bytes.empty()) {
          line += ": " + hexString(a.bytes.substr(0, kBytesShown), true);
          if (a.bytes.size() > kBytesShown) line += " ...";
        }
        line += ">";
        break;
    }
  }
  for (const std::string& note : frame.notes) line += " [" + note + "]";
  if (withHex) line += " frame=" + hexString(frame.raw, true);
  return line;
}

std::string frameLineText(const peer::DecodedFrame& frame, const FrameView& view, bool withHex) {
  std::string line = timeOfDay(view.seen) + (view.direction == catalogue::Flow::in ? " in " : " out ");
  if (!frame.decoded()) return line + frameText(frame, withHex);
  line += frameText(frame, false);
  line += " stamp=" + timeOfDay(stampTime(frame.header));
  if (view.showAge) line += " age=" + ageText(ageMs(frame.header, view.seen));
  if (view.answers) {
    char after[32];
    snprintf(after, sizeof after, "%.1fms", view.answers->afterMs);
    line += " answers=" + std::to_string(view.answers->requestId) + " after=" + after;
  }
  if (withHex) line += " frame=" + hexString(frame.raw, true);
  return line;
}

std::string frameJson(const peer::DecodedFrame& frame, const FrameView& view, bool withHex) {
  std::string out = "{\"time\":" + jsonQuote(isoTime(view.seen));
  out += std::string(",\"direction\":") + (view.direction == catalogue::Flow::in ? "\"in\"" : "\"out\"");
  if (!frame.decoded()) {
    out += ",\"class\":null,\"error\":" + jsonQuote(frame.error);
    if (frame.hasHeader) appendHeaderJson(frame.header, &out);
    return out + ",\"frame\":" + jsonQuote(hexString(frame.raw, false)) + "}";
  }
  out += ",\"class\":" + jsonQuote(frame.entry->name);
  appendHeaderJson(frame.header, &out);
  out += ",\"stamp\":" + jsonQuote(isoTime(stampTime(frame.header)));
  if (view.showAge) out += ",\"ageMs\":" + std::to_string(ageMs(frame.header, view.seen));
  out += ",\"args\":{";
  for (std::size_t i = 0; i < frame.args.size(); ++i) {
    const catalogue::Arg& field = frame.entry->args[i];
    const peer::Value& a = frame.args[i];
    if (i != 0) out += ",";
    out += jsonQuote(field.name) + ":";
    switch (field.type) {
      case catalogue::ArgType::int32:
      case catalogue::ArgType::uint32:
        out += std::to_string(a.number);
        break;
      case catalogue::ArgType::string:
        out += jsonQuote(a.bytes);
        break;
      case catalogue::ArgType::bytes:
        out += jsonQuote(hexString(a.bytes, false));
        break;
    }
  }
  out += "}";
  if (!frame.notes.empty()) {
    out += ",\"notes\":[";
    for (std::size_t i = 0; i < frame.notes.size(); ++i) out += (i ? "," : "") + jsonQuote(frame.notes[i]);
    out += "]";
  }
  if (view.answers) {
    char after[32];
    snprintf(after, sizeof after, "%.3f", view.answers->afterMs);
    out += ",\"answers\":{\"id\":" + std::to_string(view.answers->requestId);
    out += ",\"class\":" + (view.answers->requestClass.empty() ? "null" : jsonQuote(view.answers->requestClass));
    out += std::string(",\"afterMs\":") + after + "}";
  }
  if (withHex) out += ",\"frame\":" + jsonQuote(hexString(frame.raw, false));
  return out + "}";
}

const char* priorityName(int priority) {
  static const char* const names[] = {"emerg", "alert", "crit", "err", "warning", "notice", "info", "debug"};
  return priority >= 0 && priority < 8 ? names[priority] : "unknown";
}

std::string logText(int priority, const std::string& message, const struct timespec& seen) {
  return timeOfDay(seen) + " log " + priorityName(priority) + " " + withoutNewline(message);
}

std::string logJson(int priority, const std::string& message, const struct timespec& seen) {
  return "{\"time\":" + jsonQuote(isoTime(seen)) + ",\"log\":\"" + priorityName(priority) +
         "\",\"message\":" + jsonQuote(withoutNewline(message)) + "}";
}

}  // namespace conversation
