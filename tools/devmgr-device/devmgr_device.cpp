// SPDX-License-Identifier: Apache-2.0
// devmgr-device: plays one device of the host's device-manager simulator from a shell.
//
//   devmgr-device DEV_ID listen [--count N] [--timeout MS]
//   devmgr-device DEV_ID echo   [--count N] [--timeout MS]
//   devmgr-device DEV_ID send PID HEX
//
// listen prints every message a process sends to the device, one line each:
// "pid <pid> len <n>: <hex bytes>". echo does the same and answers each message with
// its first 32 bytes, to the process that sent it. send sends the bytes given in hex
// ("01 02 ff" or "0102ff", at most 32) to process PID as device DEV_ID; it works while
// another program holds the device. The directory is VELMAR_DEVMGR_DIR, as for the
// library (see docs/host-platform.md).
//
// -h or --help prints the usage and exits 0.
//
// Exit status: 0 done, 1 failure or time-out, 2 usage.
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "host_devmgr.h"

namespace {

constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;

const char kUsage[] = "usage: devmgr-device DEV_ID listen|echo [--count N] [--timeout MS]\n"
                      "       devmgr-device DEV_ID send PID HEX\n";

const char kHelp[] =
    "\n"
    "Plays device DEV_ID of the host's device-manager simulator (directory\n"
    "VELMAR_DEVMGR_DIR).\n"
    "  listen   print every message a process sends to the device:\n"
    "           \"pid <pid> len <n>: <hex bytes>\"\n"
    "  echo     the same, and answer each message with its first 32 bytes\n"
    "  send     send HEX (\"01 02 ff\" or \"0102ff\", at most 32 bytes) to process PID\n"
    "           as the device\n"
    "  --count N     stop after N messages (default: never)\n"
    "  --timeout MS  give up when no message comes for MS milliseconds\n"
    "Exit status: 0 done, 1 failure or time-out, 2 usage error.\n";

int usage()
{
    fputs(kUsage, stderr);
    return kExitUsage;
}

// -h / --help anywhere on the line: the usage and a summary on stdout, exit 0.
bool wants_help(int argc, char **argv)
{
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "-h") == 0 || strcmp(argv[i], "--help") == 0) {
            return true;
        }
    }
    return false;
}

bool parse_number(const char *text, long min, long max, long &out)
{
    char *end = nullptr;
    errno = 0;
    const long value = strtol(text, &end, 0);
    if (errno != 0 || end == text || *end != '\0' || value < min || value > max) {
        return false;
    }
    out = value;
    return true;
}

// Hex digits, optionally separated by spaces or colons.
bool parse_hex(const char *text, std::vector<uint8_t> &out)
{
    std::string digits;
    for (const char *p = text; *p != '\0'; ++p) {
        if (*p == ' ' || *p == ':') {
            continue;
        }
        if (strchr("0123456789abcdefABCDEF", *p) == nullptr) {
            return false;
        }
        digits += *p;
    }
    if (digits.size() % 2 != 0) {
        return false;
    }
    for (size_t i = 0; i < digits.size(); i += 2) {
        out.push_back(static_cast<uint8_t>(std::stoul(digits.substr(i, 2), nullptr, 16)));
    }
    return true;
}

void print_message(int32_t pid, const uint8_t *bytes, uint32_t len)
{
    printf("pid %d len %u:", pid, len);
    for (uint32_t i = 0; i < len; ++i) {
        printf(" %02x", bytes[i]);
    }
    printf("\n");
    fflush(stdout);
}

struct ServeOptions {
    long count = -1; // messages to handle; negative: for ever
    long timeout_ms = -1;
    bool echo = false;
};

int serve(uint32_t dev_id, const ServeOptions &opt)
{
    host_devmgr_device *dev = host_devmgr_device_open(dev_id);
    if (dev == nullptr) {
        fprintf(stderr, "devmgr-device: cannot open device %u in %s: %s\n", dev_id,
                host_devmgr_dir(), strerror(errno));
        return kExitFailure;
    }
    int status = 0;
    for (long done = 0; opt.count < 0 || done < opt.count; ++done) {
        uint8_t buf[HOST_DEVMGR_MAX_TO_DEVICE];
        uint32_t len = 0;
        int32_t pid = 0;
        int rc = host_devmgr_device_recv_from_process(dev, buf, sizeof(buf), &len, &pid,
                                                      static_cast<int>(opt.timeout_ms));
        if (rc == 0) {
            print_message(pid, buf, len);
            const uint32_t answer = len < HOST_DEVMGR_MAX_TO_PROCESS ? len : HOST_DEVMGR_MAX_TO_PROCESS;
            rc = opt.echo ? host_devmgr_device_send_to_process(dev, pid, buf, answer) : 0;
        }
        if (rc != 0) {
            fprintf(stderr, "devmgr-device: %s\n", strerror(rc));
            status = kExitFailure;
            break;
        }
    }
    host_devmgr_device_close(dev);
    return status;
}

int parse_serve_options(int argc, char **argv, int first, ServeOptions &opt)
{
    for (int i = first; i < argc; i += 2) {
        long *target = strcmp(argv[i], "--count") == 0     ? &opt.count
                       : strcmp(argv[i], "--timeout") == 0 ? &opt.timeout_ms
                                                           : nullptr;
        if (target == nullptr || i + 1 >= argc || !parse_number(argv[i + 1], 0, 0x7fffffff, *target)) {
            return usage();
        }
    }
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    if (wants_help(argc, argv)) {
        fputs(kUsage, stdout);
        fputs(kHelp, stdout);
        return 0;
    }
    long dev_id = 0;
    if (argc < 3 || !parse_number(argv[1], 0, 0xffffffffL, dev_id)) {
        return usage();
    }
    const std::string command = argv[2];
    if (command == "listen" || command == "echo") {
        ServeOptions opt;
        opt.echo = command == "echo";
        int rc = parse_serve_options(argc, argv, 3, opt);
        return rc != 0 ? rc : serve(static_cast<uint32_t>(dev_id), opt);
    }
    long pid = 0;
    std::vector<uint8_t> bytes;
    if (command != "send" || argc != 5 || !parse_number(argv[3], 1, 0x7fffffff, pid) ||
        !parse_hex(argv[4], bytes)) {
        return usage();
    }
    int rc = host_devmgr_send_as_device(static_cast<uint32_t>(dev_id), static_cast<int32_t>(pid),
                                        bytes.data(), static_cast<uint32_t>(bytes.size()));
    if (rc != 0) {
        fprintf(stderr, "devmgr-device: %s\n", strerror(rc));
        return kExitFailure;
    }
    return 0;
}
