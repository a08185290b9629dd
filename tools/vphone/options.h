// Command line of vphone: what the sandbox should look like and what to run in it.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace vphone {

struct Options {
    std::string root;               // phone root on the host
    std::string modem_dir;          // directory with the virtual modem's nodes
    std::vector<std::string> omit;  // node names to leave out of /dev
    std::string partition;          // file bind-mounted at /dev/block/by-name/modem
    std::string nv;                 // file copied to /mnt/vendor/efs/nv_data.bin
    std::string factory;            // file copied to /efs/factory.prop
    std::string cmdline;            // text of /proc/cmdline
    bool cmdline_set = false;
    std::vector<std::pair<std::string, std::string>> props;  // properties set before start
    std::vector<std::string> env;      // NAME=VALUE added to the command's environment
    std::string log_tmpfs;             // size of a tmpfs at /data/vendor/log/rix, empty: none
    std::string pid_file;              // receives the command's host pid
    std::string faketime;              // speed-up factor, empty: real time
    std::vector<std::string> command;  // what to run inside
};

// Parses argv; prints a message and exits with 2 on a usage error.
Options parse_options(int argc, char** argv);

}  // namespace vphone
