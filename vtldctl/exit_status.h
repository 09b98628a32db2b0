// What vtldctl's exit status tells a script. Kept in one place so that the
// help text and the code cannot disagree.
#pragma once

namespace vtldctl {

enum ExitStatus : int {
  // Every command answered true (or, for the demo, every step went as told).
  kExitSuccess = 0,
  // Every expected answer arrived and at least one was false; for the demo, a
  // step went otherwise than told.
  kExitFailed = 1,
  // The command line or the JSON request was wrong; nothing was sent.
  kExitUsage = 2,
  // The helper could not be reached, ended the connection before answering,
  // sent a malformed message, or said nothing within the idle time-out (it
  // sends nothing at all to a client without the entitlement or for a command
  // it does not know).
  kExitNoAnswer = 3,
  // A local step failed: a device could not be created, the helper could not
  // be started or stopped, or the demo was not run as root.
  kExitLocalFailure = 4,
};

inline constexpr const char* kExitStatusHelp =
    "Exit status:\n"
    "  0  every command answered true\n"
    "  1  a command answered false (the helper's log says why); a demo step went otherwise\n"
    "  2  bad command line or request; nothing was sent\n"
    "  3  the helper could not be reached, ended the connection, or did not answer within\n"
    "     the time-out (it does not answer a client without the entitlement, nor a command\n"
    "     it does not know: its log says which)\n"
    "  4  a local step failed (creating a device, starting or stopping the helper, not root)";

}  // namespace vtldctl
