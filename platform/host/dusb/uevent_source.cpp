#include "uevent_source.h"

#include <fcntl.h>
#include <linux/netlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "db_util/str.h"
#include "dusbd_log.h"

namespace dusb {

namespace {
constexpr unsigned kKernelGroup = 1;
constexpr int kReceiveBuffer = 1 << 20;  // a burst of a hub full of disks
}  // namespace

bool UeventSource::open_netlink() {
    fd_.reset(socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_KOBJECT_UEVENT));
    if (!fd_) {
        DUSBD_LOG(ORBIIL_LOG_ERROR, "cannot open the uevent socket: %s", usbmgr::ErrnoText(errno).c_str());
        return false;
    }
    int size = kReceiveBuffer;
    setsockopt(fd_.get(), SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    int on = 1;
    setsockopt(fd_.get(), SOL_SOCKET, SO_PASSCRED, &on, sizeof on);
    sockaddr_nl addr{};
    addr.nl_family = AF_NETLINK;
    addr.nl_groups = kKernelGroup;
    if (bind(fd_.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        DUSBD_LOG(ORBIIL_LOG_ERROR, "cannot join the kernel's uevent group: %s", usbmgr::ErrnoText(errno).c_str());
        fd_.reset();
        return false;
    }
    netlink_ = true;
    return true;
}

bool UeventSource::open_file(const std::string& path) {
    fd_.reset(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd_) {
        DUSBD_LOG(ORBIIL_LOG_ERROR, "cannot open %s: %s", path.c_str(), usbmgr::ErrnoText(errno).c_str());
        return false;
    }
    netlink_ = false;
    return true;
}

bool UeventSource::read(std::vector<Uevent>& out) {
    if (netlink_) return read_netlink(out);
    char buf[4096];
    ssize_t n = ::read(fd_.get(), buf, sizeof buf);
    if (n < 0 && (errno == EINTR || errno == EAGAIN)) return true;
    if (n <= 0) {
        blocks_.finish(out);
        return false;
    }
    blocks_.feed(buf, static_cast<std::size_t>(n), out);
    return true;
}

bool UeventSource::read_netlink(std::vector<Uevent>& out) {
    for (;;) {
        char buf[kMaxUeventMessage];
        char control[CMSG_SPACE(sizeof(ucred))];
        sockaddr_nl from{};
        iovec iov{buf, sizeof buf};
        msghdr msg{};
        msg.msg_name = &from;
        msg.msg_namelen = sizeof from;
        msg.msg_iov = &iov;
        msg.msg_iovlen = 1;
        msg.msg_control = control;
        msg.msg_controllen = sizeof control;
        ssize_t n = recvmsg(fd_.get(), &msg, 0);
        if (n < 0) {
            if (errno == EINTR) continue;
            if (errno == EAGAIN) return true;
            // A burst larger than the buffer: the lost events' disks are
            // still told at their USB device's removal.
            if (errno == ENOBUFS) {
                DUSBD_LOG(ORBIIL_LOG_WARNING, "uevents lost: the socket's buffer ran over");
                continue;
            }
            DUSBD_LOG(ORBIIL_LOG_ERROR, "reading uevents failed: %s", usbmgr::ErrnoText(errno).c_str());
            return false;
        }
        // Only the kernel (port 0, root) speaks here; a process that sends
        // to the group is not listened to.
        const cmsghdr* c = CMSG_FIRSTHDR(&msg);
        ucred cred{};
        bool have_cred = c && c->cmsg_level == SOL_SOCKET && c->cmsg_type == SCM_CREDENTIALS &&
                         c->cmsg_len >= CMSG_LEN(sizeof cred);
        if (have_cred) std::memcpy(&cred, CMSG_DATA(c), sizeof cred);
        if (from.nl_pid != 0 || !have_cred || cred.uid != 0 || (msg.msg_flags & MSG_TRUNC)) continue;
        if (auto ev = parse_kernel_message(buf, static_cast<std::size_t>(n))) out.push_back(std::move(*ev));
    }
}

}  // namespace dusb
