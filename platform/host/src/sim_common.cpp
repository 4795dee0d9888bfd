// SPDX-License-Identifier: Apache-2.0
// What the HDC and device-manager simulators share (sim_common.h).
#include "sim_common.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

namespace velmar::hostplat::sim {

std::string resolve_run_dir(const char *env, const char *name)
{
    const char *chosen = getenv(env);
    if (chosen != nullptr && chosen[0] != '\0') {
        return chosen;
    }
    const char *runtime = getenv("XDG_RUNTIME_DIR");
    if (runtime != nullptr && runtime[0] != '\0') {
        return std::string(runtime) + "/" + name;
    }
    return "/tmp/" + std::string(name) + "-" + std::to_string(getuid());
}

int ensure_dir(const std::string &dir)
{
    if (mkdir(dir.c_str(), 0700) == 0 || errno == EEXIST) {
        return 0;
    }
    return errno;
}

bool make_unix_addr(const std::string &path, sockaddr_un &addr, socklen_t &len)
{
    memset(&addr, 0, sizeof(addr));
    if (path.size() >= sizeof(addr.sun_path)) {
        return false;
    }
    addr.sun_family = AF_UNIX;
    memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    len = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size() + 1);
    return true;
}

} // namespace velmar::hostplat::sim
