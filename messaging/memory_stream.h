// Stream buffers over memory, for framing and unframing messages without
// copies: one reads a block in place, the other grows a reusable buffer and
// lets the writer seek back to patch lengths.
#ifndef DRAVIK_MESSAGING_MEMORY_STREAM_H_
#define DRAVIK_MESSAGING_MEMORY_STREAM_H_

#include <cstddef>
#include <streambuf>
#include <vector>

// Reads `size` bytes at `data`, which must outlive the buffer. Seekable.
class MemoryInputBuffer : public std::streambuf {
 public:
  MemoryInputBuffer(const char* data, std::size_t size);
  // Reads `size` bytes at `data` from now on, from the first.
  void reset(const char* data, std::size_t size);

 protected:
  pos_type seekoff(off_type offset, std::ios_base::seekdir dir, std::ios_base::openmode which) override;
  pos_type seekpos(pos_type position, std::ios_base::openmode which) override;
};

// Collects written bytes in a buffer that keeps its capacity across reset().
// Seeking back overwrites in place; the size is the furthest byte written.
class MemoryOutputBuffer : public std::streambuf {
 public:
  MemoryOutputBuffer();

  void reset();
  const char* data() const { return bytes_.data(); }
  std::size_t size() const;

 protected:
  int_type overflow(int_type c) override;
  std::streamsize xsputn(const char* s, std::streamsize n) override;
  pos_type seekoff(off_type offset, std::ios_base::seekdir dir, std::ios_base::openmode which) override;
  pos_type seekpos(pos_type position, std::ios_base::openmode which) override;

 private:
  void grow(std::size_t needed);

  std::vector<char> bytes_;
  std::size_t high_ = 0;  // furthest byte written before the current put pointer
};

#endif  // DRAVIK_MESSAGING_MEMORY_STREAM_H_
