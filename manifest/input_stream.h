// The byte sources a signed manifest is read from: a file opened by path, or
// bytes already in memory (tools, tests and the fuzzer).
//
// Reading never blocks on something that is not a file: only a regular file
// (a link to one is followed) can be opened, and it is opened without
// blocking, so a FIFO planted at a manifest path cannot hang the helper.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace vtl {

class InputStream {
 public:
  virtual ~InputStream() = default;
  // Reads up to `buffer.size()` bytes: how many (0 at the end), or -1 with
  // `*error` set to an errno value.
  virtual long read(std::span<std::uint8_t> buffer, int* error) = 0;
  // How many bytes are left to read, when the source knows.
  virtual std::optional<std::uint64_t> remaining() const { return std::nullopt; }
};

class FileInputStream final : public InputStream {
 public:
  // A stream on the regular file at `path`; nullptr with `*error` set when
  // it cannot be opened or is not a regular file.
  static std::unique_ptr<FileInputStream> inputStreamWithFileAtPath(const std::string& path,
                                                                    int* error);
  ~FileInputStream() override;
  FileInputStream(const FileInputStream&) = delete;
  FileInputStream& operator=(const FileInputStream&) = delete;

  long read(std::span<std::uint8_t> buffer, int* error) override;
  std::optional<std::uint64_t> remaining() const override;
  // Closes the file; reads fail afterwards. Also done on destruction.
  void close();

 private:
  FileInputStream(int fd, std::uint64_t size) : fd_(fd), size_(size) {}
  int fd_;
  std::uint64_t size_;
  std::uint64_t offset_ = 0;
};

class DataInputStream final : public InputStream {
 public:
  explicit DataInputStream(std::span<const std::uint8_t> bytes) : bytes_(bytes) {}
  long read(std::span<std::uint8_t> buffer, int* error) override;
  std::optional<std::uint64_t> remaining() const override { return bytes_.size() - offset_; }

 private:
  std::span<const std::uint8_t> bytes_;
  std::size_t offset_ = 0;
};

// What reading a whole stream gave: the bytes, or the errno value that ended
// the read (EFBIG when the stream holds more than the limit allows).
struct StreamContents {
  std::vector<std::uint8_t> bytes;
  int error = 0;
};
StreamContents read_whole_stream(InputStream& stream, std::size_t max_bytes);

}  // namespace vtl
