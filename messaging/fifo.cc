#include "messaging/fifo.h"

#include <sys/stat.h>

#include <cerrno>
#include <iostream>

void Fifo::create() {
  if (mkfifo(path, 0666) == 0 || errno == EEXIST) return;
  std::cerr << "Failed to create FIFO";
}

void InputFifo::open() {
  if (stream.is_open()) return;
  if (stream.open(path)) {
    stream.clear();
  } else {
    stream.setstate(std::ios::failbit);
  }
}

void InputFifo::close() {
  if (!stream.is_open()) return;
  if (!stream.close()) stream.setstate(std::ios::failbit);
}

OutputFifo::Opening OutputFifo::openStream() {
  if (stream.is_open()) return Opening::wasOpen;
  if (stream.open(path)) {
    stream.clear();
    return Opening::opened;
  }
  stream.clear();
  return Opening::failed;
}

void OutputFifo::open() {
  switch (openStream()) {
    case Opening::wasOpen:
      break;
    case Opening::opened:
      std::cout << "Opened output FIFO" << std::endl;
      break;
    case Opening::failed:
      std::cout << "Attempt to open output FIFO failed (no reader yet)" << std::endl;
      break;
  }
}

void OutputFifo::close() {
  if (!stream.is_open()) return;
  if (!stream.close()) stream.setstate(std::ios::failbit);
}
