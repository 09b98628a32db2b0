// The helper's name on KRX, which both it and its clients use: the helper
// listens on <run directory>/<name>, a client connects there.
#pragma once

namespace vtl {

inline constexpr const char* kServiceName = "com.tessal.vantreldhelper";

}  // namespace vtl
