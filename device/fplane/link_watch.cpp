// The link watcher of the live ports: a switch's port manager learns of a
// port's link from its PHY; ours asks the kernel's netlink link table
// (libnl-route-3's cache manager), reads every link once and then follows
// each change on a thread of its own. A netdev is up when it is
// administratively up and running (IFF_UP and IFF_RUNNING: carrier present).
//
// Also here: the search of the other named network namespaces for a netdev,
// so a port bound to a netdev that lives elsewhere gets a clear refusal.
// A test can make opening the watcher fail ("device::fplane::LinkWatcher::Open").
#include <dirent.h>
#include <fcntl.h>
#include <net/if.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <netlink/cache.h>
#include <netlink/netlink.h>
#include <netlink/route/link.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <mutex>
#include <thread>

#include "device/live.hpp"
#include "platform/control.h"
#include "platform/fail_point.hpp"

namespace device::fplane {
namespace {

constexpr const char *kNamedNamespaces = "/run/netns";
constexpr const char *kOpenOp = "device::fplane::LinkWatcher::Open";   // failure injection: the code is an errno

LinkInfo InfoOf(rtnl_link *link, bool removed)
{
    LinkInfo info;
    info.kernelIndex = rtnl_link_get_ifindex(link);
    const char *name = rtnl_link_get_name(link);
    info.name = name == nullptr ? "" : name;
    const unsigned int flags = rtnl_link_get_flags(link);
    info.up = !removed && (flags & IFF_UP) != 0 && (flags & IFF_RUNNING) != 0;
    info.mtu = rtnl_link_get_mtu(link);
    info.removed = removed;
    return info;
}

}  // namespace

struct LinkWatcher::State {
    nl_cache_mngr *manager = nullptr;
    nl_cache *cache = nullptr;
    nl_sock *sync = nullptr;     // reads the table again after an overrun
    int stopFd = -1;
    Handler handler;
    std::thread thread;

    static void Changed(nl_cache *, nl_object *object, int action, void *arg)
    {
        auto *self = static_cast<State *>(arg);
        if (self->handler && object != nullptr) {
            self->handler(InfoOf(reinterpret_cast<rtnl_link *>(object), action == NL_ACT_DEL));
        }
    }

    void Run()
    {
        const int fd = nl_cache_mngr_get_fd(manager);
        for (;;) {
            pollfd fds[2] = {{fd, POLLIN, 0}, {stopFd, POLLIN, 0}};
            if (poll(fds, 2, -1) < 0) {
                if (errno == EINTR) {
                    continue;
                }
                return;
            }
            if ((fds[1].revents & POLLIN) != 0) {
                return;
            }
            if ((fds[0].revents & (POLLIN | POLLERR)) != 0 && nl_cache_mngr_data_ready(manager) < 0) {
                // The socket overran (a burst of changes): read the table
                // again, reporting what differs.
                (void)nl_cache_resync(sync, cache, &State::Changed, this);
            }
        }
    }
};

LinkWatcher::LinkWatcher() : state_(std::make_unique<State>()) {}

LinkWatcher::~LinkWatcher()
{
    Stop();
    if (state_->manager != nullptr) {
        nl_cache_mngr_free(state_->manager);   // frees the cache it manages
    }
    if (state_->sync != nullptr) {
        nl_socket_free(state_->sync);
    }
    if (state_->stopFd >= 0) {
        close(state_->stopFd);
    }
}

bool LinkWatcher::Open(std::string *error)
{
    if (const auto failed = platform::FailPoint(kOpenOp)) {
        *error =
            std::string("cannot open a netlink socket to follow links: ") + std::strerror(static_cast<int>(*failed));
        return false;
    }
    int rc = nl_cache_mngr_alloc(nullptr, NETLINK_ROUTE, 0, &state_->manager);
    if (rc < 0) {
        *error = std::string("cannot open a netlink socket to follow links: ") + nl_geterror(rc);
        return false;
    }
    rc = nl_cache_mngr_add(state_->manager, "route/link", &State::Changed, state_.get(), &state_->cache);
    if (rc < 0) {
        *error = std::string("cannot read the links of this network namespace: ") + nl_geterror(rc);
        return false;
    }
    state_->sync = nl_socket_alloc();
    rc = state_->sync == nullptr ? -NLE_NOMEM : nl_connect(state_->sync, NETLINK_ROUTE);
    if (rc < 0) {
        *error = std::string("cannot open a netlink socket to follow links: ") + nl_geterror(rc);
        return false;
    }
    state_->stopFd = eventfd(0, EFD_CLOEXEC);
    if (state_->stopFd < 0) {
        *error = std::string("cannot create an eventfd: ") + std::strerror(errno);
        return false;
    }
    return true;
}

std::vector<LinkInfo> LinkWatcher::Links() const
{
    std::vector<LinkInfo> links;
    if (state_->cache == nullptr) {
        return links;
    }
    for (nl_object *o = nl_cache_get_first(state_->cache); o != nullptr; o = nl_cache_get_next(o)) {
        links.push_back(InfoOf(reinterpret_cast<rtnl_link *>(o), false));
    }
    return links;
}

bool LinkWatcher::Start(Handler handler, std::string *error)
{
    if (state_->manager == nullptr) {
        *error = "the link watcher is not open";
        return false;
    }
    state_->handler = std::move(handler);
    state_->thread = std::thread([state = state_.get()]() {
        (void)pthread_setname_np(pthread_self(), "linkwatch");
        state->Run();
    });
    return true;
}

void LinkWatcher::Stop()
{
    if (!state_->thread.joinable()) {
        return;
    }
    (void)eventfd_write(state_->stopFd, 1);
    state_->thread.join();
}

std::vector<std::string> NamespacesHolding(const std::string &netdev)
{
    std::vector<std::string> found;
    struct stat own = {};
    if (stat("/proc/self/ns/net", &own) != 0) {
        return found;
    }
    DIR *dir = opendir(kNamedNamespaces);
    if (dir == nullptr) {
        return found;
    }
    std::vector<std::string> names;
    while (const dirent *e = readdir(dir)) {
        if (e->d_name[0] != '.') {
            names.emplace_back(e->d_name);
        }
    }
    closedir(dir);
    std::sort(names.begin(), names.end());
    // setns changes the namespace of the calling thread only: a short-lived
    // thread looks, the caller stays where it is.
    std::thread look([&]() {
        for (const std::string &name : names) {
            const std::string path = std::string(kNamedNamespaces) + "/" + name;
            struct stat st = {};
            if (stat(path.c_str(), &st) != 0 || (st.st_ino == own.st_ino && st.st_dev == own.st_dev)) {
                continue;
            }
            const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
            if (fd < 0) {
                continue;
            }
            if (setns(fd, CLONE_NEWNET) == 0 && if_nametoindex(netdev.c_str()) != 0) {
                found.push_back(name);
            }
            close(fd);
        }
    });
    look.join();
    return found;
}

}  // namespace device::fplane
