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

void OutputFifo::open() {
  if (stream.is_open()) return;
  if (stream.open(path)) {
    stream.clear();
  } else {
    stream.setstate(std::ios::failbit);
  }
  if (stream.fail()) {
    // Left good while closed: the next write fails and marks it bad.
    stream.clear();
    std::cout << "Attempt to open output FIFO failed (no reader yet)" << std::endl;
  } else {
    std::cout << "Opened output FIFO" << std::endl;
  }
}

void OutputFifo::close() {
  if (!stream.is_open()) return;
  if (!stream.close()) stream.setstate(std::ios::failbit);
}
