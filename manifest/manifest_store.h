// The records of one manifest in compact form (record_codec.h): relative
// path to record blob, in path order, with the manifest's intern table.
//
// Memory: about 300 bytes per record (the path, one map node, the blob), so
// that the manifest of a data area of half a million files stays well under
// a gigabyte; the records are turned into Values only when asked for. Paths,
// blobs and map nodes are carved from large blocks that go back all at once
// (a record replaced keeps its space until then): storing a record allocates
// nothing of its own, and dropping half a million of them is a few frees.
//
// Threads: the intern table may be used to encode records on any thread;
// everything else is for one thread at a time.
#pragma once

#include <cstdint>
#include <map>
#include <memory_resource>
#include <optional>
#include <string>
#include <string_view>

#include "base/value.h"
#include "manifest/binary_plist_writer.h"
#include "manifest/record_codec.h"

namespace vtl::manifest {

class ManifestStore {
 public:
  InternTable& strings() { return strings_; }

  // Stores a copy of `blob` (encoded with strings()) under `path`, replacing
  // an earlier record there.
  void set(std::string_view path, std::string_view blob);
  // Stores any value, encoded here.
  void set_value(std::string_view path, const Value& value);
  void set_dictionary(std::string_view path, const Dictionary& dictionary);
  // Drops every record (the intern table keeps its strings).
  void clear();

  bool empty() const { return records_.empty(); }
  std::size_t size() const { return records_.size(); }
  // The value under `path`, or nullopt.
  std::optional<Value> get(std::string_view path) const;
  // Whether the value under `path` is a dictionary, without decoding it.
  bool holds_dictionary(std::string_view path) const;

  // f(std::string_view path) for every record, in path order.
  template <typename F>
  void for_each_path(F f) const {
    for (const auto& [path, blob] : records_) f(std::string_view(path));
  }

  // Every record as a Value: the manifest dictionary.
  Dictionary to_dictionary() const;

  // Writes the manifest dictionary as a binary property list, in time linear
  // in the records and with 8 bytes per written object beyond what is kept
  // already. 0 or an errno value.
  int write_binary(bplist::ByteSink& sink) const;

 private:
  InternTable strings_;
  // Before the records, which live in it.
  std::pmr::monotonic_buffer_resource arena_;
  std::pmr::map<std::pmr::string, std::pmr::string, std::less<>> records_{&arena_};
  std::uint64_t object_bound_ = 0;  // sum of the blobs' bounds
};

}  // namespace vtl::manifest
