/* SPDX-License-Identifier: Apache-2.0 */
// A dmctl started by dmctl (fork and exec of /proc/self/exe), whose standard output is
// read line by line; used by demo to run its servers as separate processes.
#ifndef DMCTL_CHILD_H
#define DMCTL_CHILD_H

#include <sys/types.h>

#include <string>
#include <vector>

namespace dmctl {

class Child {
public:
    Child() = default;
    ~Child(); // stops the child if it still runs
    Child(const Child &) = delete;
    Child &operator=(const Child &) = delete;

    // Starts `dmctl args...`; its stderr is ours, its stdout a pipe to us. The child is
    // sent SIGTERM if this thread ends first. Returns an error text, empty on success.
    std::string start(const std::vector<std::string> &args);

    // Collects lines until one starts with `prefix` (true) or `timeout_ms` passes or the
    // child closes its output (false). All lines read are appended to `lines`.
    bool wait_for_line(const std::string &prefix, int timeout_ms, std::vector<std::string> &lines);

    // Lines that arrive within `wait_ms`.
    std::vector<std::string> read_lines(int wait_ms);

    // SIGTERM, then the exit status (128 + signal when it was killed by one); -1 when
    // it was not running. What the child printed until it ended goes to `tail`.
    int stop(std::vector<std::string> *tail = nullptr);

    pid_t pid() const { return pid_; }

    // Stops every child still running (SIGTERM) and waits for them: for a process that
    // is about to end on a signal. Any thread.
    static void stop_all();

private:
    bool read_some(int timeout_ms); // false at end of output
    bool take_line(std::string &line);

    pid_t pid_ = -1;
    int out_fd_ = -1;
    std::string buffer_;
};

} // namespace dmctl

#endif // DMCTL_CHILD_H
