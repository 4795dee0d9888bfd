/* SPDX-License-Identifier: Apache-2.0 */
// The subcommands; each takes the whole argv (argv[1] is its name) and returns the exit
// status: 0 success, 1 timed out (or, for bench and demo, something went wrong), 2 usage
// or set-up error.
#ifndef DMCTL_COMMANDS_H
#define DMCTL_COMMANDS_H

namespace dmctl {

int run_serve(int argc, char **argv);
int run_send(int argc, char **argv);
int run_bench(int argc, char **argv);
int run_demo(int argc, char **argv);
// Built only with libpcap (DMCTL_HAVE_CAPTURE); exit status 3 when capturing is not
// permitted.
int run_capture(int argc, char **argv);

} // namespace dmctl

#endif // DMCTL_COMMANDS_H
