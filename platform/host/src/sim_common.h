/* SPDX-License-Identifier: Apache-2.0 */
// What the HDC and device-manager simulators share: the run-time directory where their
// sockets live, Unix socket addresses in it, and the table of injected failures.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <string>

namespace velmar::hostplat::sim {

// The directory named by the environment variable `env` when it is set and not empty,
// else "$XDG_RUNTIME_DIR/<name>", else "/tmp/<name>-<uid>". Each simulator resolves it
// once, because cooperating processes must agree on it.
std::string resolve_run_dir(const char *env, const char *name);

// Creates `dir` (mode 0700) if it is missing. 0 or an errno value.
int ensure_dir(const std::string &dir);

// Fills `addr` (zeroed first) and `len` for the socket at `path`. False when the path
// does not fit into sun_path.
bool make_unix_addr(const std::string &path, sockaddr_un &addr, socklen_t &len);

// Injected failures, one slot per operation name: the next `count` calls of an operation
// fail with `code`. Every call is counted. Any thread may call.
template <size_t N> class FaultTable {
public:
    explicit constexpr FaultTable(const std::array<const char *, N> &names) : names_(names) {}

    // The slot of the operation `op`, or -1 for an unknown name or null.
    int index_of(const char *op) const
    {
        if (op == nullptr) {
            return -1;
        }
        for (size_t i = 0; i < N; ++i) {
            if (strcmp(op, names_[i]) == 0) {
                return static_cast<int>(i);
            }
        }
        return -1;
    }

    // Counts one call of the operation in slot `index`; true when it must fail, with
    // `code` the injected result.
    bool take(size_t index, int &code)
    {
        std::lock_guard<std::mutex> guard(lock_);
        Fault &fault = faults_[index];
        ++fault.calls;
        if (fault.count == 0) {
            return false;
        }
        --fault.count;
        code = fault.code;
        return true;
    }

    // 0, or EINVAL for an unknown operation.
    int arm(const char *op, uint32_t count, int code)
    {
        const int index = index_of(op);
        if (index < 0) {
            return EINVAL;
        }
        std::lock_guard<std::mutex> guard(lock_);
        faults_[static_cast<size_t>(index)].count = count;
        faults_[static_cast<size_t>(index)].code = code;
        return 0;
    }

    // Disarms every operation; the call counts stay.
    void clear()
    {
        std::lock_guard<std::mutex> guard(lock_);
        for (Fault &fault : faults_) {
            fault.count = 0;
        }
    }

    // Failures still armed for `op`; 0 for an unknown name.
    uint32_t pending(const char *op)
    {
        const int index = index_of(op);
        std::lock_guard<std::mutex> guard(lock_);
        return index < 0 ? 0 : faults_[static_cast<size_t>(index)].count;
    }

    // Calls of `op` so far; 0 for an unknown name.
    uint64_t calls(const char *op)
    {
        const int index = index_of(op);
        std::lock_guard<std::mutex> guard(lock_);
        return index < 0 ? 0 : faults_[static_cast<size_t>(index)].calls;
    }

private:
    struct Fault {
        uint32_t count = 0;
        int code = 0;
        uint64_t calls = 0;
    };

    std::array<const char *, N> names_;
    std::mutex lock_;
    std::array<Fault, N> faults_{};
};

} // namespace velmar::hostplat::sim
