#include "service/service_setup.h"

#include "krx/connection.h"
#include "operations/VTLHOperations.h"
#include "service/VTLProgressUpdater.h"

namespace vtl {
namespace {

// An open KRX transaction: termination-imminent waits until it is closed.
class TransactionKeepAlive final : public KeepAlive {
 public:
  void hold() override { krx::transaction_begin(); }
  void release() override { krx::transaction_end(); }
};

}  // namespace

void set_up_service() {
  // Never destroyed: the helper ends by exit() from inside a request.
  static TransactionKeepAlive* const keep_alive = new TransactionKeepAlive();
  VTLHOperations::sharedInstance().setUp(
      {.progress = &VTLProgressUpdater::sharedInstance(), .keep_alive = keep_alive});
}

}  // namespace vtl
