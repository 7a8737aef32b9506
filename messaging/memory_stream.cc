#include "messaging/memory_stream.h"

#include <algorithm>
#include <cstring>

MemoryInputBuffer::MemoryInputBuffer(const char* data, std::size_t size) { reset(data, size); }

void MemoryInputBuffer::reset(const char* data, std::size_t size) {
  char* begin = const_cast<char*>(data);  // never written through
  setg(begin, begin, begin + size);
}

std::streambuf::pos_type MemoryInputBuffer::seekoff(off_type offset, std::ios_base::seekdir dir,
                                                    std::ios_base::openmode which) {
  if (!(which & std::ios_base::in)) return pos_type(off_type(-1));
  off_type base = dir == std::ios_base::beg ? 0 : dir == std::ios_base::cur ? gptr() - eback() : egptr() - eback();
  off_type target = base + offset;
  if (target < 0 || target > egptr() - eback()) return pos_type(off_type(-1));
  setg(eback(), eback() + target, egptr());
  return pos_type(target);
}

std::streambuf::pos_type MemoryInputBuffer::seekpos(pos_type position, std::ios_base::openmode which) {
  return seekoff(off_type(position), std::ios_base::beg, which);
}

MemoryOutputBuffer::MemoryOutputBuffer() : bytes_(256) { reset(); }

void MemoryOutputBuffer::reset() {
  high_ = 0;
  setp(bytes_.data(), bytes_.data() + bytes_.size());
}

std::size_t MemoryOutputBuffer::size() const {
  return std::max(high_, static_cast<std::size_t>(pptr() - pbase()));
}

void MemoryOutputBuffer::grow(std::size_t needed) {
  std::size_t position = static_cast<std::size_t>(pptr() - pbase());
  high_ = size();
  std::size_t capacity = bytes_.size();
  while (capacity < needed) capacity *= 2;
  bytes_.resize(capacity);
  setp(bytes_.data(), bytes_.data() + bytes_.size());
  pbump(static_cast<int>(position));
}

std::streambuf::int_type MemoryOutputBuffer::overflow(int_type c) {
  if (traits_type::eq_int_type(c, traits_type::eof())) return traits_type::not_eof(c);
  grow(static_cast<std::size_t>(pptr() - pbase()) + 1);
  *pptr() = traits_type::to_char_type(c);
  pbump(1);
  return c;
}

std::streamsize MemoryOutputBuffer::xsputn(const char* s, std::streamsize n) {
  std::size_t position = static_cast<std::size_t>(pptr() - pbase());
  if (position + static_cast<std::size_t>(n) > bytes_.size()) grow(position + static_cast<std::size_t>(n));
  std::memcpy(pptr(), s, static_cast<std::size_t>(n));
  pbump(static_cast<int>(n));
  return n;
}

std::streambuf::pos_type MemoryOutputBuffer::seekoff(off_type offset, std::ios_base::seekdir dir,
                                                     std::ios_base::openmode which) {
  if (!(which & std::ios_base::out)) return pos_type(off_type(-1));
  off_type end = static_cast<off_type>(size());
  off_type base = dir == std::ios_base::beg ? 0 : dir == std::ios_base::cur ? pptr() - pbase() : end;
  off_type target = base + offset;
  if (target < 0 || target > end) return pos_type(off_type(-1));
  high_ = static_cast<std::size_t>(end);
  setp(bytes_.data(), bytes_.data() + bytes_.size());
  pbump(static_cast<int>(target));
  return pos_type(target);
}

std::streambuf::pos_type MemoryOutputBuffer::seekpos(pos_type position, std::ios_base::openmode which) {
  return seekoff(off_type(position), std::ios_base::beg, which);
}
