// Where the messages of building one file record go: straight to VTLLog, or
// kept, formatted, so that a walk that builds records on several threads can
// log each record's messages when that record's turn comes, in walk order,
// and drop those of records it never commits.
#pragma once

#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "base/VTLLog.h"
#include "base/errors.h"

namespace vtl::manifest {

class LogSink {
 public:
  // Messages go to VTLLog at once.
  LogSink() = default;
  // Messages are appended to `lines`, formatted as VTLLog would.
  explicit LogSink(std::vector<std::string>* lines) : lines_(lines) {}

  template <typename... Args>
  void log(std::string_view format, const Args&... args) {
    if (lines_ == nullptr) {
      VTLLog(format, args...);
      return;
    }
    if constexpr (sizeof...(Args) == 0) {
      lines_->push_back(format_message(format, {}));
    } else {
      const LogArg list[] = {LogArg(args)...};
      lines_->push_back(format_message(format, list));
    }
  }

  // Logs kept lines through VTLLog, in order.
  static void replay(const std::vector<std::string>& lines) {
    for (const std::string& line : lines) VTLLog("%s", line);
  }

 private:
  std::vector<std::string>* lines_ = nullptr;
};

}  // namespace vtl::manifest
