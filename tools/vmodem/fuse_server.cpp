#define FUSE_USE_VERSION 35
#include "fuse_server.h"

#include <fuse_lowlevel.h>
#include <poll.h>
#include <sys/stat.h>

#include <fcntl.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <vector>

#include "dump/udl.h"
#include "process_memory.h"

namespace vmodem {
namespace {

constexpr fuse_ino_t kRootIno = 1;
constexpr const char* kNames[kNodeCount] = {"umts_boot0", "umts_ramdump0", "ramdump_memshare"};
// Enough pollers per node for every descriptor the daemon and a harness keep.
constexpr size_t kMaxPollHandles = 64;

struct PendingRead {
    fuse_req_t req;
    size_t size;
    int32_t pid;
};

struct State {
    Shared* shared = nullptr;
    fuse_session* session = nullptr;
    std::deque<PendingRead> reads[kNodeCount];
    std::vector<fuse_pollhandle*> polls[kNodeCount];
    alignas(64) uint8_t buf[4 * udl::kMaxFrameSize];
};

State g;

bool node_of(fuse_ino_t ino, Node& node) {
    if (ino < 2 || ino >= 2 + kNodeCount) {
        return false;
    }
    node = static_cast<Node>(ino - 2);
    return true;
}

void fill_attr(fuse_ino_t ino, struct stat& st) {
    std::memset(&st, 0, sizeof(st));
    st.st_ino = ino;
    if (ino == kRootIno) {
        st.st_mode = S_IFDIR | 0755;
        st.st_nlink = 2;
    } else {
        st.st_mode = S_IFREG | 0666;
        st.st_nlink = 1;
    }
}

// Delivers data to kept reads and wakes pollers once a node has something
// to report. Caller holds shared->mu.
void wake_locked(Node node) {
    int i = static_cast<int>(node);
    Modem& modem = *g.shared->modem;
    while (!g.reads[i].empty()) {
        PendingRead r = g.reads[i].front();
        modem.set_caller(r.pid);
        int64_t n = modem.read(node, g.buf, std::min(r.size, sizeof(g.buf)));
        if (n == -EAGAIN) {
            break;
        }
        g.reads[i].pop_front();
        fuse_reply_buf(r.req, reinterpret_cast<const char*>(g.buf), static_cast<size_t>(n));
    }
    if (modem.poll_mask(node) != 0) {
        for (fuse_pollhandle* ph : g.polls[i]) {
            fuse_lowlevel_notify_poll(ph);
            fuse_pollhandle_destroy(ph);
        }
        g.polls[i].clear();
    }
}

void interrupt_read(fuse_req_t req, void*) {
    std::lock_guard lock(g.shared->mu);
    for (auto& q : g.reads) {
        for (auto it = q.begin(); it != q.end(); ++it) {
            if (it->req == req) {
                q.erase(it);
                fuse_reply_err(req, EINTR);
                return;
            }
        }
    }
}

void op_lookup(fuse_req_t req, fuse_ino_t parent, const char* name) {
    for (int i = 0; i < kNodeCount; ++i) {
        if (parent == kRootIno && std::strcmp(name, kNames[i]) == 0) {
            fuse_entry_param e{};
            e.ino = 2 + i;
            e.attr_timeout = 3600;
            e.entry_timeout = 3600;
            fill_attr(e.ino, e.attr);
            fuse_reply_entry(req, &e);
            return;
        }
    }
    fuse_reply_err(req, ENOENT);
}

void op_getattr(fuse_req_t req, fuse_ino_t ino, fuse_file_info*) {
    Node node;
    if (ino != kRootIno && !node_of(ino, node)) {
        fuse_reply_err(req, ENOENT);
        return;
    }
    struct stat st;
    fill_attr(ino, st);
    fuse_reply_attr(req, &st, 3600);
}

void op_setattr(fuse_req_t req, fuse_ino_t ino, struct stat*, int, fuse_file_info* fi) {
    op_getattr(req, ino, fi);  // O_TRUNC on a device node changes nothing
}

void op_readdir(fuse_req_t req, fuse_ino_t ino, size_t size, off_t off, fuse_file_info*) {
    if (ino != kRootIno) {
        fuse_reply_err(req, ENOTDIR);
        return;
    }
    char buf[1024];
    size_t used = 0;
    // The offset is the one this function handed out (i + 1), but it comes
    // back from the kernel: whatever its value, it must not index past the
    // names.
    int first = 0;
    if (off > 0) {
        first = off < kNodeCount ? static_cast<int>(off) : kNodeCount;
    }
    for (int i = first; i < kNodeCount; ++i) {
        struct stat st;
        fill_attr(2 + i, st);
        size_t need = fuse_add_direntry(req, buf + used, sizeof(buf) - used, kNames[i], &st, i + 1);
        if (used + need > size || used + need > sizeof(buf)) {
            break;
        }
        used += need;
    }
    fuse_reply_buf(req, buf, used);
}

void op_open(fuse_req_t req, fuse_ino_t ino, fuse_file_info* fi) {
    Node node;
    if (!node_of(ino, node)) {
        fuse_reply_err(req, EISDIR);
        return;
    }
    fi->direct_io = 1;
    fi->nonseekable = 1;
    fi->keep_cache = 0;
    {
        std::lock_guard lock(g.shared->mu);
        g.shared->modem->opened(node, fi->flags);
    }
    fuse_reply_open(req, fi);
}

void op_release(fuse_req_t req, fuse_ino_t ino, fuse_file_info*) {
    Node node;
    if (node_of(ino, node)) {
        std::lock_guard lock(g.shared->mu);
        g.shared->modem->released(node);
    }
    fuse_reply_err(req, 0);
}

void op_flush(fuse_req_t req, fuse_ino_t, fuse_file_info*) {
    fuse_reply_err(req, 0);
}

void op_read(fuse_req_t req, fuse_ino_t ino, size_t size, off_t, fuse_file_info* fi) {
    Node node;
    if (!node_of(ino, node) || node == Node::Memshare) {
        fuse_reply_err(req, EINVAL);
        return;
    }
    // Registered before the lock: an interrupt that arrives in between is
    // seen through fuse_req_interrupted below.
    fuse_req_interrupt_func(req, interrupt_read, nullptr);
    const int32_t pid = fuse_req_ctx(req)->pid;
    std::lock_guard lock(g.shared->mu);
    g.shared->modem->set_caller(pid);
    int64_t n = g.shared->modem->read(node, g.buf, std::min(size, sizeof(g.buf)));
    if (n >= 0) {
        fuse_reply_buf(req, reinterpret_cast<const char*>(g.buf), static_cast<size_t>(n));
    } else if (fi->flags & O_NONBLOCK) {
        fuse_reply_err(req, EAGAIN);
    } else if (fuse_req_interrupted(req)) {
        fuse_reply_err(req, EINTR);
    } else {
        g.reads[static_cast<int>(node)].push_back({req, size, pid});
    }
}

void op_write(fuse_req_t req, fuse_ino_t ino, const char* data, size_t size, off_t,
              fuse_file_info*) {
    Node node;
    if (!node_of(ino, node)) {
        fuse_reply_err(req, EINVAL);
        return;
    }
    std::lock_guard lock(g.shared->mu);
    int64_t n = g.shared->modem->write(node, data, size);
    if (n < 0) {
        fuse_reply_err(req, static_cast<int>(-n));
        return;
    }
    fuse_reply_write(req, static_cast<size_t>(n));
    wake_locked(node);
}

void op_ioctl(fuse_req_t req, fuse_ino_t ino, unsigned int cmd, void* arg, fuse_file_info*,
              unsigned flags, const void* in_buf, size_t in_bufsz, size_t out_bufsz) {
    Node node;
    if (!node_of(ino, node) || (flags & FUSE_IOCTL_COMPAT)) {
        fuse_reply_err(req, ENOTTY);
        return;
    }
    alignas(8) uint8_t out[1024];
    ProcessMemory user(fuse_req_ctx(req)->pid);
    std::lock_guard lock(g.shared->mu);
    g.shared->modem->set_caller(fuse_req_ctx(req)->pid);
    IoctlOutcome o = g.shared->modem->ioctl(node, cmd, reinterpret_cast<uintptr_t>(arg), in_buf,
                                            in_bufsz, out, std::min(out_bufsz, sizeof(out)), user);
    if (o.result < 0 && o.result > -512) {
        fuse_reply_err(req, -o.result);
    } else {
        fuse_reply_ioctl(req, o.result, o.out_len ? out : nullptr, o.out_len);
    }
    for (int i = 0; i < kNodeCount; ++i) {
        wake_locked(static_cast<Node>(i));
    }
}

void op_poll(fuse_req_t req, fuse_ino_t ino, fuse_file_info* fi, fuse_pollhandle* ph) {
    Node node;
    if (!node_of(ino, node)) {
        fuse_reply_err(req, EINVAL);
        return;
    }
    std::lock_guard lock(g.shared->mu);
    unsigned mask = g.shared->modem->poll_mask(node);
    // A poll for the hang-up alone is the status loop's: the misbehaving
    // driver answers it with an error condition.
    if (node == Node::Boot && (fi->poll_events & POLLIN) == 0 &&
        g.shared->modem->settings().boot_poll_error) {
        mask |= POLLERR;
    }
    g.shared->modem->trace().line("poll %s events=0x%X -> 0x%X", node_name(node), fi->poll_events,
                                  mask);
    if (ph != nullptr) {
        auto& polls = g.polls[static_cast<int>(node)];
        if ((mask & (fi->poll_events | POLLHUP | POLLERR)) != 0) {
            fuse_pollhandle_destroy(ph);
        } else {
            if (polls.size() >= kMaxPollHandles) {
                fuse_lowlevel_notify_poll(polls.front());
                fuse_pollhandle_destroy(polls.front());
                polls.erase(polls.begin());
            }
            polls.push_back(ph);
        }
    }
    fuse_reply_poll(req, mask);
}

// The session loop, with a short busy wait before sleeping: a dump or an
// image load is a strict ping-pong of small requests, and on a virtual
// machine every sleep/wake-up pair of the server costs more than the request
// itself. After kSpin of silence the thread sleeps in poll().
int serve_requests(fuse_session* se) {
    constexpr auto kSpin = std::chrono::microseconds(200);
    int fd = fuse_session_fd(se);
    int flags = fcntl(fd, F_GETFL);
    if (flags < 0 || fcntl(fd, F_SETFL, flags | O_NONBLOCK) != 0) {
        return fuse_session_loop(se) == 0 ? 0 : 1;
    }
    fuse_buf buf{};
    auto last = std::chrono::steady_clock::now();
    int rc = 0;
    while (!fuse_session_exited(se)) {
        int res = fuse_session_receive_buf(se, &buf);
        if (res == -EAGAIN) {
            if (std::chrono::steady_clock::now() - last > kSpin) {
                pollfd p{fd, POLLIN, 0};
                poll(&p, 1, -1);  // EINTR: the signal handler ended the session
                last = std::chrono::steady_clock::now();
            }
            continue;
        }
        if (res == -EINTR) {
            continue;
        }
        if (res <= 0) {
            rc = res == 0 || res == -ENODEV ? 0 : 1;  // 0 / ENODEV: unmounted
            break;
        }
        fuse_session_process_buf(se, &buf);
        last = std::chrono::steady_clock::now();
    }
    free(buf.mem);
    return rc;
}

}  // namespace

void wake_all_locked() {
    for (int i = 0; i < kNodeCount; ++i) {
        wake_locked(static_cast<Node>(i));
    }
}

int run_fuse(Shared& shared, const std::string& dir, bool debug, void (*on_mounted)(void*),
             void* ctx) {
    g.shared = &shared;
    fuse_lowlevel_ops ops{};
    ops.lookup = op_lookup;
    ops.getattr = op_getattr;
    ops.setattr = op_setattr;
    ops.readdir = op_readdir;
    ops.open = op_open;
    ops.release = op_release;
    ops.flush = op_flush;
    ops.read = op_read;
    ops.write = op_write;
    ops.ioctl = op_ioctl;
    ops.poll = op_poll;

    std::vector<const char*> argv = {"vmodem", "-o", "allow_other,fsname=vmodem,subtype=vmodem"};
    if (debug) {
        argv.push_back("-d");
    }
    fuse_args args = FUSE_ARGS_INIT(static_cast<int>(argv.size()), const_cast<char**>(argv.data()));
    g.session = fuse_session_new(&args, &ops, sizeof(ops), nullptr);
    // The session may have copied the arguments into storage of its own.
    fuse_opt_free_args(&args);
    if (g.session == nullptr) {
        return 1;
    }
    int rc = 1;
    if (fuse_set_signal_handlers(g.session) == 0) {
        if (fuse_session_mount(g.session, dir.c_str()) == 0) {
            on_mounted(ctx);
            rc = serve_requests(g.session);
            fuse_session_unmount(g.session);
        }
        fuse_remove_signal_handlers(g.session);
    }
    {
        std::lock_guard lock(shared.mu);
        for (auto& polls : g.polls) {
            for (fuse_pollhandle* ph : polls) {
                fuse_pollhandle_destroy(ph);
            }
            polls.clear();
        }
    }
    fuse_session_destroy(g.session);
    g.session = nullptr;
    return rc;
}

}  // namespace vmodem
