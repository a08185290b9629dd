// The registry of the daemon's objects and the command line that creates them.
#include <getopt.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "boot/boot_dump.h"
#include "core/rix.h"
#include "dump/protocol.h"
#include "log/log.h"
#include "srinfo/srinfo.h"

struct rix_args rix_args;

BootDump* Container::bootDump = nullptr;
Protocol* Container::protocol = nullptr;
Srinfo* Container::srinfo = nullptr;

std_boot* Container::getStdBoot() {
    return bootDump != nullptr ? bootDump->getStdBoot() : nullptr;
}

std_dump* Container::getStdDump() {
    return bootDump != nullptr ? bootDump->getStdDump() : nullptr;
}

void Container::reset() {
    delete bootDump;
    delete protocol;
    delete srinfo;
    bootDump = nullptr;
    protocol = nullptr;
    srinfo = nullptr;
    memset(&rix_args, 0, sizeof(rix_args));
    optind = 0;  // glibc: start the next getopt scan afresh
}

namespace {

// Composes fmt with arg into a field of `size` bytes. A result that does not
// fit is refused: a cut path would name another file.
bool compose(char* field, size_t size, const char* fmt, const char* arg) {
    char tmp[kPathLen];
    int n = snprintf(tmp, sizeof(tmp), fmt, arg);
    if (n < 0 || static_cast<size_t>(n) >= size) {
        LOGI_AS("parseArgs", "ERR! argument too long: %s\n", arg);
        return false;
    }
    memcpy(field, tmp, static_cast<size_t>(n) + 1);
    return true;
}

bool known_modem(const char* name) {
    return strncmp(name, "quoll_sit", 9) == 0 || strncmp(name, "vm420", 5) == 0;
}

// -t: only the first accepted modem creates the objects.
bool select_modem(char* name) {
    if (Container::bootDump != nullptr) {
        return true;
    }
    if (!known_modem(name)) {
        LOGI_AS("parseArgs", "Unknown modem\n");
        return false;
    }
    if (strlen(name) >= kModemNameLen) {
        LOGI_AS("parseArgs", "ERR! argument too long: %s\n", name);
        return false;
    }
    Container::bootDump = new BootDumpQuoll();
    Container::bootDump->setRixArgs(name);
    Container::srinfo = new SrinfoTarn();
    return true;
}

bool set_boot_node(const char* arg) {
    LOGI_AS("parseArgs", "set boot_node : %s\n", arg);
    if (!compose(rix_args.boot_node, sizeof(rix_args.boot_node), "/dev/%s", arg)) {
        return false;
    }
    rix_args.boot_node_path = rix_args.boot_node;
    LOGI_AS("parseArgs", "boot_node : %s\n", rix_args.boot_node);
    return true;
}

bool set_dump_node(const char* arg) {
    LOGI_AS("parseArgs", "set dump_node : %s\n", arg);
    if (!compose(rix_args.dump_node, sizeof(rix_args.dump_node), "/dev/%s", arg)) {
        return false;
    }
    LOGI_AS("parseArgs", "dump_node : %s\n", rix_args.dump_node);
    return true;
}

bool set_partition(const char* arg) {
    LOGI_AS("parseArgs", "set partition number : %s\n", arg);
    if (!compose(rix_args.partition_path, sizeof(rix_args.partition_path), "/dev/block/%s", arg)) {
        return false;
    }
    LOGI_AS("parseArgs", "partition path : %s\n", rix_args.partition_path);
    return true;
}

bool set_nv_dir(const char* arg) {
    LOGI_AS("parseArgs", "set nv partition : %s\n", arg);
    if (!compose(rix_args.nv_data_path, sizeof(rix_args.nv_data_path), "%s/nv_data.bin", arg)) {
        return false;
    }
    LOGI_AS("parseArgs", "nv data file path : %s\n", rix_args.nv_data_path);
    LOGI_AS("parseArgs", "nv norm file path : %s\n", rix_args.nv_norm_path);
    LOGI_AS("parseArgs", "nv prot file path : %s\n", rix_args.nv_prot_path);
    return true;
}

// -o: the first character of the argument selects one bit.
void set_option(const char* arg) {
    static const struct {
        char letter;
        uint32_t bit;
        const char* text;
    } kOptions[] = {
        {'r', BOPT_RUN_WITH_ROOT, "run with root"}, {'v', BOPT_VERIFY_VSS, "verify vss"},
        {'s', BOPT_REINIT_VSS, "reinit vss"},       {'m', BOPT_MINIDUMP, "support minidump"},
        {'c', BOPT_NV_CHECKSUM, "nv checksum"},     {'u', BOPT_UPLOAD_TEST, "Upload Test"},
    };
    for (const auto& o : kOptions) {
        if (arg[0] == o.letter) {
            LOGI_AS("parseArgs", "%s\n", o.text);
            rix_args.options |= o.bit;
            return;
        }
    }
    LOGI_AS("parseArgs", "ERR! invalid option %c\n", arg[0]);
}

// -s: only silent-reset-info type 1 exists.
bool check_srinfo_type(const char* arg) {
    LOGI_AS("parseArgs", "SRINFO type: %c\n", arg[0]);
    if (arg[0] != '1') {
        LOGE_AS("parseArgs", "invalid srinfo type: %c\n", arg[0]);
        return false;
    }
    return true;
}

}  // namespace

int Container::parseArgs(int argc, char** argv) {
    int opt;
    while ((opt = getopt(argc, argv, "dt:s:b:m:n:o:P:B:D:")) != -1) {
        bool ok = true;
        switch (opt) {
            case 'd':
                LOGI("Daemon Mode\n");
                rix_args.daemon_mode = 1;
                break;
            case 't':
                ok = select_modem(optarg);
                break;
            case 'B':
                ok = set_boot_node(optarg);
                break;
            case 'D':
                ok = set_dump_node(optarg);
                break;
            case 'P':
                ok = set_partition(optarg);
                break;
            case 'n':
                ok = set_nv_dir(optarg);
                break;
            case 'o':
                set_option(optarg);
                break;
            case 's':
                ok = check_srinfo_type(optarg);
                break;
            case 'b':
            case 'm':
                break;
            default:
                LOGI("WARNING! invalid option %c\n", opt);
                break;
        }
        if (!ok) {
            return 1;
        }
    }
    return 0;
}
