// The KRX wire format, version 1.
//
//   frame = "KRX1" | u32le length of value | value
//   value = tag (1 byte) | payload    (tags are krx::Type's wire values)
//
// Strings and keys are UTF-8 without NUL; dictionaries never repeat a key; a
// frame is at most 16 MiB and values nest at most 64 deep.
//
// Size: kMaxFrameSize counts the whole frame, the 8-byte header included, so
// the largest value is kMaxFrameSize - kFrameHeaderSize bytes.
//
// Depth: the frame's own value is at depth 1 and an element of an array or a
// dictionary at depth d is at depth d + 1. A value at depth kMaxDepth is
// accepted; one at kMaxDepth + 1 makes the frame malformed. So 64 arrays
// nested in one another frame, 65 do not.
//
// Both functions are pure and may be called from any thread. Decoding never
// trusts a length or count beyond the bytes that are there, so hostile input
// costs at most a bounded multiple of the frame's size in memory.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <variant>
#include <vector>

#include "krx/value.h"

namespace krx {

inline constexpr std::size_t kFrameHeaderSize = 8;
inline constexpr std::size_t kMaxFrameSize = std::size_t{16} << 20;  // header and value
inline constexpr int kMaxDepth = 64;

// Encodes one frame. Values that cannot be framed (a string with a NUL or
// invalid UTF-8, a repeated key, too deep, too large) give an empty vector.
std::vector<std::uint8_t> encode_frame(const Value& value);

struct DecodeError {
  std::string reason;  // e.g. "bad magic", "unknown tag 0x0c at offset 9"
};

// Result of looking at the front of a receive buffer.
struct NeedMore {
  std::size_t bytes_wanted;  // at least this many more bytes are needed
};
struct Decoded {
  Value value;
  std::size_t frame_size;  // bytes consumed from the buffer
};
using DecodeResult = std::variant<NeedMore, Decoded, DecodeError>;

// Decodes the first frame of `buffer`. A malformed frame is reported as soon as
// its header shows it (bad magic, over the size limit), without waiting for the
// rest of it. Until the whole frame is there the answer is NeedMore and the
// value is not looked at, so feeding a frame in pieces costs one header check
// per piece and one parse at the end.
DecodeResult decode_frame(std::span<const std::uint8_t> buffer);

}  // namespace krx
