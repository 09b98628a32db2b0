// CPU time as the benchmarks count it: user and system time together, for a
// running process (every thread) or for the children already waited for.
#pragma once

#include <sys/resource.h>
#include <sys/types.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>

namespace bench {

// Seconds of CPU used so far by every thread the running process `pid` has
// had, those that have ended included (its utime and stime, in clock ticks).
inline double process_cpu_seconds(pid_t pid) {
  std::ifstream stat_file("/proc/" + std::to_string(pid) + "/stat");
  std::string line;
  std::getline(stat_file, line);
  // The fields after the parenthesised name; utime and stime are the 14th
  // and 15th of the whole line.
  const std::size_t name_end = line.rfind(')');
  if (name_end == std::string::npos) return 0;
  std::istringstream fields(line.substr(name_end + 2));
  std::string field;
  double ticks = 0;
  for (int i = 3; i <= 15 && fields >> field; ++i) {
    if (i >= 14) ticks += std::stod(field);
  }
  return ticks / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

// Seconds of CPU in a resource usage report.
inline double cpu_seconds(const rusage& usage) {
  return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
         static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// Seconds of CPU used by this process's children that have been waited for
// (tools run through std::system), so far.
inline double children_cpu_seconds() {
  rusage usage{};
  ::getrusage(RUSAGE_CHILDREN, &usage);
  return cpu_seconds(usage);
}

}  // namespace bench
