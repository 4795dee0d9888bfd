// SPDX-License-Identifier: Apache-2.0
// The device-manager simulator's shared machinery: directory, names, datagrams, faults.
#include <dirent.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "devmgr_sim_internal.h"
#include "sim_common.h"

namespace velmar::hostplat::devmgr {

namespace {

struct DirCloser {
    void operator()(DIR *dir) const { closedir(dir); }
};

sim::FaultTable<3> g_faults({"open", "send", "recv"}); // indexed by Op

} // namespace

const std::string &run_dir()
{
    static const std::string dir = sim::resolve_run_dir(HOST_DEVMGR_DIR_ENV, "velmar-devmgr");
    return dir;
}

int ensure_run_dir() { return sim::ensure_dir(run_dir()); }

std::string device_name(uint32_t dev_id) { return "dev-" + std::to_string(dev_id) + ".sock"; }

std::string endpoint_name(int32_t pid, uint32_t seq)
{
    return "mgr-" + std::to_string(pid) + "-" + std::to_string(seq) + ".sock";
}

int32_t endpoint_pid(const char *file_name)
{
    int pid = -1;
    unsigned seq = 0;
    int used = 0;
    if (sscanf(file_name, "mgr-%d-%u.sock%n", &pid, &seq, &used) != 2 ||
        file_name[used] != '\0' || pid <= 0) {
        return -1;
    }
    return pid;
}

int make_addr(const std::string &name, sockaddr_un &addr, socklen_t &addr_len)
{
    return sim::make_unix_addr(run_dir() + "/" + name, addr, addr_len) ? 0 : ENAMETOOLONG;
}

int bind_endpoint(const std::string &name, bool replace)
{
    sockaddr_un addr{};
    socklen_t addr_len = 0;
    int rc = ensure_run_dir();
    if (rc == 0) {
        rc = make_addr(name, addr, addr_len);
    }
    if (rc != 0) {
        return -rc;
    }
    int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return -errno;
    }
    if (replace) {
        unlink(addr.sun_path);
    }
    if (bind(fd, reinterpret_cast<sockaddr *>(&addr), addr_len) != 0) {
        rc = errno;
        close(fd);
        return -rc;
    }
    return fd;
}

int send_datagram(int fd, const std::string &name, uint32_t dev_id, const void *data, uint32_t len)
{
    sockaddr_un addr{};
    socklen_t addr_len = 0;
    int rc = make_addr(name, addr, addr_len);
    if (rc != 0) {
        return rc;
    }
    uint8_t datagram[kMaxDatagram];
    const WireHeader header{kMagic, dev_id};
    memcpy(datagram, &header, sizeof(header));
    if (len != 0) {
        memcpy(datagram + sizeof(header), data, len);
    }
    if (sendto(fd, datagram, sizeof(header) + len, MSG_DONTWAIT | MSG_NOSIGNAL,
               reinterpret_cast<sockaddr *>(&addr), addr_len) < 0) {
        return errno;
    }
    return 0;
}

int send_to_process(int fd, int32_t pid, uint32_t dev_id, const void *data, uint32_t len)
{
    std::unique_ptr<DIR, DirCloser> dir(opendir(run_dir().c_str()));
    if (dir == nullptr) {
        return errno; // ENOENT: nobody has made the directory yet
    }
    int last_error = ENOENT;
    bool delivered = false;
    while (const dirent *entry = readdir(dir.get())) {
        if (endpoint_pid(entry->d_name) != pid) {
            continue;
        }
        const std::string name = entry->d_name;
        int rc = send_datagram(fd, name, dev_id, data, len);
        if (rc == 0) {
            delivered = true;
        } else {
            last_error = rc;
            if (rc == ECONNREFUSED) { // its descriptor is closed: the name is dead
                unlink((run_dir() + "/" + name).c_str());
            }
        }
    }
    return delivered ? 0 : last_error;
}

void sweep_dead_endpoints()
{
    std::unique_ptr<DIR, DirCloser> dir(opendir(run_dir().c_str()));
    if (dir == nullptr) {
        return;
    }
    while (const dirent *entry = readdir(dir.get())) {
        const int32_t pid = endpoint_pid(entry->d_name);
        if (pid > 0 && kill(pid, 0) != 0 && errno == ESRCH) {
            unlink((run_dir() + "/" + entry->d_name).c_str());
        }
    }
}

int check_datagram(const uint8_t *bytes, ssize_t got, WireHeader &header)
{
    if (got < static_cast<ssize_t>(sizeof(header))) {
        return EBADMSG;
    }
    memcpy(&header, bytes, sizeof(header));
    return header.magic == kMagic ? 0 : EBADMSG;
}

bool is_dead_endpoint(const std::string &name)
{
    sockaddr_un addr{};
    socklen_t addr_len = 0;
    if (make_addr(name, addr, addr_len) != 0) {
        return false;
    }
    int probe = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (probe < 0) {
        return false;
    }
    bool dead = connect(probe, reinterpret_cast<sockaddr *>(&addr), addr_len) != 0 &&
                (errno == ECONNREFUSED || errno == ENOENT);
    close(probe);
    return dead;
}

bool take_fault(Op op, int &code) { return g_faults.take(static_cast<size_t>(op), code); }

} // namespace velmar::hostplat::devmgr

using namespace velmar::hostplat::devmgr;

extern "C" {

int host_devmgr_fail_next(const char *op, uint32_t count, int code)
{
    return g_faults.arm(op, count, code);
}

void host_devmgr_fail_clear(void) { g_faults.clear(); }

const char *host_devmgr_dir(void) { return run_dir().c_str(); }

} // extern "C"
