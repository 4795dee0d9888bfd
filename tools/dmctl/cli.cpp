// SPDX-License-Identifier: Apache-2.0
#include "cli.h"

#include <arpa/inet.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>

namespace dmctl {

namespace {

const Option *find_option(const std::vector<Option> &options, const std::string &word)
{
    for (const Option &opt : options) {
        if (word == opt.name || (opt.alias != nullptr && word == opt.alias)) {
            return &opt;
        }
    }
    return nullptr;
}

bool is_option_word(const std::string &word)
{
    // "-5" is a value (a negative retry count), not an option.
    return word.size() > 1 && word[0] == '-' && !isdigit(static_cast<unsigned char>(word[1]));
}

constexpr char kDefaultedMark[] = "DMCTL_LOG_LEVEL_DEFAULTED";

} // namespace

void apply_default_log_level()
{
    if (getenv("VELMAR_LOG_LEVEL") == nullptr) {
        setenv("VELMAR_LOG_LEVEL", "error", 1);
        setenv(kDefaultedMark, "1", 1); // children started by demo see it too
    }
}

bool user_chose_log_level()
{
    return getenv("VELMAR_LOG_LEVEL") != nullptr && getenv(kDefaultedMark) == nullptr;
}

bool parse_options(int argc, char **argv, int first, const std::vector<Option> &options,
                   std::vector<std::string> &positional, bool &help, std::string &error)
{
    bool only_positional = false;
    for (int i = first; i < argc; ++i) {
        std::string word = argv[i];
        if (only_positional || !is_option_word(word)) {
            positional.push_back(word);
            continue;
        }
        if (word == "--") {
            only_positional = true;
            continue;
        }
        if (word == "--help" || word == "-h") {
            help = true;
            continue;
        }
        std::string value;
        bool inline_value = false;
        if (size_t eq = word.find('='); word.rfind("--", 0) == 0 && eq != std::string::npos) {
            value = word.substr(eq + 1);
            word.resize(eq);
            inline_value = true;
        }
        const Option *opt = find_option(options, word);
        if (opt == nullptr) {
            error = "unknown option " + word;
            return false;
        }
        if (opt->takes_value && !inline_value) {
            if (i + 1 >= argc) {
                error = word + " needs a value";
                return false;
            }
            value = argv[++i];
        } else if (!opt->takes_value && inline_value) {
            error = word + " takes no value";
            return false;
        }
        if (std::string why = opt->handler(value); !why.empty()) {
            error = word + ": " + why;
            return false;
        }
    }
    return true;
}

int usage_error(const char *command, const std::string &message)
{
    fprintf(stderr, "dmctl %s: %s\n", command, message.c_str());
    fprintf(stderr, "(dmctl %s --help shows the options)\n", command);
    return kExitUsage;
}

std::string parse_i64(const std::string &text, int64_t min, int64_t max, int64_t &out)
{
    const std::string range = " (" + std::to_string(min) + ".." + std::to_string(max) + ")";
    if (text.empty()) {
        return "a number is missing" + range;
    }
    char *end = nullptr;
    errno = 0;
    long long value = strtoll(text.c_str(), &end, 10);
    if (errno != 0 || *end != '\0') {
        return "'" + text + "' is not a number" + range;
    }
    if (value < min || value > max) {
        return "'" + text + "' is out of range" + range;
    }
    out = value;
    return {};
}

std::string parse_u64(const std::string &text, uint64_t min, uint64_t max, uint64_t &out)
{
    int64_t value = 0;
    std::string why = parse_i64(text, static_cast<int64_t>(min), static_cast<int64_t>(max), value);
    if (why.empty()) {
        out = static_cast<uint64_t>(value);
    }
    return why;
}

std::string parse_rate(const std::string &text, double &out)
{
    char *end = nullptr;
    errno = 0;
    double value = strtod(text.c_str(), &end);
    if (text.empty() || errno != 0 || *end != '\0' || !(value >= 0.0 && value <= 1.0)) {
        return "'" + text + "' is not a rate between 0 and 1";
    }
    out = value;
    return {};
}

std::string parse_ipv4_port(const std::string &text, sockaddr_in &out)
{
    const size_t colon = text.rfind(':');
    if (colon == std::string::npos) {
        return "'" + text + "' is not ADDR:PORT (for instance 127.0.0.1:5555)";
    }
    std::string host = text.substr(0, colon);
    if (host == "localhost") {
        host = "127.0.0.1";
    }
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    if (inet_pton(AF_INET, host.c_str(), &sa.sin_addr) != 1) {
        return "'" + host + "' is not an IPv4 address";
    }
    uint64_t port = 0;
    if (std::string why = parse_u64(text.substr(colon + 1), 0, 65535, port); !why.empty()) {
        return "port " + why;
    }
    sa.sin_port = htons(static_cast<uint16_t>(port));
    out = sa;
    return {};
}

std::string parse_hex(const std::string &text, std::vector<uint8_t> &out)
{
    std::string digits;
    for (size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (c == '0' && i + 1 < text.size() && (text[i + 1] == 'x' || text[i + 1] == 'X')) {
            ++i;
        } else if (isxdigit(static_cast<unsigned char>(c))) {
            digits += c;
        } else if (c != ' ' && c != ':' && c != ',') {
            return std::string("'") + c + "' is not a hex digit";
        }
    }
    if (digits.size() % 2 != 0) {
        return "odd number of hex digits";
    }
    out.clear();
    for (size_t i = 0; i < digits.size(); i += 2) {
        out.push_back(static_cast<uint8_t>(strtoul(digits.substr(i, 2).c_str(), nullptr, 16)));
    }
    return {};
}

std::string read_file(const std::string &path, std::vector<uint8_t> &out)
{
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        return "cannot open '" + path + "': " + strerror(errno);
    }
    out.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    if (in.bad()) {
        return "cannot read '" + path + "'";
    }
    return {};
}

const char *transport_name(Transport t)
{
    switch (t) {
    case Transport::selfloop:
        return "selfloop";
    case Transport::udp:
        return "udp";
    case Transport::hdc:
        return "hdc";
    case Transport::ipc:
        return "ipc";
    case Transport::none:
        break;
    }
    return "none";
}

void add_target_options(std::vector<Option> &options, std::vector<Target> &targets)
{
    options.push_back({"--udp", nullptr, true, [&targets](const std::string &v) {
                           Target t;
                           t.transport = Transport::udp;
                           std::string why = parse_ipv4_port(v, t.udp);
                           if (why.empty()) {
                               targets.push_back(t);
                           }
                           return why;
                       }});
    auto numbered = [&targets](Transport transport) {
        return [&targets, transport](const std::string &v) {
            uint64_t n = 0;
            std::string why = parse_u64(v, 0, 65535, n);
            if (why.empty()) {
                Target t;
                t.transport = transport;
                t.number = static_cast<uint32_t>(n);
                targets.push_back(t);
            }
            return why;
        };
    };
    options.push_back({"--hdc", nullptr, true, numbered(Transport::hdc)});
    options.push_back({"--ipc", nullptr, true, numbered(Transport::ipc)});
}

std::string describe(const Target &target)
{
    // snprintf rather than string concatenation, which trips GCC 12's -Wrestrict at -O3.
    char text[64];
    if (target.transport == Transport::udp) {
        char host[INET_ADDRSTRLEN] = "?";
        inet_ntop(AF_INET, &target.udp.sin_addr, host, sizeof(host));
        snprintf(text, sizeof(text), "udp %s:%u", host, ntohs(target.udp.sin_port));
    } else if (target.transport == Transport::selfloop || target.transport == Transport::none) {
        snprintf(text, sizeof(text), "%s", transport_name(target.transport));
    } else {
        snprintf(text, sizeof(text), "%s %u", transport_name(target.transport), target.number);
    }
    return text;
}

} // namespace dmctl
