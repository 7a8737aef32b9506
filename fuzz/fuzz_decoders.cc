// Runs the value decoders over arbitrary bytes and encodes back whatever they
// produced. The input is a program: one byte chooses the next decoder, the
// bytes after it are what that decoder reads, until the input runs out.
#include <cstddef>
#include <cstdint>
#include <istream>
#include <ostream>
#include <string>

#include "fuzz/fuzz_support.h"
#include "messaging/binary_stream.h"
#include "messaging/memory_stream.h"

namespace {

template <class T>
void decodeAndEncode(bistream& in, bostream& out) {
  T value{};
  in >> value;
  out << value;
}

// Blocks are not copyable: they are decoded and encoded in place.
template <class Block>
void decodeAndEncodeBlock(bistream& in, bostream& out) {
  Block value;
  in >> value;
  out << value;
}

void run(std::istream& source) {
  bistream in(source);
  MemoryOutputBuffer encoded;
  std::ostream target(&encoded);
  bostream out(target);
  for (;;) {
    unsigned char op = 0;
    in >> op;
    if (!source) return;
    switch (op % 16) {
      case 0: decodeAndEncode<bool>(in, out); break;
      case 1: decodeAndEncode<char>(in, out); break;
      case 2: decodeAndEncode<signed char>(in, out); break;
      case 3: decodeAndEncode<unsigned char>(in, out); break;
      case 4: decodeAndEncode<int16_t>(in, out); break;
      case 5: decodeAndEncode<uint16_t>(in, out); break;
      case 6: decodeAndEncode<int32_t>(in, out); break;
      case 7: decodeAndEncode<uint32_t>(in, out); break;
      case 8: decodeAndEncode<float>(in, out); break;
      case 9: decodeAndEncode<int64_t>(in, out); break;
      case 10: decodeAndEncode<uint64_t>(in, out); break;
      case 11: decodeAndEncode<std::string>(in, out); break;
      case 12: decodeAndEncodeBlock<byteArray>(in, out); break;
      case 13: decodeAndEncodeBlock<integerArray>(in, out); break;
      case 14: decodeAndEncode<Timestamp>(in, out); break;
      default: {  // the text form of a timestamp
        Timestamp t;
        source >> t;
        target << t;
        source.clear(source.rdstate() & ~std::ios::failbit);
        break;
      }
    }
    if (encoded.size() > (1u << 20)) encoded.reset();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool silenced = silenceOutput();
  (void)silenced;
  if (size == 0) return 0;
  // The first byte chooses whether the source raises on a short read, as
  // the mailbox stream does, or only records it.
  MemoryInputBuffer buffer(reinterpret_cast<const char*>(data) + 1, size - 1);
  std::istream source(&buffer);
  if (data[0] & 1) source.exceptions(std::ios::failbit | std::ios::badbit);
  try {
    run(source);
  } catch (const std::ios_base::failure&) {
  }
  return 0;
}
