#include "manifest/manifest_store.h"

#include <array>
#include <deque>
#include <limits>
#include <vector>

namespace vtl::manifest {
namespace {

using Ref = bplist::ObjectWriter::Ref;
using Tag = BlobReader::Tag;
constexpr Ref kNone = std::numeric_limits<Ref>::max();

// Writes blobs as property-list objects, children first. Leaves that repeat
// across records are written once: interned strings, booleans, empty data and
// small integers (owners, modes, link counts, device numbers).
class BlobWriter {
 public:
  BlobWriter(bplist::ByteSink& sink, std::uint64_t object_bound, const InternTable& strings)
      : writer_(sink, object_bound), strings_(strings), string_refs_(strings.size(), kNone) {
    small_integers_.fill(kNone);
  }

  Ref path(std::string_view p) { return writer_.string(p); }
  Ref blob(std::string_view b) {
    BlobReader r(b);
    return emit(r, 0);
  }
  bplist::ObjectWriter& writer() { return writer_; }

 private:
  struct Scratch {
    std::vector<Ref> keys;
    std::vector<Ref> values;
  };

  Ref interned(std::uint64_t id) {
    Ref& ref = string_refs_.at(id);
    if (ref == kNone) ref = writer_.string(strings_.at(static_cast<std::uint32_t>(id)));
    return ref;
  }

  Ref emit(BlobReader& r, std::size_t depth) {
    const Tag tag = r.tag();
    switch (tag) {
      case Tag::kString:
        return interned(r.varint());
      case Tag::kInlineString:
        return writer_.string(r.bytes(r.varint()));
      case Tag::kFalse:
        if (false_ == kNone) false_ = writer_.boolean(false);
        return false_;
      case Tag::kTrue:
        if (true_ == kNone) true_ = writer_.boolean(true);
        return true_;
      case Tag::kInteger: {
        const std::int64_t v = r.zigzag();
        if (v >= 0 && v < static_cast<std::int64_t>(small_integers_.size())) {
          Ref& ref = small_integers_[static_cast<std::size_t>(v)];
          if (ref == kNone) ref = writer_.integer(v);
          return ref;
        }
        return writer_.integer(v);
      }
      case Tag::kReal:
        return writer_.real(r.real());
      case Tag::kDate:
        return writer_.date(Date(std::chrono::nanoseconds(r.zigzag())));
      case Tag::kData: {
        const std::uint64_t n = r.varint();
        if (n == 0) {
          if (empty_data_ == kNone) empty_data_ = writer_.data({});
          return empty_data_;
        }
        const std::string_view bytes = r.bytes(n);
        return writer_.data({reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()});
      }
      case Tag::kArray: {
        const std::uint64_t n = r.varint();
        Scratch& s = scratch(depth);
        s.values.clear();
        for (std::uint64_t i = 0; i < n; ++i) s.values.push_back(emit(r, depth + 1));
        return writer_.array(s.values);
      }
      case Tag::kDictionary:
      case Tag::kInlineDictionary: {
        const std::uint64_t n = r.varint();
        Scratch& s = scratch(depth);
        s.keys.clear();
        s.values.clear();
        for (std::uint64_t i = 0; i < n; ++i) {
          s.keys.push_back(tag == Tag::kDictionary ? interned(r.varint())
                                                   : writer_.string(r.bytes(r.varint())));
          s.values.push_back(emit(r, depth + 1));
        }
        return writer_.dictionary(s.keys, s.values);
      }
    }
    return kNone;
  }

  Scratch& scratch(std::size_t depth) {
    while (scratch_.size() <= depth) scratch_.emplace_back();
    return scratch_[depth];
  }

  bplist::ObjectWriter writer_;
  const InternTable& strings_;
  std::vector<Ref> string_refs_;
  std::array<Ref, 4096> small_integers_{};
  Ref true_ = kNone;
  Ref false_ = kNone;
  Ref empty_data_ = kNone;
  std::deque<Scratch> scratch_;  // a deque: references to a level survive deeper levels
};

}  // namespace

void ManifestStore::set(std::string_view path, std::string_view blob) {
  const std::uint64_t bound = blob_object_bound(blob);
  // Walks deliver paths nearly in order: try the end first.
  if (records_.empty() || records_.rbegin()->first < path) {
    records_.emplace_hint(records_.end(), path, blob);
  } else {
    auto it = records_.find(path);
    if (it != records_.end()) {
      object_bound_ -= blob_object_bound(it->second);
      it->second.assign(blob);
    } else {
      records_.emplace(path, blob);
    }
  }
  object_bound_ += bound;
}

void ManifestStore::set_value(std::string_view path, const Value& value) {
  RecordEncoder e(&strings_);
  e.value(value);
  set(path, e.take());
}

void ManifestStore::set_dictionary(std::string_view path, const Dictionary& dictionary) {
  RecordEncoder e(&strings_);
  e.begin_dictionary(dictionary.size());
  for (const auto& [key, item] : dictionary) {
    e.key(std::string_view(key));
    e.value(item);
  }
  set(path, e.take());
}

void ManifestStore::clear() {
  records_.clear();
  arena_.release();
  object_bound_ = 0;
}

std::optional<Value> ManifestStore::get(std::string_view path) const {
  auto it = records_.find(path);
  if (it == records_.end()) return std::nullopt;
  return decode_blob(it->second, &strings_);
}

bool ManifestStore::holds_dictionary(std::string_view path) const {
  auto it = records_.find(path);
  if (it == records_.end()) return false;
  BlobReader r(it->second);
  const Tag tag = r.tag();
  return tag == Tag::kDictionary || tag == Tag::kInlineDictionary;
}

Dictionary ManifestStore::to_dictionary() const {
  Dictionary out;
  for (const auto& [path, blob] : records_) {
    out.emplace_hint(out.end(), std::string(path), decode_blob(blob, &strings_));
  }
  return out;
}

int ManifestStore::write_binary(bplist::ByteSink& sink) const {
  // One object for the top dictionary and one per path, then the records'.
  const std::uint64_t bound = 1 + records_.size() + object_bound_;
  BlobWriter writer(sink, bound, strings_);
  std::vector<Ref> keys;
  std::vector<Ref> values;
  keys.reserve(records_.size());
  values.reserve(records_.size());
  for (const auto& [path, blob] : records_) {
    keys.push_back(writer.path(path));
    values.push_back(writer.blob(blob));
  }
  return writer.writer().finish(writer.writer().dictionary(keys, values));
}

}  // namespace vtl::manifest
