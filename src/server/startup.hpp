// From the entry point to a served listener, and from there to the exit status.
#pragma once

namespace spotserver {

// Runs the server. Returns the exit status of the process:
//   0  help or version shown, detached process confirmed, stopped by SIGINT or SIGTERM
//   1  token, certificate, daemon set-up, PID file, bind or accept loop failed
//   2  settings
// The reason stands on standard error.
int run(int argc, char** argv);

}  // namespace spotserver
