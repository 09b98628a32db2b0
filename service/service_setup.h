// Assembles the service: hands each shared instance what it needs, once, at
// start-up. The helper calls it before it listens; in-process tests of the
// dispatcher call it in their fixtures.
#pragma once

namespace vtl {

// The operations report progress through the shared VTLProgressUpdater (so
// that it reaches the client as "Progress" messages) and hold the helper
// alive through KRX transactions.
void set_up_service();

}  // namespace vtl
