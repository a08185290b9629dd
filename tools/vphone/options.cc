#include "options.h"

#include <getopt.h>

#include <cstdio>
#include <cstdlib>

namespace vphone {
namespace {

const char kUsage[] =
    "usage: vphone --root DIR [options] [--] COMMAND [ARG...]\n"
    "Runs COMMAND as root in private mount and PID namespaces, chrooted into DIR,\n"
    "which is laid out like the phone. Exits with COMMAND's exit status\n"
    "(128+N when it was killed by signal N).\n"
    "\n"
    "  --root DIR          phone root on the host; created and filled where missing\n"
    "  --modem-dir DIR     a mounted virtual modem: its umts_boot0, umts_ramdump0 and\n"
    "                      ramdump_memshare are bind-mounted into /dev\n"
    "  --omit-node NAME    leave /dev/NAME out (repeatable), e.g. ramdump_memshare\n"
    "  --partition FILE    bind-mount FILE at /dev/block/by-name/modem\n"
    "  --nv FILE           copy FILE to /mnt/vendor/efs/nv_data.bin\n"
    "  --factory FILE      copy FILE to /efs/factory.prop\n"
    "  --cmdline TEXT      text of /proc/cmdline (a line feed is added)\n"
    "  --prop NAME=VALUE   set a property before the start (repeatable)\n"
    "  --env NAME=VALUE    add to the command's environment (repeatable)\n"
    "  --log-tmpfs SIZE    mount a tmpfs of SIZE (as for mount -o size=) at\n"
    "                      /data/vendor/log/rix\n"
    "  --pid-file FILE     write the command's host pid to FILE (host path)\n"
    "  --faketime FACTOR   run COMMAND under libfaketime, its clock FACTOR times as fast\n"
    "  --help              this text\n";

[[noreturn]] void usage_error(const char* what) {
    std::fprintf(stderr, "vphone: %s\n%s", what, kUsage);
    std::exit(2);
}

std::pair<std::string, std::string> split_assignment(const char* text) {
    std::string s(text);
    auto eq = s.find('=');
    if (eq == std::string::npos || eq == 0) {
        usage_error("expected NAME=VALUE");
    }
    return {s.substr(0, eq), s.substr(eq + 1)};
}

enum Opt {
    kRoot = 1000,
    kModemDir,
    kOmit,
    kPartition,
    kNv,
    kFactory,
    kCmdline,
    kProp,
    kEnv,
    kLogTmpfs,
    kPidFile,
    kFaketime,
    kHelp
};

const option kLongOptions[] = {
    {"root", required_argument, nullptr, kRoot},
    {"modem-dir", required_argument, nullptr, kModemDir},
    {"omit-node", required_argument, nullptr, kOmit},
    {"partition", required_argument, nullptr, kPartition},
    {"nv", required_argument, nullptr, kNv},
    {"factory", required_argument, nullptr, kFactory},
    {"cmdline", required_argument, nullptr, kCmdline},
    {"prop", required_argument, nullptr, kProp},
    {"env", required_argument, nullptr, kEnv},
    {"log-tmpfs", required_argument, nullptr, kLogTmpfs},
    {"pid-file", required_argument, nullptr, kPidFile},
    {"faketime", required_argument, nullptr, kFaketime},
    {"help", no_argument, nullptr, kHelp},
    {nullptr, 0, nullptr, 0},
};

void apply(Options& o, int opt, const char* arg) {
    switch (opt) {
        case kRoot:
            o.root = arg;
            break;
        case kModemDir:
            o.modem_dir = arg;
            break;
        case kOmit:
            o.omit.emplace_back(arg);
            break;
        case kPartition:
            o.partition = arg;
            break;
        case kNv:
            o.nv = arg;
            break;
        case kFactory:
            o.factory = arg;
            break;
        case kCmdline:
            o.cmdline = arg;
            o.cmdline_set = true;
            break;
        case kProp:
            o.props.push_back(split_assignment(arg));
            break;
        case kEnv:
            split_assignment(arg);
            o.env.emplace_back(arg);
            break;
        case kLogTmpfs:
            o.log_tmpfs = arg;
            break;
        case kPidFile:
            o.pid_file = arg;
            break;
        case kFaketime:
            o.faketime = arg;
            break;
        case kHelp:
            std::fputs(kUsage, stdout);
            std::exit(0);
        default:
            usage_error("unknown option");
    }
}

}  // namespace

Options parse_options(int argc, char** argv) {
    Options o;
    // "+": stop at the first non-option, so COMMAND keeps its own options.
    int opt;
    while ((opt = getopt_long(argc, argv, "+", kLongOptions, nullptr)) != -1) {
        apply(o, opt, optarg);
    }
    for (int i = optind; i < argc; ++i) {
        o.command.emplace_back(argv[i]);
    }
    if (o.root.empty()) {
        usage_error("--root is required");
    }
    if (o.command.empty()) {
        usage_error("no command given");
    }
    return o;
}

}  // namespace vphone
