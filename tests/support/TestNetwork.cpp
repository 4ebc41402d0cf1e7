#include "support/TestNetwork.h"

#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "support/Process.h"

namespace qbrix::test {

namespace {

ino_t NamespaceOf(const char* process) {
    struct stat info {};
    return ::stat((std::string("/proc/") + process + "/ns/net").c_str(), &info) == 0 ? info.st_ino
                                                                                     : 0;
}

}  // namespace

std::string EnterTestNetwork() {
    if (::geteuid() != 0) {
        return "needs root (network namespaces, netfilter)";
    }
    if (::unshare(CLONE_NEWNET) != 0) {
        return std::string("cannot create a network namespace: ") + std::strerror(errno);
    }
    if (NamespaceOf("self") == NamespaceOf("1")) {
        std::fputs("still in the machine's network namespace: refusing to go on\n", stderr);
        std::abort();
    }
    int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ifreq request{};
    std::strcpy(request.ifr_name, "lo");
    request.ifr_flags = IFF_UP | IFF_LOOPBACK | IFF_RUNNING;
    bool up = ::ioctl(fd, SIOCSIFFLAGS, &request) == 0;
    ::close(fd);
    if (!up) {
        return "cannot bring the namespace's loopback up";
    }
    for (const std::vector<std::string>& words :
         {std::vector<std::string>{"/usr/sbin/ip", "addr", "add", "10.77.0.1/24", "dev", "lo"},
          {"/usr/sbin/ip", "addr", "add", "10.77.1.1/24", "dev", "lo"},
          {"/usr/sbin/ip", "-6", "addr", "add", "fd00:77::1/64", "dev", "lo", "nodad"}}) {
        ProcessResult result = RunProcess(words);
        if (result.exitCode != 0) {
            return "cannot add " + words[words.size() - 3] + " (iproute2): " + result.err;
        }
    }
    return {};
}

}  // namespace qbrix::test
