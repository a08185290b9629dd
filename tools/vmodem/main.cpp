// vmodem: the virtual modem. Serves umts_boot0, umts_ramdump0 and
// ramdump_memshare under a FUSE mount; see README.md for the command line,
// the scenario keys, the control commands and the trace format.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "control_socket.h"
#include "fuse_server.h"
#include "modem.h"
#include "settings.h"
#include "trace.h"

namespace {

struct Options {
    std::string mount, scenario, control, trace, memory, ready_file;
    int ready_fd = -1;
    bool debug = false;
};

void usage() {
    fprintf(stderr,
            "usage: vmodem {--mount DIR | DIR} [--scenario FILE] [--control SOCK] [--trace FILE]\n"
            "              [--memory FILE] [--ready-fd N] [--ready-file PATH] [--debug]\n");
}

bool parse(int argc, char** argv, Options& o) {
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        if (a == "--debug") {
            o.debug = true;
            continue;
        }
        if (a.rfind("--", 0) != 0 && o.mount.empty()) {
            o.mount = a;  // the mount point may also be given on its own
            continue;
        }
        if (i + 1 >= argc) {
            return false;
        }
        std::string v = argv[++i];
        if (a == "--mount") {
            o.mount = v;
        } else if (a == "--scenario") {
            o.scenario = v;
        } else if (a == "--control") {
            o.control = v;
        } else if (a == "--trace") {
            o.trace = v;
        } else if (a == "--memory") {
            o.memory = v;
        } else if (a == "--ready-file") {
            o.ready_file = v;
        } else if (a == "--ready-fd") {
            // Only a whole non-negative number names a descriptor.
            char* end = nullptr;
            const long fd = std::strtol(v.c_str(), &end, 10);
            if (v.empty() || *end != '\0' || fd < 0 || fd > 1 << 20) {
                return false;
            }
            o.ready_fd = static_cast<int>(fd);
        } else {
            return false;
        }
    }
    return !o.mount.empty();
}

// Modem memory: a sparse file (or an anonymous one) mapped shared, so image
// chunks land straight in it and a test can compare bytes at offsets.
uint8_t* map_memory(const std::string& path, uint64_t size) {
    int fd = path.empty() ? memfd_create("vmodem-memory", MFD_CLOEXEC)
                          : open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0 || ftruncate(fd, static_cast<off_t>(size)) != 0) {
        return nullptr;
    }
    void* p = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    return p == MAP_FAILED ? nullptr : static_cast<uint8_t*>(p);
}

void signal_ready(void* ctx) {
    const Options& o = *static_cast<const Options*>(ctx);
    if (o.ready_fd >= 0) {
        ssize_t ignored = write(o.ready_fd, "ready\n", 6);
        (void)ignored;
        close(o.ready_fd);
    }
    if (!o.ready_file.empty()) {
        int fd = open(o.ready_file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        if (fd >= 0) {
            ssize_t ignored = write(fd, "ready\n", 6);
            (void)ignored;
            close(fd);
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    Options opt;
    if (!parse(argc, argv, opt)) {
        usage();
        return 2;
    }
    vmodem::Settings settings;
    if (!opt.scenario.empty()) {
        std::string err = vmodem::load_scenario(settings, opt.scenario);
        if (!err.empty()) {
            fprintf(stderr, "vmodem: %s: %s\n", opt.scenario.c_str(), err.c_str());
            return 2;
        }
    }
    vmodem::Trace trace;
    if (!opt.trace.empty() && !trace.open(opt.trace)) {
        fprintf(stderr, "vmodem: cannot open trace %s: %s\n", opt.trace.c_str(), strerror(errno));
        return 1;
    }
    uint8_t* memory = map_memory(opt.memory, settings.memory_size);
    if (memory == nullptr) {
        fprintf(stderr, "vmodem: cannot map %llu bytes of modem memory: %s\n",
                static_cast<unsigned long long>(settings.memory_size), strerror(errno));
        return 1;
    }
    vmodem::Modem modem(settings, memory, trace);
    vmodem::Shared shared;
    shared.modem = &modem;
    vmodem::ControlSocket control;
    if (!opt.control.empty() && !control.start(opt.control, shared)) {
        fprintf(stderr, "vmodem: cannot listen on %s: %s\n", opt.control.c_str(), strerror(errno));
        return 1;
    }
    int rc = vmodem::run_fuse(shared, opt.mount, opt.debug, signal_ready, &opt);
    control.stop();
    munmap(memory, settings.memory_size);
    return rc;
}
