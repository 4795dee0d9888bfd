/* SPDX-License-Identifier: Apache-2.0 */
// Command-line parsing shared by the subcommands: a small option table, value parsers
// and the usage-error convention (message on stderr, exit status 2).
#ifndef DMCTL_CLI_H
#define DMCTL_CLI_H

#include <netinet/in.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace dmctl {

constexpr int kExitOk = 0;
constexpr int kExitTimedOut = 1; // also: bench or demo found something wrong
constexpr int kExitUsage = 2;    // usage or set-up error

// One option of a subcommand. `handler` gets the value (empty for a flag) and returns
// an error text, empty when the value is fine.
struct Option {
    const char *name;  // "--timeout"
    const char *alias; // "-t", or nullptr
    bool takes_value;
    std::function<std::string(const std::string &)> handler;
};

// The library's warnings (a poller saying it stopped, for one) are noise on a terminal:
// unless the user set VELMAR_LOG_LEVEL, dmctl and the processes it starts log errors
// only. Call before anything logs.
void apply_default_log_level();
// Whether VELMAR_LOG_LEVEL came from the user rather than from dmctl.
bool user_chose_log_level();

// Parses argv[first..argc). Words that are not options go to `positional`. "--name=value"
// and "--name value" are both accepted; "--" ends the options. On error returns false
// with `error` set (naming the option). "--help" and "-h" set `help`.
bool parse_options(int argc, char **argv, int first, const std::vector<Option> &options,
                   std::vector<std::string> &positional, bool &help, std::string &error);

// Reports a usage or set-up error of `command` on stderr and returns kExitUsage.
int usage_error(const char *command, const std::string &message);

// Value parsers; each returns an error text, empty on success.
std::string parse_u64(const std::string &text, uint64_t min, uint64_t max, uint64_t &out);
std::string parse_i64(const std::string &text, int64_t min, int64_t max, int64_t &out);
std::string parse_rate(const std::string &text, double &out); // 0..1
// "ADDR:PORT" with a dotted IPv4 address or "localhost"; port 0..65535.
std::string parse_ipv4_port(const std::string &text, sockaddr_in &out);
// Hex digits, optionally separated by spaces, colons or commas; "0x" prefix allowed.
std::string parse_hex(const std::string &text, std::vector<uint8_t> &out);
std::string read_file(const std::string &path, std::vector<uint8_t> &out);

// The three transports a user can name, from --udp, --hdc and --ipc.
enum class Transport { none, selfloop, udp, hdc, ipc };

struct Target {
    Transport transport = Transport::none;
    sockaddr_in udp{};   // --udp
    uint32_t number = 0; // --hdc N (device id / interface number), --ipc DEV (device id)
};

const char *transport_name(Transport t);

// Options --udp, --hdc and --ipc that fill `targets` (one entry per option given).
void add_target_options(std::vector<Option> &options, std::vector<Target> &targets);

// Text of a target: "udp 127.0.0.1:5555", "hdc 3", "ipc 7".
std::string describe(const Target &target);

} // namespace dmctl

#endif // DMCTL_CLI_H
