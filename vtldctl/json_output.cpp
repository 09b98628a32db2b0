#include "vtldctl/json_output.h"

#include <openssl/evp.h>

#include <chrono>
#include <cmath>
#include <cstdint>
#include <string>

#include <fmt/format.h>

namespace vtldctl {
namespace {

std::string base64(const krx::Data& data) {
  std::string text(4 * ((data.size() + 2) / 3) + 1, '\0');
  const int length = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()), data.data(),
                                     static_cast<int>(data.size()));
  text.resize(static_cast<std::size_t>(length));
  return text;
}

// RFC 3339 in UTC, with the nanoseconds when there are any.
std::string date_text(krx::Date date) {
  const UtcTime at = utc_time(date.nanoseconds_since_1970);
  std::string text =
      fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}", static_cast<int>(at.day.year()),
                  static_cast<unsigned>(at.day.month()), static_cast<unsigned>(at.day.day()),
                  at.time.hours().count(), at.time.minutes().count(), at.time.seconds().count());
  if (at.nanoseconds != 0) text += fmt::format(".{:09}", at.nanoseconds);
  return text + "Z";
}

std::string uuid_text(const krx::Uuid& uuid) {
  std::string text;
  for (std::size_t i = 0; i < uuid.bytes.size(); ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
    text += fmt::format("{:02x}", uuid.bytes[i]);
  }
  return text;
}

Json typed(const char* type, Json value) { return Json{{type, std::move(value)}}; }

struct ToJson {
  Json operator()(krx::Null /*unused*/) const { return nullptr; }
  Json operator()(bool b) const { return b; }
  Json operator()(std::int64_t i) const { return i; }
  Json operator()(std::uint64_t u) const { return typed("$uint64", u); }
  Json operator()(double d) const {
    if (std::isfinite(d)) return d;
    return typed("$double", std::isnan(d) ? "nan" : (d > 0 ? "inf" : "-inf"));
  }
  Json operator()(krx::Date d) const { return typed("$date", date_text(d)); }
  Json operator()(const krx::Data& d) const { return typed("$data", base64(d)); }
  Json operator()(const std::string& s) const { return s; }
  Json operator()(const krx::Uuid& u) const { return typed("$uuid", uuid_text(u)); }
  Json operator()(krx::Fd fd) const { return typed("$fd", fd.index); }
  Json operator()(const krx::Array& array) const {
    Json out = Json::array();
    for (const krx::Value& item : array) out.push_back(json_from_krx(item));
    return out;
  }
  Json operator()(const krx::Dictionary& dictionary) const {
    Json out = Json::object();
    for (const auto& [key, item] : dictionary) out[key] = json_from_krx(item);
    return out;
  }
};

}  // namespace

UtcTime utc_time(std::int64_t nanoseconds_since_1970) {
  using namespace std::chrono;
  // Whole seconds first: the day of an instant near either end of the
  // nanosecond range does not fit back into nanoseconds.
  constexpr std::int64_t kPerSecond = 1'000'000'000;
  std::int64_t whole = nanoseconds_since_1970 / kPerSecond;
  std::int64_t fraction = nanoseconds_since_1970 % kPerSecond;
  if (fraction < 0) {
    --whole;
    fraction += kPerSecond;
  }
  const sys_seconds at{seconds(whole)};
  const sys_days day = floor<days>(at);
  return UtcTime{year_month_day(day), hh_mm_ss<seconds>(at - day), fraction};
}

Json json_from_krx(const krx::Value& value) { return std::visit(ToJson{}, value.storage()); }

void print_json_line(std::FILE* out, const Json& object) {
  fmt::print(out, "{}\n", object.dump(-1, ' ', false, Json::error_handler_t::replace));
  (void)std::fflush(out);
}

}  // namespace vtldctl
