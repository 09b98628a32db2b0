// A hold on the helper's life: while one is held, the helper is not ended
// (an order to end waits until it is released). The service supplies one
// over its messaging facility; operations take one around work that must not
// be cut short.
#pragma once

namespace vtl {

class KeepAlive {
 public:
  virtual ~KeepAlive() = default;
  virtual void hold() = 0;
  virtual void release() = 0;

  // Holds `keep_alive` (when there is one) for the life of the scope.
  class Scope {
   public:
    explicit Scope(KeepAlive* keep_alive) : keep_alive_(keep_alive) {
      if (keep_alive_ != nullptr) keep_alive_->hold();
    }
    ~Scope() {
      if (keep_alive_ != nullptr) keep_alive_->release();
    }
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;

   private:
    KeepAlive* keep_alive_;
  };
};

}  // namespace vtl
