// One request's round trip through the helper, against the floor any server
// on this machine has: a bare Unix-socket echo of the same frame, side by side
// in one run.
//
//   ours   a trivial request to vtld_helper on a simulated device
//          ("removeWorkContainer:" of a folder that does not exist: checked,
//          logged and answered true, nothing touched), one "Response" back
//   echo   a server thread per connection that reads the request's frame and
//          writes the same bytes back, nothing decoded
//
// each with one client, then with 32 clients at once (each on a connection of
// its own, all started together). Reports, per run, the median and the 99th
// percentile latency over every round trip of that run, then the medians of
// those over the runs, and the ratio ours / echo (the goal: 3 or less). Also
// the helper's own CPU time per round trip (all its threads, from /proc, in
// clock ticks), steadier than latency on a busy machine.
//
//   roundtrip_bench [--requests N] [--runs R] [--dir DIR] [--helper PATH]
//
// N round trips per client (default 2000 alone, N/10 each of 32), R runs
// (default 5). Needs root (the helper confines itself with chroot).
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <fmt/format.h>

#include "base/unique_fd.h"
#include "bench/cpu_time.h"
#include "krx/client.h"
#include "krx/codec.h"
#include "krx/value.h"
#include "platform/sim/device.h"
#include "vtldctl/helper_process.h"
#include "vtldctl/sim.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr int kManyClients = 32;

struct Options {
  int requests = 2000;
  int runs = 5;
  std::string dir = "/var/tmp/vtl-roundtrip-bench";
  std::string helper;
};

[[noreturn]] void die(const std::string& message) {
  fmt::print(stderr, "roundtrip_bench: {}\n", message);
  std::exit(1);
}

Options parse(int argc, char** argv) {
  Options o;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (i + 1 >= argc)
      die("usage: roundtrip_bench [--requests N] [--runs R] [--dir DIR] [--helper PATH]");
    const std::string value = argv[++i];
    if (arg == "--requests") {
      o.requests = std::max(kManyClients, std::atoi(value.c_str()));
    } else if (arg == "--runs") {
      o.runs = std::max(1, std::atoi(value.c_str()));
    } else if (arg == "--dir") {
      o.dir = value;
    } else if (arg == "--helper") {
      o.helper = value;
    } else {
      die("unknown option " + arg);
    }
  }
  return o;
}

krx::Value trivial_request() {
  return krx::make_dictionary("removeWorkContainer:",
                              "/private/var/VTLWorkContainer/absent-in-roundtrip-bench");
}

// One client's round trips; each latency in microseconds.
using RoundTrip = std::function<void()>;

struct Latency {
  double median_us;
  double p99_us;
};

Latency summarise(std::vector<double> samples) {
  std::sort(samples.begin(), samples.end());
  const auto at = [&](double q) {
    return samples[std::min(samples.size() - 1,
                            static_cast<std::size_t>(q * static_cast<double>(samples.size())))];
  };
  return {at(0.5), at(0.99)};
}

double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

// Runs `clients` clients at once, each made by `connect` and doing `count`
// round trips with its own connection; every latency of every client.
std::vector<double> measure(int clients, int count,
                            const std::function<std::function<void()>()>& connect) {
  std::vector<std::function<void()>> trips;
  trips.reserve(static_cast<std::size_t>(clients));
  for (int c = 0; c < clients; ++c) trips.push_back(connect());
  std::vector<std::vector<double>> per_client(static_cast<std::size_t>(clients));
  std::atomic<int> ready{0};
  std::vector<std::thread> threads;
  threads.reserve(static_cast<std::size_t>(clients));
  for (int c = 0; c < clients; ++c) {
    threads.emplace_back([&, c] {
      std::vector<double>& out = per_client[static_cast<std::size_t>(c)];
      out.reserve(static_cast<std::size_t>(count));
      // All start together.
      ready.fetch_add(1);
      while (ready.load() < clients) std::this_thread::yield();
      for (int i = 0; i < count; ++i) {
        const auto start = Clock::now();
        trips[static_cast<std::size_t>(c)]();
        out.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
      }
    });
  }
  for (std::thread& t : threads) t.join();
  std::vector<double> all;
  for (const auto& v : per_client) all.insert(all.end(), v.begin(), v.end());
  return all;
}

// --- The echo -------------------------------------------------------------------

bool read_exactly(int fd, std::uint8_t* p, std::size_t n) {
  while (n > 0) {
    const ssize_t got = ::read(fd, p, n);
    if (got <= 0) return false;
    p += got;
    n -= static_cast<std::size_t>(got);
  }
  return true;
}

bool write_all(int fd, const std::uint8_t* p, std::size_t n) {
  while (n > 0) {
    const ssize_t put = ::send(fd, p, n, MSG_NOSIGNAL);
    if (put <= 0) return false;
    p += put;
    n -= static_cast<std::size_t>(put);
  }
  return true;
}

// A server that writes every frame of `frame_size` bytes straight back, one
// thread per connection. Stops when destroyed.
class EchoServer {
 public:
  EchoServer(const std::string& path, std::size_t frame_size)
      : path_(path), frame_size_(frame_size) {
    ::unlink(path.c_str());
    listener_ = vtl::UniqueFd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    if (!listener_ ||
        ::bind(listener_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(listener_.get(), 128) != 0) {
      die("cannot listen on " + path);
    }
    acceptor_ = std::thread([this] { accept_loop(); });
  }
  ~EchoServer() {
    ::shutdown(listener_.get(), SHUT_RDWR);
    acceptor_.join();
    for (std::thread& t : workers_) t.join();
    ::unlink(path_.c_str());
  }
  EchoServer(const EchoServer&) = delete;
  EchoServer& operator=(const EchoServer&) = delete;

 private:
  void accept_loop() {
    for (;;) {
      const int fd = ::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC);
      if (fd < 0) return;
      workers_.emplace_back([this, fd] {
        const vtl::UniqueFd connection(fd);
        std::vector<std::uint8_t> frame(frame_size_);
        while (read_exactly(fd, frame.data(), frame.size()) &&
               write_all(fd, frame.data(), frame.size())) {
        }
      });
    }
  }

  std::string path_;
  std::size_t frame_size_;
  vtl::UniqueFd listener_;
  std::thread acceptor_;
  std::vector<std::thread> workers_;
};

// A client of the echo: the frame out, the same number of bytes back.
std::function<void()> echo_client(const std::string& path, const std::vector<std::uint8_t>& frame) {
  auto fd = std::make_shared<vtl::UniqueFd>(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  if (::connect(fd->get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    die("cannot connect to the echo");
  }
  return [fd, &frame, back = std::make_shared<std::vector<std::uint8_t>>(frame.size())] {
    if (!write_all(fd->get(), frame.data(), frame.size()) ||
        !read_exactly(fd->get(), back->data(), back->size())) {
      die("the echo went away");
    }
  };
}

// A client of the helper: the request out, its one response back.
std::function<void()> helper_client(const std::string& socket) {
  std::string error;
  std::optional<krx::Client> client = krx::Client::connect_path(socket, &error);
  if (!client) die(error);
  auto shared = std::make_shared<krx::Client>(std::move(*client));
  const krx::Value request = trivial_request();
  const krx::Value expected = krx::make_dictionary("Response", true);
  return [shared, request, expected] {
    if (!shared->send(request)) die("cannot send to the helper");
    krx::Client::Received r = shared->receive(std::chrono::seconds(30));
    const auto* m = std::get_if<krx::Client::Message>(&r);
    if (m == nullptr || !(m->value == expected)) die("the helper did not answer true");
  };
}

struct Row {
  std::vector<double> median_us;
  std::vector<double> p99_us;
  std::vector<double> cpu_us;
  void add(const Latency& l) {
    median_us.push_back(l.median_us);
    p99_us.push_back(l.p99_us);
  }
};

}  // namespace

int main(int argc, char** argv) {
  Options o = parse(argc, argv);
  if (::geteuid() != 0) die("run as root: the helper confines itself with chroot");
  if (o.helper.empty()) {
    o.helper = (fs::path(vtldctl::own_executable()).parent_path() / "vtld_helper").string();
  }
  fs::remove_all(o.dir);
  const std::string device = o.dir + "/device";
  std::string error = platform::sim::create_device(device, {});
  if (!error.empty()) die(error);
  // The helper's own client is this program: entitle it.
  error = platform::sim::write_entitlements_file(
      device, "roundtrip_bench", vtldctl::own_executable(), "",
      {{platform::sim::kClientEntitlement, vtl::Value(true)}});
  if (!error.empty()) die(error);

  vtldctl::HelperStart how;
  how.program = o.helper;
  how.arguments = {"--root", device};
  std::optional<vtldctl::HelperProcess> helper = vtldctl::HelperProcess::start(how, &error);
  if (!helper) die(error);
  const std::string socket = vtldctl::device_socket_path(device);
  if (!helper->wait_until_serving(socket, std::chrono::seconds(30), &error)) die(error);

  const std::vector<std::uint8_t> frame = krx::encode_frame(trivial_request());
  const EchoServer echo(o.dir + "/echo.sock", frame.size());
  const auto ours = [&] { return helper_client(socket); };
  const auto theirs = [&] { return echo_client(o.dir + "/echo.sock", frame); };
  // Entitlements changed within the last two seconds are read again on every
  // request, in case a change fell within the same clock tick as a read. A
  // device's were installed long before its first request: the runs begin
  // once these are older than that, after a few round trips that let the
  // helper read them once more and keep them.
  std::this_thread::sleep_for(std::chrono::seconds(3));
  static_cast<void>(measure(1, 10, ours));

  fmt::print("round trips of one {}-byte request, {} runs\n", frame.size(), o.runs);
  for (const int clients : {1, kManyClients}) {
    const int count = clients == 1 ? o.requests : o.requests / 10;
    Row helper_row;
    Row echo_row;
    for (int run = 0; run < o.runs; ++run) {
      // A different side goes first in each run.
      const auto helper_run = [&] {
        const double before = bench::process_cpu_seconds(helper->pid());
        helper_row.add(summarise(measure(clients, count, ours)));
        helper_row.cpu_us.push_back((bench::process_cpu_seconds(helper->pid()) - before) * 1e6 /
                                    static_cast<double>(clients * count));
      };
      if (run % 2 == 0) {
        helper_run();
        echo_row.add(summarise(measure(clients, count, theirs)));
      } else {
        echo_row.add(summarise(measure(clients, count, theirs)));
        helper_run();
      }
    }
    const double h50 = median(helper_row.median_us);
    const double h99 = median(helper_row.p99_us);
    const double e50 = median(echo_row.median_us);
    const double e99 = median(echo_row.p99_us);
    fmt::print("\n{} client{}, {} round trips each (medians over runs, microseconds)\n", clients,
               clients == 1 ? "" : "s", count);
    fmt::print("  {:<8} {:>10} {:>10}\n", "", "median", "p99");
    fmt::print("  {:<8} {:>10.1f} {:>10.1f}\n", "helper", h50, h99);
    fmt::print("  {:<8} {:>10.1f} {:>10.1f}\n", "echo", e50, e99);
    fmt::print("  {:<8} {:>9.2f}x {:>9.2f}x   (helper / echo; goal: 3 or less)\n", "ratio",
               h50 / e50, h99 / e99);
    fmt::print("  helper CPU time per round trip: {:.1f} us\n", median(helper_row.cpu_us));
  }
  fs::remove_all(o.dir);
  return 0;
}
