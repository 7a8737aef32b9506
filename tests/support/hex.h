// Byte strings written and shown as hexadecimal, so that tests state exact
// wire bytes the way they are documented: "00 00 00 2C, 00 00 00 01".
#ifndef DRAVIK_TESTS_SUPPORT_HEX_H_
#define DRAVIK_TESTS_SUPPORT_HEX_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

// The bytes of `hex`: pairs of hex digits (either case); blanks, commas and
// line breaks between pairs are ignored. Fails the current test on anything
// else.
std::string bytesFromHex(const std::string& hex);
std::vector<uint8_t> hexBytes(const std::string& hex);

// The bytes as uppercase pairs separated by one blank: "00 00 00 2C".
std::string toHex(const void* data, std::size_t size);
std::string toHex(const std::string& bytes);
std::string toHex(const std::vector<uint8_t>& bytes);

// `hex` rewritten in the form toHex() gives, for comparing with it.
std::string canonicalHex(const std::string& hex);

// Fixed-width big-endian encodings, built without the code under test.
std::string be16(uint16_t value);
std::string be32(uint32_t value);
std::string be64(uint64_t value);

#endif  // DRAVIK_TESTS_SUPPORT_HEX_H_
