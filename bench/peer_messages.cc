#include "bench/peer_messages.h"

#include <fcntl.h>
#include <unistd.h>

#include <fstream>
#include <iterator>


void FilterPathRequest::toStream(bostream& out) const {
  BinaryRequest::toStream(out);
  out << channel;
}

void FilterPathAnswer::fromStream(bistream& in) {
  BinaryMessage::fromStream(in);
  in >> path;
}

void CalibrationAnswer::toStream(bostream& out) const {
  BinaryCommand::toStream(out);
  out << calibrationData;
}

FrameRecorder::FrameRecorder(std::string scratchPath) : path_(std::move(scratchPath)), writer_(path_.c_str()) {
  // The writer opens without creating.
  int fd = ::open(path_.c_str(), O_CREAT | O_TRUNC | O_WRONLY | O_CLOEXEC, 0600);
  if (fd >= 0) ::close(fd);
}

void FrameRecorder::add(const BinaryMessage& message) { writer_.send(message); }

std::string FrameRecorder::frames() const {
  std::ifstream in(path_, std::ios::binary);
  return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

uint32_t loadBigEndian32(const char* p) {
  const auto* b = reinterpret_cast<const unsigned char*>(p);
  return (uint32_t{b[0]} << 24) | (uint32_t{b[1]} << 16) | (uint32_t{b[2]} << 8) | uint32_t{b[3]};
}

void storeBigEndian32(uint32_t value, char* p) {
  p[0] = static_cast<char>(value >> 24);
  p[1] = static_cast<char>(value >> 16);
  p[2] = static_cast<char>(value >> 8);
  p[3] = static_cast<char>(value);
}
