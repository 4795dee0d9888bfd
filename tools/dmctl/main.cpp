// SPDX-License-Identifier: Apache-2.0
// dmctl: a command-line peer for the framework's transports, built on the public C API.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "cli.h"
#include "commands.h"
#include "velmar_ext.h"

namespace {

void print_help(FILE *out)
{
    fputs("usage: dmctl COMMAND [OPTIONS]\n"
          "\n"
          "commands:\n"
          "  serve   answer requests on UDP, HDC or IPC (echoes the payload)\n"
          "  send    send one request and print the answer\n"
          "  bench   closed-loop load against a server: round trips per second, latency\n"
          "  demo    one self-contained run over the self-loop, UDP and HDC\n"
          "  capture show the framework's UDP frames on the wire (libpcap)\n"
          "\n"
          "dmctl COMMAND --help describes a command; dmctl --version tells the versions of\n"
          "dmctl and of the library it loaded. Example:\n"
          "  dmctl serve --udp 127.0.0.1:5555 &\n"
          "  dmctl send --udp 127.0.0.1:5555 hello\n"
          "\n"
          "Exit status: 0 success, 1 timed out (bench, demo: something failed), 2 usage or\n"
          "set-up error, 3 capturing is not permitted (capture).\n",
          out);
}

} // namespace

int main(int argc, char **argv)
{
    dmctl::apply_default_log_level();
    if (argc < 2) {
        print_help(stderr);
        return dmctl::kExitUsage;
    }
    const char *command = argv[1];
    if (strcmp(command, "--help") == 0 || strcmp(command, "-h") == 0 ||
        strcmp(command, "help") == 0) {
        print_help(stdout);
        return dmctl::kExitOk;
    }
    if (strcmp(command, "--version") == 0 || strcmp(command, "-V") == 0) {
        // dmctl is built with the library's headers; the loaded library may be newer.
        printf("dmctl %s\nlibvelmar_sastox %s\n", VELMAR_SASTOX_VERSION_STRING, velmar_version());
        return dmctl::kExitOk;
    }
    if (strcmp(command, "serve") == 0) {
        return dmctl::run_serve(argc, argv);
    }
    if (strcmp(command, "send") == 0) {
        return dmctl::run_send(argc, argv);
    }
    if (strcmp(command, "bench") == 0) {
        return dmctl::run_bench(argc, argv);
    }
    if (strcmp(command, "demo") == 0) {
        return dmctl::run_demo(argc, argv);
    }
    if (strcmp(command, "capture") == 0) {
#ifdef DMCTL_HAVE_CAPTURE
        return dmctl::run_capture(argc, argv);
#else
        fputs("dmctl capture: this dmctl was built without libpcap, so it cannot capture; "
              "install libpcap-dev (scripts/install-deps.sh) and build again\n",
              stderr);
        return dmctl::kExitUsage;
#endif
    }
    fprintf(stderr,
            "dmctl: unknown command '%s' (serve, send, bench, demo, capture; dmctl --help)\n",
            command);
    return dmctl::kExitUsage;
}
