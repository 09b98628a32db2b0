// The simulated device's own test manifest signer, so that what the tools
// sign for a device is accepted by the helper serving it.
//
// At creation a device gets a fresh hierarchy of its own: a root (EC P-256),
// which becomes the test policy's anchor, and a signer leaf under it (RSA
// 2048, as manifest signatures are) listing the test signer usage. The key stays with the
// device's state, outside what the handset would hold:
//
//   DIR/etc/vtld/trust/test/policy.plist            the test signer usage
//   DIR/etc/vtld/trust/test/sim-test-root.pem       the anchor
//   DIR/etc/vtld/trust/production/policy.plist      the production signer
//                                                   usage, and no anchor: the
//                                                   production root is the
//                                                   vendor's
//   DIR/sim/test-signer/signer.key                  the leaf's key (0600)
//   DIR/sim/test-signer/signer.pem                  the leaf
//   DIR/sim/test-signer/root.pem                    a copy of the anchor
//
// The device's "SigningFuse" is false (development hardware), so the test
// signer is good enough there.
#pragma once

#include <string>
#include <string_view>

namespace platform::sim {

inline constexpr std::string_view kTestSignerDirectory = "/sim/test-signer";
inline constexpr std::string_view kTestSignerKeyFile = "signer.key";
inline constexpr std::string_view kTestSignerCertificateFile = "signer.pem";
inline constexpr std::string_view kTestSignerRootFile = "root.pem";
inline constexpr std::string_view kTestSignerAnchorFile = "sim-test-root.pem";

// Lays out the signer policies and the test signer in the device at `dir`.
// Returns an empty string on success, else what went wrong.
std::string install_test_signer(const std::string& dir);

}  // namespace platform::sim
